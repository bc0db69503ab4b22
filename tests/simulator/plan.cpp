#include "plan.h"

#include <sstream>

#include "acts.h"
#include "random.h"

namespace simulator {
namespace {

// A run uses some of the acts only, and some of these more than others: what never meets in a mixture of all
// meets in one of few.
std::vector<uint64_t> DrawWeights(Random& random) {
  std::vector<uint64_t> weights;
  for (const Act& act : Acts()) {
    const bool taken = act.weight >= 8 || DrawBelow(random, 3) != 0;
    weights.push_back(taken ? act.weight * (1 + DrawBelow(random, 3)) : 0);
  }
  return weights;
}

uint32_t DrawAct(Random& random, const std::vector<uint64_t>& weights) {
  uint64_t total = 0;
  for (const uint64_t weight : weights) total += weight;
  uint64_t at = DrawBelow(random, total);
  uint32_t act = 0;
  while (at >= weights[act]) at -= weights[act++];
  return act;
}

// From no time at all to minutes, the short ones more often.
uint64_t DrawPause(Random& random) {
  const uint64_t magnitude = DrawBelow(random, 18);
  return DrawBelow(random, uint64_t{1} << magnitude);
}

std::optional<uint32_t> ActNamed(const std::string& name) {
  for (uint32_t index = 0; index < Acts().size(); ++index) {
    if (Acts()[index].name == name) return index;
  }
  return std::nullopt;
}

}  // namespace

Plan DrawPlan(uint64_t seed) {
  Plan plan;
  plan.seed = seed;
  Random random{seed};
  const std::vector<uint64_t> weights = DrawWeights(random);
  const uint64_t count = 15 + DrawBelow(random, 60);
  while (plan.events.size() < count) {
    Event event;
    event.pause = DrawPause(random);
    event.act = DrawAct(random, weights);
    event.choice = static_cast<uint32_t>(DrawBelow(random, 10'000));
    event.amount = static_cast<uint32_t>(DrawBelow(random, 1'000'000));
    plan.events.push_back(event);
  }
  return plan;
}

std::string EventText(const Event& event) {
  return std::to_string(event.pause) + ' ' + Acts()[event.act].name + ' ' + std::to_string(event.choice) +
         ' ' + std::to_string(event.amount);
}

std::string PlanText(const Plan& plan) {
  std::string text = "seed " + std::to_string(plan.seed) + '\n';
  for (const Event& event : plan.events) text += EventText(event) + '\n';
  return text;
}

std::optional<Plan> ReadPlan(const std::string& text) {
  std::istringstream stream(text);
  Plan plan;
  std::string word;
  if (!(stream >> word >> plan.seed) || word != "seed") return std::nullopt;
  Event event;
  while (stream >> event.pause) {
    if (!(stream >> word >> event.choice >> event.amount)) return std::nullopt;
    const std::optional<uint32_t> act = ActNamed(word);
    if (!act) return std::nullopt;
    event.act = *act;
    plan.events.push_back(event);
  }
  return stream.eof() ? std::optional(plan) : std::nullopt;
}

}  // namespace simulator
