// The connected loop: its three exits, the refreshes, and the teardown.
#include "tests/engine/worker_fixture.h"

namespace {

std::vector<uint64_t> RefreshTimesSince(uint64_t start) {
  std::vector<uint64_t> times;
  for (const uint64_t time : fake::Times("RefreshSplitTunnelRoutes")) times.push_back(time - start);
  return times;
}

const Journal kTeardown = {
    "call RemoveBypassRoutes 10.0.0.1 9.0.0.1",
    "call StopTunnelService telvor 8000",
    "call RollbackToOpen",
};

Journal Behind(const std::string& line, Journal rest) {
  rest.insert(rest.begin(), line);
  return rest;
}

TEST(WorkerConnected, LeavesOnADisconnectAtTheNextTick) {
  WorkerRun run;
  StartConnected(run);
  sim::Run(100);
  WriteDisconnectIntent();
  StopAtCall("StopTunnelService", 1);
  run.Wait();
  EXPECT_EQ(LastOf(fake::Journal(), 4),
            Behind("log WorkerLoop EXIT: gTunnelDesired != Connected", kTeardown));
  EXPECT_EQ(gTunnelStatus, 0);
}

TEST(WorkerConnected, LeavesOnAnEpochChangeAndConnectsAnew) {
  WorkerRun run;
  StartConnected(run);
  sim::Run(100);
  WriteDisconnectIntent();
  WriteConnectIntent();
  fake::gState.answers["Bootstrap"] = {false};
  StopAtCall("Bootstrap", 2);
  run.Wait();
  Journal expected = Behind("log WorkerLoop EXIT: epoch changed: start=1 cur=3", kTeardown);
  expected.push_back("call Bootstrap");
  expected.push_back(
      "log Bootstrap not ready (likely AUTH_REQUIRED); staying DISCONNECTED/CONNECTING and retrying.");
  EXPECT_EQ(LastOf(fake::Journal(), 6), expected);
  EXPECT_EQ(fake::Count("UninstallTunnelService"), 0u);
  EXPECT_EQ(fake::Times("Bootstrap").at(1), fake::Times("StopTunnelService").at(0));
}

TEST(WorkerConnected, ReadsTheEpochAtTheTopOfThePass) {
  WorkerRun run;
  gTunnelEpoch = 41;
  fake::OnCall("Bootstrap", 1, [] { gTunnelEpoch++; });
  StopAtCall("StopTunnelService", 1);
  WriteConnectIntent();
  run.Start();
  run.Wait();
  EXPECT_EQ(CountLines("log WorkerLoop EXIT: epoch changed: start=42 cur=43"), 1u);
}

TEST(WorkerConnected, LeavesOnTheStopEventWithoutALine) {
  WorkerRun run;
  StartConnected(run);
  sim::Run(100);
  const auto before = static_cast<std::ptrdiff_t>(fake::Journal().size());
  const uint64_t asked = sim::Now();
  run.Stop();
  EXPECT_EQ(sim::Now(), asked);
  const Journal& all = fake::Journal();
  EXPECT_EQ(Journal(all.begin() + before, all.end()), kTeardown);
}

TEST(WorkerConnected, LeavesOnAFailedWaitWithoutALineAndConnectsAnew) {
  WorkerRun run;
  StartConnected(run);
  sim::Fail({.operation = "WaitForSingleObject", .code = 6, .argumentsContain = "milliseconds=250"});
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("UpdateSplitTunnelBypassAllowlistV4") == 2; }, 1000));
  EXPECT_EQ(fake::Count("StopTunnelService"), 1u);
  EXPECT_EQ(sim::LogCount("WorkerLoop EXIT"), 0u);
}

TEST(WorkerConnected, TearsDownRoutesThenTunnelThenFirewall) {
  WorkerRun run;
  StartConnected(run);
  run.Stop();
  const fake::Call routes = fake::Calls("RemoveBypassRoutes").at(0);
  const fake::Call tunnel = fake::Calls("StopTunnelService").at(0);
  const fake::Call firewall = fake::Calls("RollbackToOpen").at(1);
  EXPECT_EQ(routes.status, 2);
  EXPECT_TRUE(routes.up);
  EXPECT_EQ(tunnel.status, 2);
  EXPECT_FALSE(tunnel.up);
  EXPECT_EQ(firewall.status, 2);
  EXPECT_FALSE(firewall.up);
  EXPECT_EQ(gTunnelStatus, 0);
}

TEST(WorkerConnected, ShowsWhatTheNewIntentWroteUntilTheTeardownIsThrough) {
  for (const bool connectsAgain : {false, true}) {
    SCOPED_TRACE(connectsAgain);
    WorkerRun run;
    StartConnected(run);
    WriteDisconnectIntent();
    if (connectsAgain) WriteConnectIntent();
    const int32_t written = gTunnelStatus;
    ASSERT_TRUE(sim::RunUntil([] { return fake::Count("RollbackToOpen") == 2; }, 1000));
    EXPECT_EQ(fake::Calls("RemoveBypassRoutes").at(0).status, written);
    EXPECT_EQ(fake::Calls("StopTunnelService").at(0).status, written);
    EXPECT_EQ(fake::Calls("RollbackToOpen").at(1).status, written);
  }
}

TEST(WorkerConnected, ForgetsTheAppliedRoutesBeforeTheTunnelStops) {
  WorkerRun run;
  bool installed = true;
  AddressList applied = {L"?"};
  fake::OnCall("StopTunnelService", 1, [&] {
    installed = gBypassRoutesInstalled;
    applied = gBypassIpsApplied;
  });
  StartConnected(run);
  run.Stop();
  EXPECT_FALSE(installed);
  EXPECT_TRUE(applied.empty());
}

TEST(WorkerConnected, RemovesWhatIsAppliedByThen) {
  WorkerRun run;
  StartConnected(run);
  gBypassIpsApplied = {L"5.5.5.5"};
  run.Stop();
  EXPECT_EQ(CountLines("call RemoveBypassRoutes 5.5.5.5"), 1u);
}

TEST(WorkerConnected, RemovesNoRoutesThatWereNotInstalled) {
  WorkerRun run;
  fake::gState.refusing = {"ApplyBypassRoutes"};
  StartConnected(run);
  gBypassIpsApplied = {L"5.5.5.5"};
  run.Stop();
  EXPECT_EQ(fake::Count("RemoveBypassRoutes"), 0u);
  EXPECT_EQ(gBypassIpsApplied, AddressList{L"5.5.5.5"});
}

TEST(WorkerConnected, FinishesItsTeardownWhateverItsStepsAnswer) {
  WorkerRun run;
  StartConnected(run);
  fake::gState.refusing = {"RemoveBypassRoutes", "StopTunnelService", "RollbackToOpen"};
  run.Stop();
  EXPECT_EQ(LastOf(fake::Journal(), 3), kTeardown);
  EXPECT_FALSE(gBypassRoutesInstalled);
  EXPECT_EQ(gTunnelStatus, 0);
}

TEST(WorkerConnected, UninstallsInTheIdleBranchWithoutAWaitBetween) {
  WorkerRun run;
  StartConnected(run);
  WriteDisconnectIntent();
  StopAtCall("UninstallTunnelService", 1);
  run.Wait();
  EXPECT_EQ(fake::Times("UninstallTunnelService").at(0), fake::Times("StopTunnelService").at(0));
}

// A dead tunnel stays CONNECTED, with the rule set in force, until someone acts.
TEST(WorkerConnected, ChecksNeitherTunnelServiceNorHandshake) {
  WorkerRun run;
  StartConnected(run);
  fake::gState.refusing = {"IsTunnelServiceRunning", "WgHandshakeSeen", "TunnelServiceExists"};
  const size_t calls = fake::gState.calls.size();
  sim::Run(30'000);
  EXPECT_EQ(fake::gState.calls.size(), calls);
  EXPECT_EQ(gTunnelStatus, 2);
}

TEST(WorkerConnected, RefreshesThreeTimesAfterThirtySecondsThenEveryFiveMinutes) {
  WorkerRun run;
  StartConnected(run);
  const uint64_t installed = gLastRefreshTick;
  sim::Run(1'000'000);
  EXPECT_EQ(RefreshTimesSince(installed),
            (std::vector<uint64_t>{30'250, 60'500, 90'750, 391'000, 691'250, 991'500}));
  EXPECT_EQ(gRefreshIteration, 6);
}

// The first line has no blank before its number; readers of the log know it so.
TEST(WorkerConnected, LogsEachRefreshTwice) {
  WorkerRun run;
  StartConnected(run);
  const size_t before = fake::Journal().size();
  int32_t during = -1;
  uint64_t stamped = 0;
  fake::OnCall("RefreshSplitTunnelRoutes", 2, [&] {
    during = gRefreshIteration;
    stamped = gLastRefreshTick;
  });
  sim::Run(61'000);
  const Journal& all = fake::Journal();
  EXPECT_EQ(Journal(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()),
            (Journal{
                "log WorkerLoop : Started refresh0",
                "log SplitTunnelV1: refresh iteration=0",
                "call RefreshSplitTunnelRoutes",
                "log WorkerLoop : Started refresh1",
                "log SplitTunnelV1: refresh iteration=1",
                "call RefreshSplitTunnelRoutes",
            }));
  EXPECT_EQ(during, 1);
  EXPECT_EQ(stamped, fake::Times("RefreshSplitTunnelRoutes").at(1));
  EXPECT_EQ(gRefreshIteration, 2);
}

TEST(WorkerConnected, RefreshesAtTheFirstTickWhenNoRoutesWereInstalled) {
  WorkerRun run;
  fake::gState.refusing = {"ApplyBypassRoutes"};
  StartConnected(run);
  const uint64_t connected = sim::Now();
  EXPECT_EQ(gLastRefreshTick, 0u);
  sim::Run(392'000);
  EXPECT_EQ(RefreshTimesSince(connected), (std::vector<uint64_t>{250, 30'500, 60'750, 361'000}));
}

TEST(WorkerConnected, TheIntervalCountsFromTheStartOfALongRefresh) {
  WorkerRun run;
  fake::OnCall("RefreshSplitTunnelRoutes", 1, [] { platform::Sleep(29'000); });
  StartConnected(run);
  sim::Run(91'000);
  EXPECT_EQ(Gaps(fake::Times("RefreshSplitTunnelRoutes")), (std::vector<uint64_t>{30'250, 30'250}));
}

TEST(WorkerConnected, ALongRefreshDelaysTheDisconnect) {
  WorkerRun run;
  fake::OnCall("RefreshSplitTunnelRoutes", 1, [] {
    WriteDisconnectIntent();
    platform::Sleep(20'000);
  });
  StartConnected(run);
  StopAtCall("StopTunnelService", 1);
  run.Wait();
  EXPECT_EQ(fake::Times("StopTunnelService").at(0) - fake::Times("RefreshSplitTunnelRoutes").at(0), 20'250u);
}

TEST(WorkerConnected, AnotherConnectionStartsTheRefreshesAnew) {
  WorkerRun run;
  StartConnected(run);
  sim::Run(100'000);
  EXPECT_EQ(gRefreshIteration, 3);
  WriteDisconnectIntent();
  WriteConnectIntent();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("UpdateSplitTunnelBypassAllowlistV4") == 2; }, 1000));
  const uint64_t installed = gLastRefreshTick;
  EXPECT_EQ(gRefreshIteration, 0);
  sim::Run(30'500);
  EXPECT_EQ(RefreshTimesSince(installed).back(), 30'250u);
}

// What the variables of the refresh hold survives where routes could not be installed.
TEST(WorkerConnected, KeepsTheRefreshCountWhenRoutesFail) {
  WorkerRun run;
  gRefreshIteration = 3;
  fake::gState.refusing = {"ApplyBypassRoutes"};
  gLastRefreshTick = sim::Now();
  StartConnected(run);
  sim::Run(299'000);
  EXPECT_EQ(fake::Count("RefreshSplitTunnelRoutes"), 0u);
  sim::Run(2000);
  EXPECT_EQ(fake::Count("RefreshSplitTunnelRoutes"), 1u);
}

}  // namespace
