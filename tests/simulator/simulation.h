// One run of the whole service from its plan, and what came of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "facts.h"
#include "plan.h"
#include "watch.h"

namespace simulator {

struct RunOptions {
  bool story = false;
  TableChange change = nullptr;  // a bug put in on purpose
};

struct Outcome {
  std::optional<Violation> violation;
  uint64_t traceHash = 0;     // of every call with its arguments, its result, its time and its thread
  uint64_t endHash = 0;       // of the machine's state at the end
  uint64_t milliseconds = 0;  // virtual
  uint64_t calls = 0;
  uint64_t faults = 0;
  std::unordered_set<uint64_t> states;
  std::vector<std::string> story;
};

Outcome RunPlan(const Plan& plan, const RunOptions& options = {});

// Twice: a run that does not repeat itself is a failure of its own.
Outcome RunTwice(const Plan& plan, const RunOptions& options = {});

}  // namespace simulator
