// telvor-sim: runs the whole service through random days on the simulated machine, and says what broke.
#include <CLI/CLI.hpp>
#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>

#include "canaries.h"
#include "days.h"
#include "invariants.h"
#include "shrink.h"
#include "totals.h"

namespace {

using namespace simulator;

struct Arguments {
  std::optional<uint64_t> seed;
  std::string seeds;
  double hours = 0;
  std::string day;
  std::string replay;
  std::string output = ".";
  bool story = false;
  bool canary = false;
  bool invariants = false;
};

void WriteLines(const std::string& path, const std::vector<std::string>& lines) {
  std::ofstream file(path);
  for (const std::string& line : lines) file << line << '\n';
  std::cout << "written: " << path << '\n';
}

// The smallest plan that fails in the same way, and its story.
void KeepFailure(const Arguments& arguments, const Plan& plan, const Violation& violation) {
  std::cout << "seed " << plan.seed << " FAILED: " << violation.invariant << ", at event " << violation.event
            << " of " << plan.events.size() << "\n  " << violation.detail << '\n';
  const Plan smallest =
      violation.invariant == kTwice ? plan : ShrinkByRunning(plan, violation.invariant, RunOptions{});
  std::cout << "shortened to " << smallest.events.size() << " events:\n" << PlanText(smallest);
  std::filesystem::create_directories(arguments.output);
  const std::string base = arguments.output + "/telvor-sim-" + std::to_string(plan.seed);
  std::ofstream(base + ".plan") << PlanText(smallest);
  WriteLines(base + ".story", RunPlan(smallest, {.story = true}).story);
  std::cout << "again: telvor-sim --replay " << base << ".plan --story\n" << std::flush;
}

bool RunAndJudge(const Arguments& arguments, const Plan& plan, bool twice, Totals& totals) {
  const Outcome outcome = twice ? RunTwice(plan) : RunPlan(plan);
  Add(totals, plan, outcome, twice ? 2 : 1);
  if (outcome.violation) KeepFailure(arguments, plan, *outcome.violation);
  return !outcome.violation;
}

void TellStory(const Plan& plan) {
  for (const std::string& line : RunPlan(plan, {.story = true}).story) std::cout << line << '\n';
}

bool RunOne(const Arguments& arguments, const Plan& plan) {
  Totals totals;
  if (arguments.story) TellStory(plan);
  const bool good = RunAndJudge(arguments, plan, true, totals);
  std::cout << TotalsText(totals);
  return good;
}

// A run that would not have found a bug that was put in says nothing of the system either.
bool FindOneCanary(uint64_t seed) {
  constexpr uint64_t kSeeds = 200;
  const Canary& canary = Canaries()[seed % Canaries().size()];
  const bool found = FindCanary(canary, seed, kSeeds).has_value();
  std::cout << (found ? "found" : "FAILED: did not find") << " the canary " << canary.name << '\n'
            << std::flush;
  return found;
}

// One seed, in many twice, the second time to see that it goes the same way.
void RunSeed(const Arguments& arguments, uint64_t seed, Totals& totals) {
  constexpr uint64_t kTwiceOneIn = 10;
  RunAndJudge(arguments, DrawPlan(seed), seed % kTwiceOneIn == 0, totals);
}

bool RunRange(const Arguments& arguments, uint64_t first, uint64_t last) {
  const bool found = FindOneCanary(first);
  Totals totals;
  for (uint64_t seed = first; seed <= last; ++seed) RunSeed(arguments, seed, totals);
  std::cout << TotalsText(totals);
  return found && totals.failures == 0;
}

// Seeds that nobody has run before, for so many hours of the wall's clock.
bool RunForHours(const Arguments& arguments) {
  const std::chrono::duration<double, std::ratio<3600>> time(arguments.hours);
  Totals totals;
  uint64_t seed =
      static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()) & 0xFFFFFFFFFFFF;
  std::cout << "seeds from " << seed << '\n' << std::flush;
  const bool found = FindOneCanary(seed);
  while (std::chrono::steady_clock::now() - totals.begun < time) RunSeed(arguments, seed++, totals);
  std::cout << TotalsText(totals);
  return found && totals.failures == 0;
}

bool RunDay(const Arguments& arguments) {
  Totals totals;
  const double hours = arguments.hours > 0 ? arguments.hours : 24;
  const bool good = RunAndJudge(arguments, DayPlan(arguments.day, hours), false, totals);
  std::cout << TotalsText(totals);
  return good;
}

// Every bug that is put in must be found, and by the invariant that it breaks.
bool FindAllCanaries() {
  constexpr uint64_t kSeeds = 200;
  size_t missed = 0;
  for (const Canary& canary : Canaries()) {
    const std::optional<Find> find = FindCanary(canary, 1, kSeeds);
    std::cout << (find ? "found   " : "MISSED  ") << canary.name << ": " << canary.bug;
    if (find) {
      const Violation& violation = *find->outcome.violation;
      const Plan smallest = ShrinkByRunning(DrawPlan(find->seed), violation.invariant, WithCanary(canary));
      std::cout << " (seed " << find->seed << ", " << violation.invariant << ", "
                << DrawPlan(find->seed).events.size() << " events shortened to " << smallest.events.size()
                << ')';
    }
    std::cout << '\n' << std::flush;
    missed += find ? 0 : 1;
  }
  return missed == 0;
}

bool Replay(const Arguments& arguments) {
  std::ifstream file(arguments.replay);
  std::ostringstream text;
  text << file.rdbuf();
  const std::optional<Plan> plan = ReadPlan(text.str());
  if (!file || !plan) {
    std::cerr << arguments.replay << " is no plan\n";
    return false;
  }
  return RunOne(arguments, *plan);
}

bool RunSeeds(const Arguments& arguments) {
  std::istringstream range(arguments.seeds);
  uint64_t first = 0;
  uint64_t last = 0;
  char dash = 0;
  if (!(range >> first >> dash >> last) || dash != '-' || last < first) {
    std::cerr << "--seeds takes A-B\n";
    return false;
  }
  return RunRange(arguments, first, last);
}

void ListInvariants() {
  for (const Invariant& invariant : Invariants()) {
    std::cout << invariant.name << ": " << invariant.statement << '\n';
  }
}

bool Run(const Arguments& arguments) {
  if (arguments.invariants) ListInvariants();
  if (arguments.invariants) return true;
  if (arguments.canary) return FindAllCanaries();
  if (!arguments.replay.empty()) return Replay(arguments);
  if (!arguments.seeds.empty()) return RunSeeds(arguments);
  if (!arguments.day.empty()) return RunDay(arguments);
  if (arguments.hours > 0) return RunForHours(arguments);
  return RunOne(arguments, DrawPlan(arguments.seed.value_or(1)));
}

}  // namespace

int main(int count, char** texts) try {
  CLI::App app("Runs the whole service through random days on the simulated machine.");
  Arguments arguments;
  app.add_option("--seed", arguments.seed, "one run");
  app.add_option("--seeds", arguments.seeds, "the runs A-B, every tenth twice");
  app.add_option("--hours", arguments.hours,
                 "new seeds for so many hours, also parts of one; with --day: what it lasts");
  app.add_option("--day", arguments.day, "a day without trouble: idle or busy, of 24 hours")
      ->check(CLI::IsMember({"idle", "busy"}));
  app.add_option("--replay", arguments.replay, "the run of a plan in a file");
  app.add_option("--output", arguments.output, "where plans and stories of failures are written");
  app.add_flag("--story", arguments.story, "tells the run");
  app.add_flag("--canary", arguments.canary, "puts bugs in and looks whether they are found");
  app.add_flag("--invariants", arguments.invariants, "lists what must hold");
  CLI11_PARSE(app, count, texts);
  return Run(arguments) ? 0 : 1;
} catch (const std::exception& exception) {
  std::cerr << exception.what() << '\n';
  return 1;
}
