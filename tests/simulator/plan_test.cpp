// The plans of the simulator: drawn from a seed, written and read, and shortened.
#include "plan.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "acts.h"
#include "fault_operations.h"
#include "shrink.h"

namespace {

using simulator::DrawPlan;
using simulator::Event;
using simulator::Plan;

TEST(Plan, IsTheSameForTheSameSeed) {
  EXPECT_EQ(DrawPlan(5), DrawPlan(5));
  EXPECT_FALSE(DrawPlan(5).events == DrawPlan(6).events);
}

TEST(Plan, UsesEveryActAndEveryFaultInTime) {
  std::vector<size_t> acts(simulator::Acts().size());
  std::vector<size_t> faults(simulator::FaultOperationCount());
  for (uint64_t seed = 1; seed <= 300; ++seed) {
    for (const Event& event : DrawPlan(seed).events) {
      ++acts[event.act];
      if (simulator::Acts()[event.act].name == std::string("fault")) ++faults[event.choice % faults.size()];
    }
  }
  EXPECT_EQ(std::count(acts.begin(), acts.end(), 0u), 0);
  EXPECT_EQ(std::count(faults.begin(), faults.end(), 0u), 0);
}

TEST(Plan, IsReadAsItWasWritten) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    EXPECT_EQ(simulator::ReadPlan(simulator::PlanText(DrawPlan(seed))), DrawPlan(seed));
  }
}

TEST(Plan, IsNotReadFromRubbish) {
  for (const char* text : {"", "rubbish", "seed", "seed x", "seed 1\n5", "seed 1\n5 ask 1",
                           "seed 1\n5 no-such-act 1 1", "seed 1\n5 ask 1 1\nrubbish"}) {
    EXPECT_EQ(simulator::ReadPlan(text), std::nullopt) << text;
  }
}

// Fails as long as the events of these two choices are there.
bool HasBoth(const Plan& plan) {
  const auto has = [&plan](uint32_t choice) {
    return std::any_of(plan.events.begin(), plan.events.end(),
                       [choice](const Event& event) { return event.choice == choice; });
  };
  return has(3) && has(17);
}

Plan Numbered(uint32_t count) {
  Plan plan;
  for (uint32_t index = 0; index < count; ++index) plan.events.push_back({10, 0, index, 0});
  return plan;
}

TEST(Shrink, LeavesOnlyTheEventsThatItTakes) {
  const Plan smallest = simulator::Shrink(Numbered(40), &HasBoth);
  ASSERT_EQ(smallest.events.size(), 2u);
  EXPECT_EQ(smallest.events[0].choice, 3u);
  EXPECT_EQ(smallest.events[1].choice, 17u);
}

TEST(Shrink, KeepsTheTimesOfTheEventsThatStay) {
  const Plan smallest = simulator::Shrink(Numbered(40), &HasBoth);
  ASSERT_EQ(smallest.events.size(), 2u);
  EXPECT_EQ(smallest.events[0].pause, 40u);
  EXPECT_EQ(smallest.events[1].pause, 140u);
}

TEST(Shrink, LeavesNothingWhereNothingIsNeeded) {
  EXPECT_TRUE(simulator::Shrink(Numbered(9), [](const Plan&) { return true; }).events.empty());
}

}  // namespace
