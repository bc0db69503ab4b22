#include "shrink.h"

#include <algorithm>

namespace simulator {
namespace {

// The plan without one of `parts` equal parts of its events. What happens behind the part happens when it
// did.
Plan Without(const Plan& plan, size_t part, size_t parts) {
  const size_t count = plan.events.size();
  const size_t from = count * part / parts;
  const size_t to = count * (part + 1) / parts;
  Plan shorter{plan.seed, {}};
  uint64_t pause = 0;
  for (size_t index = 0; index < count; ++index) {
    if (index >= from && index < to) {
      pause += plan.events[index].pause;
      continue;
    }
    shorter.events.push_back(plan.events[index]);
    shorter.events.back().pause += pause;
    pause = 0;
  }
  return shorter;
}

// The first shorter plan that still fails takes the place of `plan`.
bool TakeAPartAway(Plan& plan, size_t parts, const StillFails& stillFails) {
  for (size_t part = 0; part < parts; ++part) {
    const Plan shorter = Without(plan, part, parts);
    if (shorter.events.size() == plan.events.size() || !stillFails(shorter)) continue;
    plan = shorter;
    return true;
  }
  return false;
}

}  // namespace

Plan Shrink(const Plan& plan, const StillFails& stillFails) {
  Plan smallest = plan;
  size_t parts = 2;
  while (!smallest.events.empty()) {
    parts = std::min(parts, smallest.events.size());
    if (TakeAPartAway(smallest, parts, stillFails)) {
      parts = std::max<size_t>(parts - 1, 2);
    } else if (parts == smallest.events.size()) {
      break;
    } else {
      parts *= 2;
    }
  }
  return smallest;
}

Plan ShrinkByRunning(const Plan& plan, const std::string& invariant, const RunOptions& options) {
  return Shrink(plan, [&](const Plan& shorter) {
    const Outcome outcome = RunPlan(shorter, options);
    return outcome.violation && outcome.violation->invariant == invariant;
  });
}

}  // namespace simulator
