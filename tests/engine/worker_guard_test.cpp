// Exceptions inside the worker's guarded region, its restart, and the locks whose failure raises one.
#include "tests/engine/worker_fixture.h"

#include <stdexcept>

namespace {

const std::wstring kException = L"C:\\ProgramData\\TELVOR\\cpp_exception.txt";
const std::wstring kUnknown = L"C:\\ProgramData\\TELVOR\\cpp_exception_unknown.txt";

const char* const kOperations[] = {
    "RollbackToOpen",           "Bootstrap",
    "ApplyBypassRoutes",        "EnforceSingleTunnel",
    "TunnelServiceExists",      "RunProcessCapture",
    "RestartTunnelService",     "IsTunnelServiceRunning",
    "WgHandshakeSeen",          "GetAdapterIfIndexByName",
    "ParseHttpsBaseUrl",        "ResolveHostIpV4",
    "EnableFailClosedBaseline", "UpdateSplitTunnelBypassAllowlistV4",
};

TEST(WorkerGuard, AStandardExceptionOfAnyStepLeavesItsMessage) {
  for (const char* operation : kOperations) {
    SCOPED_TRACE(operation);
    WorkerRun run;
    fake::gState.answers["TunnelServiceExists"] = {false};
    fake::OnCall(operation, 1, [] { throw std::runtime_error("broken \xC3\xA9 \xE4\xB8\xAD"); });
    gTunnelUp = true;
    WriteConnectIntent();
    run.Start();
    run.Wait();
    EXPECT_EQ(sim::FileBytes(kException), Utf16Bytes(L"broken \u00E9 \u4E2D"));
    EXPECT_FALSE(sim::FileExists(kUnknown));
    EXPECT_EQ(fake::Journal().back().substr(0, 5 + std::string(operation).size()),
              "call " + std::string(operation));
    EXPECT_EQ(gTunnelStatus, 1);
    EXPECT_TRUE(gTunnelUp);
  }
}

TEST(WorkerGuard, AnythingElseThrownLeavesAFixedText) {
  WorkerRun run;
  fake::OnCall("Bootstrap", 1, [] { throw 42; });
  WriteConnectIntent();
  run.Start();
  run.Wait();
  EXPECT_EQ(sim::FileBytes(kUnknown), Utf16Bytes(L"unknown exception caught\n"));
  EXPECT_FALSE(sim::FileExists(kException));
}

TEST(WorkerGuard, CoversTheIdleBranchAndTheTeardown) {
  for (const char* operation :
       {"UninstallTunnelService", "StopTunnelService", "RemoveBypassRoutes", "RefreshSplitTunnelRoutes"}) {
    SCOPED_TRACE(operation);
    WorkerRun run;
    fake::OnCall(operation, 1, [] { throw std::runtime_error("late"); });
    StartConnected(run);
    sim::Run(31'000);
    WriteDisconnectIntent();
    run.Wait();
    EXPECT_EQ(sim::FileBytes(kException), Utf16Bytes(L"late"));
  }
}

TEST(WorkerGuard, LeavesStatusAndFirewallAsTheyAre) {
  WorkerRun run;
  fake::OnCall("RefreshSplitTunnelRoutes", 1, [] { throw std::runtime_error("refresh"); });
  StartConnected(run);
  run.Wait();
  EXPECT_EQ(gTunnelStatus, 2);
  EXPECT_TRUE(gTunnelUp);
  EXPECT_EQ(fake::Count("RollbackToOpen"), 1u);
  EXPECT_EQ(fake::Count("StopTunnelService"), 0u);
}

TEST(WorkerGuard, ARestartedThreadOpensTheFirewallAndConnectsAgain) {
  WorkerRun run;
  fake::OnCall("RefreshSplitTunnelRoutes", 1, [] { throw std::runtime_error("refresh"); });
  StartConnected(run);
  run.Wait();
  fake::gState.policy.ips = {L"1.1.1.1"};
  const size_t before = fake::gState.calls.size();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("UpdateSplitTunnelBypassAllowlistV4") == 2; }, 1000));
  EXPECT_EQ(fake::gState.calls.at(before).operation, "LoadRuntimePolicy");
  EXPECT_EQ(fake::gState.calls.at(before + 1).operation, "RollbackToOpen");
  EXPECT_EQ(fake::gState.calls.at(before + 2).operation, "Bootstrap");
  EXPECT_EQ(gBypassIpsEffective, AddressList{L"1.1.1.1"});
}

TEST(WorkerGuard, ARestartKeepsTheSharedState) {
  WorkerRun run;
  gBypassRoutesInstalled = true;
  gBypassIpsApplied = {L"9.0.0.1"};
  gLastRefreshTick = 77;
  gRefreshIteration = 5;
  gTunnelEpoch = 12;
  gTunnelDesired = 1;
  gLastError = L"AUTH_REQUIRED";
  fake::OnCall("Bootstrap", 1, [] { throw 1; });
  fake::OnCall("Bootstrap", 2, [] { throw 2; });
  for (int start = 0; start < 2; ++start) {
    run.Start();
    run.Wait();
  }
  EXPECT_TRUE(gBypassRoutesInstalled);
  EXPECT_EQ(gBypassIpsApplied, AddressList{L"9.0.0.1"});
  EXPECT_EQ(gLastRefreshTick, 77u);
  EXPECT_EQ(gRefreshIteration, 5);
  EXPECT_EQ(gTunnelEpoch, 12u);
  EXPECT_EQ(gTunnelDesired, 1);
  EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
  EXPECT_EQ(fake::Count("Bootstrap"), 2u);
}

TEST(WorkerGuard, ARestartForgetsTheFailedHandshakes) {
  WorkerRun run;
  fake::gState.refusing = {"WgHandshakeSeen"};
  fake::OnCall("Bootstrap", 3, [] { throw 1; });
  WriteConnectIntent();
  run.Start();
  run.Wait();
  fake::OnCall("Bootstrap", 4, SignalStop);
  run.Start();
  run.Wait();
  EXPECT_EQ(CountLines("log WireGuard handshake not seen (attempt 1); will retry."), 2u);
  EXPECT_EQ(CountLines("log WireGuard handshake not seen (attempt 3); will retry."), 0u);
}

// A worker that was stopped does not undo anything on its way out; the teardown before it did.
TEST(WorkerGuard, LeavesTheFirewallAloneOnItsWayOut) {
  WorkerRun run;
  StopAtCall("UninstallTunnelService", 1);
  run.Start();
  run.Wait();
  EXPECT_EQ(LastOf(fake::Journal(), 3), (Journal{
                                            "call RollbackToOpen",
                                            "call UninstallTunnelService telvor",
                                            "call RollbackToOpen",
                                        }));
}

struct LockCase {
  std::string armedAt;  // the lock fails when it is next taken after this call began
  size_t call;
  platform::Mutex* mutex;
  std::string lastCall;  // the last operation that still ran
};

TEST(WorkerLocks, AFailedLockReachesTheGuard) {
  const std::vector<LockCase> cases = {
      {"Bootstrap", 1, &gBypassMutex, "Bootstrap"},
      {"WgHandshakeSeen", 1, &gBypassMutex, "WgHandshakeSeen"},
      {"WgHandshakeSeen", 1, &gLastErrorMutex, "WgHandshakeSeen"},
      {"EnableFailClosedBaseline", 1, &gBypassMutex, "EnableFailClosedBaseline"},
      {"UpdateSplitTunnelBypassAllowlistV4", 1, &gBypassMutex, "UpdateSplitTunnelBypassAllowlistV4"},
      {"RemoveBypassRoutes", 1, &gBypassMutex, "RemoveBypassRoutes"},
  };
  for (const LockCase& row : cases) {
    SCOPED_TRACE(row.armedAt);
    WorkerRun run;
    fake::OnCall(row.armedAt, row.call, [&row] { sim::FailLock(*row.mutex); });
    WriteConnectIntent();
    run.Start();
    sim::Run(1000);
    WriteDisconnectIntent();
    run.Wait();
    EXPECT_EQ(fake::gState.calls.back().operation, row.lastCall);
    EXPECT_TRUE(sim::FileExists(kException));
  }
}

TEST(WorkerLocks, AHandshakeFailureTakesTheErrorsLockAfterTheRollback) {
  WorkerRun run;
  fake::gState.refusing = {"WgHandshakeSeen"};
  fake::OnCall("RollbackToOpen", 2, [] { sim::FailLock(gLastErrorMutex); });
  WriteConnectIntent();
  run.Start();
  run.Wait();
  EXPECT_TRUE(sim::FileExists(kException));
  EXPECT_EQ(gLastError, L"");
}

// The worker alone writes the applied list as it connects, without the lock.
TEST(WorkerLocks, TheAppliedListIsWrittenWithoutTheLock) {
  WorkerRun run;
  fake::gState.policy.ips = {L"9.0.0.1"};
  fake::OnCall("ApplyBypassRoutes", 1, [] { sim::FailLock(gBypassMutex); });
  WriteConnectIntent();
  run.Start();
  run.Wait();
  EXPECT_EQ(fake::gState.calls.back().operation, "WgHandshakeSeen");
  EXPECT_EQ(gBypassIpsApplied, AddressList{L"9.0.0.1"});
}

}  // namespace
