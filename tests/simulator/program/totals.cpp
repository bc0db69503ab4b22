#include "totals.h"

#include <cstdio>

namespace simulator {
namespace {

std::string Fixed(double number) {
  char text[32];
  static_cast<void>(std::snprintf(text, sizeof text, "%.1f", number));
  return text;
}

}  // namespace

void Add(Totals& totals, const Plan& plan, const Outcome& outcome, uint64_t times) {
  totals.runs += times;
  totals.milliseconds += times * outcome.milliseconds;
  totals.calls += times * outcome.calls;
  totals.faults += times * outcome.faults;
  totals.events += times * plan.events.size();
  totals.failures += outcome.violation ? 1 : 0;
  totals.states.insert(outcome.states.begin(), outcome.states.end());
  totals.schedules.insert(outcome.traceHash);
}

std::string TotalsText(const Totals& totals) {
  constexpr double kMillisecondsPerHour = 3'600'000;
  const std::chrono::duration<double, std::milli> real = std::chrono::steady_clock::now() - totals.begun;
  const double virtualMilliseconds = static_cast<double>(totals.milliseconds);
  return "runs               " + std::to_string(totals.runs) + "\nsimulated hours    " +
         Fixed(virtualMilliseconds / kMillisecondsPerHour) + "\nevents             " +
         std::to_string(totals.events) + "\nplatform calls     " + std::to_string(totals.calls) +
         "\nfaults injected    " + std::to_string(totals.faults) + "\ndistinct states    " +
         std::to_string(totals.states.size()) + "\ndistinct schedules " +
         std::to_string(totals.schedules.size()) + "\nreal seconds       " + Fixed(real.count() / 1000) +
         "\nspeed              " + Fixed(virtualMilliseconds / real.count()) +
         " times real time\nfailures           " + std::to_string(totals.failures) + "\n";
}

}  // namespace simulator
