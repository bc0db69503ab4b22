// What the control plane sees of single clients: the rhythms from which the page on fleets draws its figures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "client.h"
#include "stories.h"
#include "tests/support/sim_failures.h"

namespace {

using fleet::Asking;
using fleet::ClientPlan;
using fleet::SeenRequest;

constexpr uint64_t kMinute = 60'000;

// A program that only polls.
ClientPlan Polling(uint64_t minutes) {
  ClientPlan plan;
  plan.end = minutes * kMinute;
  for (uint64_t time = 20'000; time < plan.end; time += 2000)
    plan.askings.push_back({time, "GET /ui/status"});
  return plan;
}

void Add(ClientPlan& plan, const Asking& asking) {
  const auto later = [&asking](const Asking& other) { return other.time > asking.time; };
  plan.askings.insert(std::find_if(plan.askings.begin(), plan.askings.end(), later), asking);
}

std::vector<std::string> Paths(const std::vector<SeenRequest>& requests) {
  std::vector<std::string> paths;
  for (const SeenRequest& request : requests) paths.push_back(request.verb + ' ' + request.path);
  return paths;
}

std::vector<int64_t> Seconds(const std::vector<SeenRequest>& requests, bool reached) {
  std::vector<int64_t> seconds;
  for (const SeenRequest& request : requests) {
    if ((request.status != 0) == reached) seconds.push_back(request.time / 1000);
  }
  return seconds;
}

// A token of an hour is renewed when five minutes of it are left.
TEST(FleetClient, APollingProgramCostsARenewalEvery55Minutes) {
  const std::vector<SeenRequest> seen = fleet::RunClient(Polling(57));
  EXPECT_THAT(Paths(seen), testing::Each("POST /v1/auth/refresh"));
  EXPECT_THAT(Seconds(seen, true), testing::ElementsAre(20, 20 + 3302));
}

TEST(FleetClient, AConnectIsFiveRequests) {
  ClientPlan plan = Polling(5);
  Add(plan, {60'000, "Connect"});
  EXPECT_THAT(
      Paths(fleet::RunClient(plan)),
      testing::ElementsAre("POST /v1/auth/refresh", "GET /v1/servers/locations", "POST /v1/devices",
                           "PUT /v1/devices/desktop-ab12/wg-key", "PUT /v1/devices/desktop-ab12/wg-server",
                           "GET /v1/devices/desktop-ab12/wg-profile"));
}

// Two requests an attempt, and half a minute between attempts after the first few.
TEST(FleetClient, AConnectInAnOutageIsTriedAgainWithBackOff) {
  ClientPlan plan = Polling(6);
  plan.outageBegins = kMinute;
  plan.outageEnds = 5 * kMinute;
  plan.zero = kMinute;
  Add(plan, {2 * kMinute, "Connect"});
  EXPECT_THAT(Seconds(fleet::RunClient(plan), false),
              testing::ElementsAre(60, 60, 61, 61, 63, 63, 67, 67, 75, 75, 91, 91, 121, 121, 151, 151, 181,
                                   181, 211, 211));
}

// An expired token has no back-off: each poll tries, so that all are back within the period of the polls.
TEST(FleetClient, AnExpiredTokenIsTriedAtEveryPollOfAnOutage) {
  ClientPlan plan = Polling(60);
  plan.outageBegins = 50 * kMinute;
  plan.outageEnds = 59 * kMinute;
  const std::vector<int64_t> failed = Seconds(fleet::RunClient(plan), false);
  ASSERT_GT(failed.size(), 100u);
  EXPECT_EQ(failed[100] - failed[0], 200);
}

// From 40 to 70 minutes lie between two renewals.
TEST(FleetClient, VariedLifetimesVaryTheRenewals) {
  ClientPlan plan = Polling(142);
  plan.lifetimesVary = true;
  const std::vector<int64_t> renewals = Seconds(fleet::RunClient(plan), true);
  ASSERT_GE(renewals.size(), 3u);
  const int64_t first = renewals[1] - renewals[0];
  const int64_t second = renewals[2] - renewals[1];
  EXPECT_NE(first, second);
  EXPECT_THAT((std::vector{first, second}),
              testing::Each(testing::AllOf(testing::Ge(2400), testing::Le(4202))));
}

TEST(FleetStories, AreTheSameEachTimeAndInOrder) {
  for (const fleet::Story& story : fleet::Stories()) {
    const ClientPlan plan = story.plan(3, 20);
    EXPECT_FALSE(plan.askings.empty()) << story.name;
    EXPECT_TRUE(std::is_sorted(plan.askings.begin(), plan.askings.end(),
                               [](const Asking& one, const Asking& other) { return one.time < other.time; }))
        << story.name;
    const ClientPlan again = story.plan(3, 20);
    EXPECT_EQ(plan.askings.size(), again.askings.size()) << story.name;
    EXPECT_EQ(plan.askings.back().time, again.askings.back().time) << story.name;
    EXPECT_NE(story.plan(4, 20).askings.front().time, plan.askings.front().time) << story.name;
  }
}

TEST(FleetStories, AreFoundByName) {
  EXPECT_EQ(fleet::FindStory("office"), &fleet::Stories()[1]);
  EXPECT_EQ(fleet::FindStory("holiday"), nullptr);
}

}  // namespace
