#include "simulation.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <utility>

#include <unistd.h>

#include "acts.h"
#include "clients.h"
#include "invariants.h"
#include "neighbours.h"
#include "random.h"
#include "sim/files.h"
#include "sim/filtering.h"
#include "sim/kernel.h"
#include "sim/network.h"

namespace simulator {
namespace {

constexpr size_t kManyHandles = 100'000;

void ReportMachineFailure(const std::string& text) {
  Violate(kMachine, text);
}

char gRunning[64];

// A machine that stands still ends the program: the seed must not be lost with it.
void OnAbort(int) {
  if (write(STDERR_FILENO, gRunning, std::strlen(gRunning)) < 0) return;
}

void NoteRunning(uint64_t seed) {
  const std::string text = "while running seed " + std::to_string(seed) + "\n";
  gRunning[text.copy(gRunning, sizeof gRunning - 1)] = '\0';
  static_cast<void>(std::signal(SIGABRT, &OnAbort));
}

uint64_t HashOfMachine() {
  const std::hash<std::string> hash;
  uint64_t all = sim::Now();
  for (const std::wstring& file : sim::AllFiles()) {
    all = Mix(all, hash(sim::Narrow(file)));
    all = Mix(all, hash(sim::FileBytes(file).value_or("")));
  }
  for (const std::wstring& name : sim::FilterNames()) all = Mix(all, hash(sim::Narrow(name)));
  for (const std::string& route : sim::RouteTexts()) all = Mix(all, hash(route));
  return all;
}

void CarryOut(const Plan& plan) {
  StartService();
  for (const Event& event : plan.events) {
    ++gFacts.event;
    if (!Pass(event.pause)) return;
    if (Telling()) Tell("--- " + EventText(event));
    Acts()[event.act].carryOut(event.choice, event.amount);
    if (gFacts.violation) return;
  }
  CalmDown(0, 0);
}

}  // namespace

Outcome RunPlan(const Plan& plan, const RunOptions& options) {
  constexpr uint64_t kBoot = 1'000'000;
  NoteRunning(plan.seed);
  sim::SetFailureReporter(&ReportMachineFailure);
  gFacts = Facts{};
  gFacts.telling = options.story;
  ForgetClients();
  Outcome outcome;
  {
    sim::Machine machine({.seed = plan.seed, .keepsTrace = false});
    // What a stop cuts off is open then; what is left at rest is judged instead.
    sim::ExpectOpenHandles(kManyHandles);
    SettleIn();
    StartWatching(options.change);
    CarryOut(plan);
    outcome.endHash = HashOfMachine();
    outcome.milliseconds = sim::Now() - kBoot;
    outcome.faults = sim::FaultsApplied();
  }
  StopWatching();
  outcome.violation = gFacts.violation;
  outcome.traceHash = gFacts.traceHash;
  outcome.calls = gFacts.calls;
  outcome.states = std::move(gFacts.states);
  outcome.story = std::move(gFacts.story);
  return outcome;
}

Outcome RunTwice(const Plan& plan, const RunOptions& options) {
  Outcome first = RunPlan(plan, options);
  const Outcome second = RunPlan(plan, options);
  const bool alike = first.traceHash == second.traceHash && first.endHash == second.endHash &&
                     first.milliseconds == second.milliseconds;
  if (!alike && !first.violation) {
    first.violation = Violation{kTwice, "the second run went another way", first.milliseconds, 0};
  }
  return first;
}

}  // namespace simulator
