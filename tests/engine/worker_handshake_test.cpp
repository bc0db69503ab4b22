// Handshakes that fail: attempts, the parked ERROR state, and the shared retry delay.
#include "tests/engine/worker_fixture.h"

namespace {

std::string NotSeen(int attempt) {
  return "log WireGuard handshake not seen (attempt " + std::to_string(attempt) + "); will retry.";
}

const char kParked[] = "log Handshake timed out repeatedly; entering ERROR until user action.";

void StartParked(WorkerRun& run) {
  fake::gState.refusing = {"WgHandshakeSeen"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 3; }, 60'000));
  sim::Run(100);
}

TEST(WorkerHandshake, AFailureOpensTheFirewallAndTriesAgain) {
  WorkerRun run;
  fake::gState.refusing = {"WgHandshakeSeen"};
  fake::OnCall("WgHandshakeSeen", 1, [] { gTunnelUp = true; });
  WriteConnectIntent();
  run.Start();
  sim::Run(500);
  EXPECT_EQ(LastOf(fake::Journal(), 3),
            (Journal{"call WgHandshakeSeen telvor", NotSeen(1), "call RollbackToOpen"}));
  EXPECT_EQ(gTunnelStatus, 1);
  EXPECT_FALSE(gTunnelUp);
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
  sim::Run(1000);
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")), std::vector<uint64_t>{1000});
}

// Whatever another thread made of the status meanwhile.
TEST(WorkerHandshake, AFailureShowsConnectingAgain) {
  WorkerRun run;
  fake::gState.refusing = {"WgHandshakeSeen"};
  fake::OnCall("WgHandshakeSeen", 1, [] { gTunnelStatus = 0; });
  WriteConnectIntent();
  run.Start();
  sim::Run(500);
  EXPECT_EQ(gTunnelStatus, 1);
}

TEST(WorkerHandshake, ThreeFailuresParkInError) {
  WorkerRun run;
  StartParked(run);
  EXPECT_EQ(LastOf(fake::Journal(), 4),
            (Journal{"call WgHandshakeSeen telvor", NotSeen(3), "call RollbackToOpen", kParked}));
  EXPECT_EQ(CountLines(NotSeen(1)), 1u);
  EXPECT_EQ(CountLines(NotSeen(2)), 1u);
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
  EXPECT_FALSE(gTunnelUp);
  EXPECT_EQ(gTunnelDesired, 1);
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")), (std::vector<uint64_t>{1000, 2000}));
}

TEST(WorkerHandshake, StaysParkedAndLeavesTheTunnelServiceAlone) {
  WorkerRun run;
  StartParked(run);
  const size_t calls = fake::gState.calls.size();
  sim::Run(3'600'000);
  EXPECT_EQ(fake::gState.calls.size(), calls);
  EXPECT_EQ(gTunnelStatus, 3);
  EXPECT_EQ(fake::Count("StopTunnelService"), 0u);
  EXPECT_EQ(fake::Count("UninstallTunnelService"), 0u);
}

TEST(WorkerHandshake, ANewConnectStartsFromAttemptZero) {
  WorkerRun run;
  StartParked(run);
  WriteConnectIntent();
  const uint64_t asked = sim::Now();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("WgHandshakeSeen") == 4; }, 1000));
  EXPECT_LE(fake::Times("Bootstrap").at(3) - asked, 250u);
  sim::Run(100);
  EXPECT_EQ(CountLines(NotSeen(1)), 2u);
  EXPECT_EQ(gTunnelStatus, 1);
}

// The delay is not reset by the release: two waits were made, the third is 4 seconds long.
TEST(WorkerHandshake, TheDelayGoesOnGrowingAfterTheRelease) {
  WorkerRun run;
  StartParked(run);
  WriteConnectIntent();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 5; }, 60'000));
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")).at(3), 4000u);
}

TEST(WorkerHandshake, ADisconnectReleasesToTheIdleBranch) {
  WorkerRun run;
  StartParked(run);
  gTunnelDesired = 0;
  sim::Run(250);
  EXPECT_EQ(gTunnelStatus, 0);
  EXPECT_GE(fake::Count("UninstallTunnelService"), 1u);
  EXPECT_EQ(fake::Count("Bootstrap"), 3u);
}

TEST(WorkerHandshake, AnyOtherDesiredValueReleasesToo) {
  WorkerRun run;
  StartParked(run);
  gTunnelDesired = 2;
  sim::Run(250);
  EXPECT_EQ(fake::Count("Bootstrap"), 4u);
}

TEST(WorkerHandshake, TheStopEventEndsTheParkedWorker) {
  WorkerRun run;
  StartParked(run);
  const uint64_t asked = sim::Now();
  run.Stop();
  EXPECT_EQ(sim::Now(), asked);
  EXPECT_EQ(gTunnelStatus, 3);
  EXPECT_EQ(fake::Count("Bootstrap"), 3u);
}

TEST(WorkerHandshake, AFailedWaitReleases) {
  WorkerRun run;
  StartParked(run);
  sim::Fail({.operation = "WaitForSingleObject", .code = 6, .argumentsContain = "milliseconds=250"});
  sim::Run(300);
  EXPECT_EQ(fake::Count("Bootstrap"), 4u);
}

// An epoch change from before the parking is not one.
TEST(WorkerHandshake, NotesTheEpochAsItParks) {
  WorkerRun run;
  fake::OnCall("WgHandshakeSeen", 3, [] { gTunnelEpoch++; });
  StartParked(run);
  sim::Run(10'000);
  EXPECT_EQ(fake::Count("Bootstrap"), 3u);
  EXPECT_EQ(gTunnelStatus, 3);
}

TEST(WorkerHandshake, CountsAcrossOtherFailures) {
  WorkerRun run;
  fake::gState.refusing = {"WgHandshakeSeen"};
  fake::gState.answers["Bootstrap"] = {true, false, true, false};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 3; }, 600'000));
  EXPECT_EQ(fake::Count("Bootstrap"), 5u);
  EXPECT_EQ(CountLines(NotSeen(1)), 1u);
  EXPECT_EQ(CountLines(NotSeen(2)), 1u);
  EXPECT_EQ(CountLines(NotSeen(3)), 1u);
}

TEST(WorkerHandshake, AGoodHandshakeStartsTheCountAnew) {
  WorkerRun run;
  fake::gState.answers["WgHandshakeSeen"] = {false, false, true, false};
  fake::gState.answers["EnableFailClosedBaseline"] = {false};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("WgHandshakeSeen") == 5; }, 60'000));
  run.Stop();
  EXPECT_EQ(CountLines(NotSeen(1)), 2u);
  EXPECT_EQ(CountLines(NotSeen(2)), 1u);
  EXPECT_EQ(CountLines(NotSeen(3)), 0u);
}

TEST(WorkerHandshake, AGoodHandshakeStartsTheCountAnewAlsoWithoutRoutes) {
  WorkerRun run;
  fake::gState.answers["WgHandshakeSeen"] = {false, false, true, false};
  fake::gState.refusing = {"ApplyBypassRoutes", "EnableFailClosedBaseline"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("WgHandshakeSeen") == 5; }, 60'000));
  run.Stop();
  EXPECT_EQ(CountLines(NotSeen(1)), 2u);
  EXPECT_EQ(CountLines(NotSeen(3)), 0u);
}

TEST(WorkerHandshake, AGoodHandshakeClearsItsOwnError) {
  WorkerRun run;
  fake::gState.answers["WgHandshakeSeen"] = {false, true};
  std::vector<std::wstring> errors;
  fake::OnCall("WgHandshakeSeen", 2, [&] { errors.push_back(gLastError); });
  fake::OnCall("GetAdapterIfIndexByName", 1, [&] { errors.push_back(gLastError); });
  StartConnected(run);
  EXPECT_EQ(errors, (std::vector<std::wstring>{L"HANDSHAKE_TIMEOUT", L""}));
}

TEST(WorkerHandshake, AGoodHandshakeLeavesOtherErrors) {
  for (const wchar_t* error : {L"AUTH_REQUIRED", L"SESSION_EXPIRED", L"handshake_timeout"}) {
    WorkerRun run;
    gLastError = error;
    StartConnected(run);
    EXPECT_EQ(gLastError, error);
  }
}

TEST(WorkerHandshake, AFailureReplacesAnyError) {
  WorkerRun run;
  gLastError = L"AUTH_REQUIRED";
  fake::gState.refusing = {"WgHandshakeSeen"};
  StopAtCall("WgHandshakeSeen", 1);
  WriteConnectIntent();
  run.Start();
  run.Wait();
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
}

TEST(WorkerBackoff, DoublesFromOneSecondToThirty) {
  WorkerRun run;
  fake::gState.refusing = {"Bootstrap"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 9; }, 600'000));
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")),
            (std::vector<uint64_t>{1000, 2000, 4000, 8000, 16000, 30000, 30000, 30000}));
}

TEST(WorkerBackoff, EveryKindOfFailureSharesTheDelay) {
  WorkerRun run;
  fake::gState.answers["Bootstrap"] = {false, true, true, true, true};
  fake::gState.answers["TunnelServiceExists"] = {false, true, true, true};
  fake::gState.answers["RunProcessCapture"] = {false};
  fake::gState.answers["RestartTunnelService"] = {false, true, true};
  fake::gState.answers["IsTunnelServiceRunning"] = {false, true};
  fake::gState.answers["WgHandshakeSeen"] = {false};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 6; }, 600'000));
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")), (std::vector<uint64_t>{1000, 2000, 4000, 8000, 16000}));
}

TEST(WorkerBackoff, AGoodHandshakeResetsIt) {
  WorkerRun run;
  fake::gState.answers["WgHandshakeSeen"] = {false, true};
  fake::gState.refusing = {"GetAdapterIfIndexByName"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 5; }, 600'000));
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")), (std::vector<uint64_t>{1000, 1000, 1000, 1000}));
}

TEST(WorkerBackoff, ASuccessfulBootstrapDoesNotResetIt) {
  WorkerRun run;
  fake::gState.answers["Bootstrap"] = {false, false};
  fake::gState.refusing = {"RestartTunnelService"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 4; }, 600'000));
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")), (std::vector<uint64_t>{1000, 2000, 4000}));
}

TEST(WorkerBackoff, StartsAnewWithTheThread) {
  WorkerRun run;
  fake::gState.refusing = {"Bootstrap"};
  fake::OnCall("Bootstrap", 3, [] { throw 1; });
  WriteConnectIntent();
  run.Start();
  run.Wait();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 5; }, 600'000));
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")).at(3), 1000u);
}

TEST(WorkerBackoff, DoesNotLookAtTheIntent) {
  WorkerRun run;
  fake::gState.refusing = {"Bootstrap"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 6; }, 600'000));
  WriteDisconnectIntent();
  sim::Run(29'999);
  EXPECT_EQ(fake::Count("UninstallTunnelService"), 0u);
  sim::Run(2);
  EXPECT_EQ(fake::Count("UninstallTunnelService"), 1u);
}

TEST(WorkerBackoff, AConnectDoesNotShortenIt) {
  WorkerRun run;
  fake::gState.refusing = {"Bootstrap"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 6; }, 600'000));
  WriteConnectIntent();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 7; }, 600'000));
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")).back(), 30'000u);
}

TEST(WorkerBackoff, TheStopEventEndsIt) {
  WorkerRun run;
  fake::gState.refusing = {"Bootstrap"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 6; }, 600'000));
  sim::Run(10);
  const uint64_t asked = sim::Now();
  run.Stop();
  EXPECT_EQ(sim::Now(), asked);
  EXPECT_EQ(fake::Count("Bootstrap"), 6u);
}

// Only a signal keeps the delay from growing: a wait that failed counts as one that ran out.
TEST(WorkerBackoff, GrowsAfterAFailedWait) {
  WorkerRun run;
  fake::gState.refusing = {"Bootstrap"};
  sim::Fail({.operation = "WaitForSingleObject", .code = 6, .argumentsContain = "milliseconds=1000"});
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 4; }, 600'000));
  EXPECT_EQ(Gaps(fake::Times("Bootstrap")), (std::vector<uint64_t>{0, 2000, 4000}));
}

}  // namespace
