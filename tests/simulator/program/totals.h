// What all runs of the program came to.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <unordered_set>

#include "simulation.h"

namespace simulator {

struct Totals {
  uint64_t runs = 0;
  uint64_t milliseconds = 0;  // virtual
  uint64_t calls = 0;
  uint64_t faults = 0;
  uint64_t events = 0;
  uint64_t failures = 0;
  std::unordered_set<uint64_t> states;
  std::unordered_set<uint64_t> schedules;
  std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();
};

// `times`: how often the plan was run.
void Add(Totals& totals, const Plan& plan, const Outcome& outcome, uint64_t times);

// Several lines for people.
std::string TotalsText(const Totals& totals);

}  // namespace simulator
