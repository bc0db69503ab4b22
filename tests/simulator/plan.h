// The plan of a run: everything that will happen, drawn up front from a seed, as text and back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace simulator {

struct Event {
  uint64_t pause = 0;  // milliseconds before it
  uint32_t act = 0;    // index in Acts()
  uint32_t choice = 0;
  uint32_t amount = 0;
  bool operator==(const Event&) const = default;
};

// The seed also draws the order in which threads run.
struct Plan {
  uint64_t seed = 1;
  std::vector<Event> events;
  bool operator==(const Plan&) const = default;
};

Plan DrawPlan(uint64_t seed);

std::string EventText(const Event& event);
// "seed N", then one line an event: pause, name, choice, amount.
std::string PlanText(const Plan& plan);
// None: the text is no plan.
std::optional<Plan> ReadPlan(const std::string& text);

}  // namespace simulator
