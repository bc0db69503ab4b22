#include "days.h"

#include <algorithm>
#include <string_view>

#include "acts.h"
#include "replies.h"

namespace simulator {
namespace {

constexpr uint64_t kSecond = 1000;
constexpr uint64_t kMinute = 60 * kSecond;
constexpr uint64_t kHour = 60 * kMinute;

// What a desktop program asks, and when: from `first` on, every so often, in milliseconds.
struct Habit {
  const char* method;
  uint64_t first;
  uint64_t every;
};
constexpr Habit kBusy[] = {
    {"POST /ui/login", kSecond, 24 * kHour},
    {"Connect", 10 * kSecond, 4 * kHour},
    {"GET /ui/status", 2 * kSecond, 2 * kSecond},
    {"GET /ui/locations", 5 * kSecond, 20 * kMinute},
    {"GET /ui/entitlement", 6 * kSecond, 30 * kMinute},
    {"GET /ui/quota", 7 * kSecond, 30 * kMinute},
    {"GET /ui/logs", kMinute, 10 * kMinute},
    // The change of the server takes the tunnel down.
    {"POST /ui/select-location", 2 * kHour, 4 * kHour},
    {"Connect", 2 * kHour + 2 * kSecond, 4 * kHour},
    {"Disconnect", 3 * kHour + 30 * kMinute, 4 * kHour},
};

uint32_t QuestionNamed(std::string_view method) {
  uint32_t index = 0;
  while (QuestionAt(index).method != method) ++index;
  return index;
}

uint32_t ActNamed(std::string_view name) {
  uint32_t index = 0;
  while (Acts()[index].name != name) ++index;
  return index;
}

// The plan's pauses are the absolute times until the end.
void AddHabit(Plan& plan, const Habit& habit, uint64_t end) {
  const Event asking{.act = ActNamed("ask"), .choice = QuestionNamed(habit.method)};
  for (uint64_t time = habit.first; time < end; time += habit.every) {
    plan.events.push_back(asking);
    plan.events.back().pause = time;
  }
}

}  // namespace

Plan DayPlan(const std::string& name, double hours) {
  const auto end = static_cast<uint64_t>(hours * static_cast<double>(kHour));
  Plan plan;
  if (name != "idle" && name != "busy") return plan;
  if (name == "busy") {
    for (const Habit& habit : kBusy) AddHabit(plan, habit, end);
  }
  plan.events.push_back({.pause = end, .act = ActNamed("wait")});
  std::stable_sort(plan.events.begin(), plan.events.end(),
                   [](const Event& one, const Event& other) { return one.pause < other.pause; });
  uint64_t before = 0;
  for (Event& event : plan.events) {
    const uint64_t time = event.pause;
    event.pause -= before;
    before = time;
  }
  return plan;
}

}  // namespace simulator
