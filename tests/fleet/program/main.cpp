// telvor-fleet: runs a sample of clients through a story in simulated time, each the whole service on its own
// simulated machine, and writes what their control plane sees.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <exception>
#include <iostream>
#include <string>

#include "client.h"
#include "stories.h"

namespace {

void WriteRequests(uint32_t client, const std::vector<fleet::SeenRequest>& requests) {
  for (const fleet::SeenRequest& request : requests) {
    std::cout << client << ',' << request.time << ',' << request.verb << ',' << request.path << ','
              << request.sent << ',' << request.status << ',' << request.answered << '\n';
  }
  std::cout << std::flush;
}

std::string Descriptions() {
  std::string text = "One of:";
  for (const fleet::Story& story : fleet::Stories())
    text += std::string("\n  ") + story.name + ": " + story.statement;
  return text;
}

}  // namespace

int main(int count, char** texts) try {
  CLI::App app("Runs a sample of clients through a story, and writes what their control plane sees.");
  std::string name;
  uint32_t first = 0;
  uint32_t step = 1;
  uint32_t clients = 20;
  app.add_option("story", name, Descriptions())->required();
  app.add_option("--clients", clients, "how many the sample has")->check(CLI::PositiveNumber);
  app.add_option("--first", first, "the first client to run, from 0; of several programs each runs its part");
  app.add_option("--step", step, "and then every so many-th")->check(CLI::PositiveNumber);
  CLI11_PARSE(app, count, texts);
  const fleet::Story* story = fleet::FindStory(name);
  if (!story) {
    std::cerr << "no such story: " << name << '\n';
    return 1;
  }
  std::cout << "client,milliseconds,verb,path,sent,status,answered\n";
  for (uint32_t client = first; client < clients; client += step) {
    WriteRequests(client, fleet::RunClient(story->plan(client, clients)));
  }
  return 0;
} catch (const std::exception& exception) {
  std::cerr << exception.what() << '\n';
  return 1;
}
