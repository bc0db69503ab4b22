// docs/pipe.md against what went over the pipe.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "ipc/methods.h"
#include "tests/docs/page.h"
#include "tests/docs/scripted_day.h"

namespace {

const Page& PipePage() {
  static const Page page = ReadPage("pipe.md");
  return page;
}

std::vector<std::string> Lines(const PipeExchange& exchange) {
  return {"-> " + exchange.sent, "<- " + exchange.reply};
}

// Null if the day has no such exchange.
const PipeExchange* FindSent(const std::string& line) {
  const std::vector<PipeExchange>& all = TheDay().pipe;
  const auto found = std::find_if(
      all.begin(), all.end(), [&](const PipeExchange& exchange) { return "-> " + exchange.sent == line; });
  return found == all.end() ? nullptr : &*found;
}

bool StandsOnPage(const PipeExchange& exchange) {
  const std::vector<Example>& examples = PipePage().examples;
  return std::any_of(examples.begin(), examples.end(),
                     [&](const Example& example) { return example.text.front() == "-> " + exchange.sent; });
}

TEST(PipePage, DescribesAllMethodsInTheirOrder) {
  std::vector<std::string> described;
  for (const std::string& heading : PipePage().headings) {
    if (heading.starts_with('`')) described.push_back(heading.substr(1, heading.find('`', 1) - 1));
  }
  std::vector<std::string> methods(std::size(gPipeMethods));
  std::transform(std::begin(gPipeMethods), std::end(gPipeMethods), methods.begin(),
                 [](const PipeMethod& method) { return method.name; });
  EXPECT_EQ(described, methods);
}

TEST(PipePage, ShowsTheRepliesAsTheyWent) {
  for (const Example& example : PipePage().examples) {
    const PipeExchange* exchange = FindSent(example.text.front());
    if (!exchange) {
      ADD_FAILURE() << "docs/pipe.md has a line that the scripted day does not send:\n"
                    << example.text.front();
      continue;
    }
    EXPECT_EQ(example.text, Lines(*exchange)) << "docs/pipe.md should say:\n"
                                              << ExampleText(Lines(*exchange));
    if (exchange->method.empty()) continue;
    EXPECT_EQ(example.heading, "`" + exchange->method + "`");
  }
}

TEST(PipePage, ShowsEverythingThatWasAsked) {
  for (const PipeExchange& exchange : TheDay().pipe) {
    EXPECT_TRUE(StandsOnPage(exchange)) << "docs/pipe.md lacks, under `" << exchange.method << "`:\n"
                                        << ExampleText(Lines(exchange));
  }
}

TEST(PipePage, TheDayAsksForEveryMethod) {
  for (const PipeMethod& method : gPipeMethods) {
    const auto asked = [&](const PipeExchange& exchange) { return exchange.method == method.name; };
    EXPECT_TRUE(std::any_of(TheDay().pipe.begin(), TheDay().pipe.end(), asked)) << method.name;
  }
}

}  // namespace
