// One connect pass, from the bootstrap to CONNECTED, and the ways in which its steps fail.
#include "tests/engine/worker_fixture.h"

namespace {

const char kInstallCall[] =
    "call RunProcessCapture [C:\\Program Files\\WireGuard\\wireguard.exe] "
    "[/installtunnelservice \"C:\\ProgramData\\TELVOR\\wg\\telvor.conf\"]";

Journal UpToHandshake() {
  return {
      "call Bootstrap",
      "log SplitTunnelV1: pre-tunnel route install ENTER count=2",
      "call ApplyBypassRoutes 10.0.0.1 9.0.0.1",
      "log SplitTunnelV1: pre-tunnel route install OK gw=192.168.1.1 ifIndex=7",
      "call EnforceSingleTunnel telvor",
      "call TunnelServiceExists telvor",
      "call RestartTunnelService telvor",
      "call IsTunnelServiceRunning telvor",
      "log WireGuard: waiting for handshake...",
      "call WgHandshakeSeen telvor",
  };
}

Journal FromHandshake() {
  return {
      "log WireGuard handshake OK.",
      "call ApplyBypassRoutes 10.0.0.1 9.0.0.1",
      "call GetAdapterIfIndexByName telvor",
      "log WFP: WireGuard adapter ifIndex=42 (tunnelName='telvor')",
      "call ParseHttpsBaseUrl https://cp.example:8443",
      "call ParseHttpsBaseUrl https://cp.example:8443",
      "call ResolveHostIpV4 cp.example",
      "log WFP: Resolved cp.example to 10.99.0.1",
      "log VPNSERVICE: about to call EnableFailClosedBaseline",
      "call EnableFailClosedBaseline 10.99.0.1 42",
      "log WFP: updating split-bypass allowlist after baseline: count=2",
      "call UpdateSplitTunnelBypassAllowlistV4 10.0.0.1 9.0.0.1",
      "log WFP: split-bypass allowlist update OK",
  };
}

Journal Together(Journal first, const Journal& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST(WorkerConnect, DoesItsStepsInOrder) {
  WorkerRun run;
  StartConnected(run);
  EXPECT_EQ(Passes(), Together(UpToHandshake(), FromHandshake()));
  EXPECT_TRUE(gTunnelUp);
  EXPECT_EQ(gTunnelStatus, 2);
  EXPECT_EQ(gCpIpV4, L"10.99.0.1");
  EXPECT_TRUE(gBypassRoutesInstalled);
  EXPECT_EQ(gBypassIpsApplied, (AddressList{L"10.0.0.1", L"9.0.0.1"}));
}

TEST(WorkerConnect, IsConnectingAndNotUpUntilTheAllowlistStands) {
  WorkerRun run;
  StartConnected(run);
  const auto first = std::find_if(fake::gState.calls.begin(), fake::gState.calls.end(),
                                  [](const fake::Call& call) { return call.operation == "Bootstrap"; });
  ASSERT_NE(first, fake::gState.calls.end());
  for (auto call = first; call != fake::gState.calls.end(); ++call) {
    SCOPED_TRACE(call->operation);
    EXPECT_EQ(call->status, 1);
    EXPECT_FALSE(call->up);
  }
}

TEST(WorkerConnect, SetsConnectingItself) {
  WorkerRun run;
  gTunnelDesired = 1;
  gTunnelStatus = 0;
  StopAtCall("Bootstrap", 1);
  fake::gState.refusing = {"Bootstrap"};
  run.Start();
  run.Wait();
  EXPECT_EQ(fake::Calls("Bootstrap").at(0).status, 1);
}

TEST(WorkerConnect, StampsTheTimeOfTheLastRouteInstall) {
  WorkerRun run;
  fake::OnCall("WgHandshakeSeen", 1, [] {
    gRefreshIteration = 7;
    platform::Sleep(4000);
  });
  uint64_t stampedFirst = 0;
  int32_t countedFirst = -1;
  fake::OnCall("EnforceSingleTunnel", 1, [&] {
    stampedFirst = gLastRefreshTick;
    countedFirst = gRefreshIteration;
  });
  gRefreshIteration = 5;
  StartConnected(run);
  EXPECT_EQ(stampedFirst, fake::Times("ApplyBypassRoutes").at(0));
  EXPECT_EQ(countedFirst, 0);
  EXPECT_EQ(gLastRefreshTick, fake::Times("ApplyBypassRoutes").at(1));
  EXPECT_EQ(gLastRefreshTick, stampedFirst + 4000);
  EXPECT_EQ(gRefreshIteration, 0);
}

TEST(WorkerConnect, GoesOnWithoutTheFirstRoutes) {
  WorkerRun run;
  fake::gState.answers["ApplyBypassRoutes"] = {false};
  std::vector<bool> installed;
  fake::OnCall("EnforceSingleTunnel", 1, [&] { installed = {gBypassRoutesInstalled}; });
  StartConnected(run);
  EXPECT_EQ(installed, std::vector<bool>{false});
  const Journal steps = Passes();
  EXPECT_EQ(steps.at(3), "log SplitTunnelV1: pre-tunnel route install FAILED (continuing)");
  EXPECT_EQ(steps.at(4), "call EnforceSingleTunnel telvor");
  EXPECT_TRUE(gBypassRoutesInstalled);
  EXPECT_EQ(gTunnelStatus, 2);
}

TEST(WorkerConnect, GoesOnWithoutTheSecondRoutes) {
  WorkerRun run;
  fake::gState.answers["ApplyBypassRoutes"] = {true, false};
  StartConnected(run);
  const Journal steps = Passes();
  EXPECT_EQ(steps.at(12), "log SplitTunnelV1: route apply failed (continuing without bypass)");
  EXPECT_EQ(steps.at(13), "call GetAdapterIfIndexByName telvor");
  EXPECT_TRUE(gBypassRoutesInstalled);
  EXPECT_EQ(gTunnelStatus, 2);
}

TEST(WorkerConnect, ReadsTheEffectiveListAnewAfterTheHandshake) {
  WorkerRun run;
  fake::OnCall("WgHandshakeSeen", 1, [] { gBypassIpsEffective = {L"7.7.7.7"}; });
  StartConnected(run);
  EXPECT_EQ(CountLines("call ApplyBypassRoutes 10.0.0.1 9.0.0.1"), 1u);
  EXPECT_EQ(CountLines("call ApplyBypassRoutes 7.7.7.7"), 1u);
  EXPECT_EQ(CountLines("call UpdateSplitTunnelBypassAllowlistV4 7.7.7.7"), 1u);
}

TEST(WorkerConnect, PermitsWhatWasAppliedNotWhatIsWanted) {
  WorkerRun run;
  fake::gState.refusing = {"ApplyBypassRoutes"};
  gBypassIpsApplied = {L"6.6.6.6"};
  StartConnected(run);
  EXPECT_EQ(CountLines("log WFP: updating split-bypass allowlist after baseline: count=1"), 1u);
  EXPECT_EQ(CountLines("call UpdateSplitTunnelBypassAllowlistV4 6.6.6.6"), 1u);
}

TEST(WorkerConnect, RunsItsRouteStepsOnAnEmptyPolicy) {
  WorkerRun run;
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 2; }, 10'000));
  EXPECT_EQ(CountLines("log SplitTunnelV1: pre-tunnel route install ENTER count=0"), 1u);
  EXPECT_EQ(CountLines("call ApplyBypassRoutes"), 2u);
  EXPECT_EQ(CountLines("log WFP: updating split-bypass allowlist after baseline: count=0"), 1u);
  EXPECT_EQ(CountLines("call UpdateSplitTunnelBypassAllowlistV4"), 1u);
}

TEST(WorkerConnect, StaysConnectedWithoutTheAllowlist) {
  WorkerRun run;
  fake::gState.refusing = {"UpdateSplitTunnelBypassAllowlistV4"};
  StartConnected(run);
  EXPECT_EQ(Passes().back(),
            "log WFP: split-bypass allowlist update FAILED (continuing fail-closed with CP/WG/DNS only)");
  EXPECT_TRUE(gTunnelUp);
  sim::Run(5000);
  EXPECT_EQ(gTunnelStatus, 2);
  EXPECT_EQ(fake::Count("RollbackToOpen"), 1u);
}

TEST(WorkerConnect, InstallsAMissingTunnelService) {
  WorkerRun run;
  fake::gState.answers["TunnelServiceExists"] = {false};
  StartConnected(run);
  const Journal steps = Passes();
  const Journal around(steps.begin() + 5, steps.begin() + 9);
  EXPECT_EQ(around, (Journal{
                        "call TunnelServiceExists telvor",
                        "log WireGuard tunnel service not installed; installing from conf.",
                        kInstallCall,
                        "call RestartTunnelService telvor",
                    }));
}

TEST(WorkerConnect, InstallsNothingOverAnInstalledService) {
  WorkerRun run;
  StartConnected(run);
  EXPECT_EQ(fake::Count("RunProcessCapture"), 0u);
}

// The step's file is a literal and relative path, with three dots as its folder: it normally fails, and
// nobody minds.
TEST(WorkerConnect, TriesItsRelativeDropFileAfterTheHandshake) {
  WorkerRun run;
  size_t triesBeforeRoutes = 0;
  fake::OnCall("ApplyBypassRoutes", 2,
               [&] { triesBeforeRoutes = sim::CountCalls("CreateFileW", "\"...\\step4.txt\""); });
  StartConnected(run);
  EXPECT_EQ(triesBeforeRoutes, 1u);
  EXPECT_EQ(sim::CountCalls("CreateFileW", "\"...\\step4.txt\""), 1u);
}

TEST(WorkerConnect, WritesItsRelativeDropFileWhereTheFolderExists) {
  WorkerRun run;
  sim::MakeFolder(L"C:\\windows\\...");
  StartConnected(run);
  EXPECT_EQ(sim::FileBytes(L"C:\\windows\\...\\step4.txt"), Utf16Bytes(L"before wg write\n"));
}

// Only 0 counts as disconnected at the top of a pass, and only 1 as connected inside the waits.
TEST(WorkerConnect, AnotherDesiredValueConnectsAndLeavesAtTheFirstTick) {
  WorkerRun run;
  gTunnelDesired = 2;
  StopAtCall("StopTunnelService", 1);
  run.Start();
  run.Wait();
  EXPECT_EQ(fake::Count("EnableFailClosedBaseline"), 1u);
  EXPECT_EQ(CountLines("log WorkerLoop EXIT: gTunnelDesired != Connected"), 1u);
}

TEST(WorkerConnect, APassUnderWayRunsOnAfterADisconnect) {
  WorkerRun run;
  fake::OnCall("Bootstrap", 1, WriteDisconnectIntent);
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 2; }, 10'000));
  const uint64_t connected = sim::Now();
  StopAtCall("UninstallTunnelService", 1);
  run.Wait();
  EXPECT_EQ(fake::Times("StopTunnelService").at(0) - connected, 250u);
  EXPECT_EQ(LastOf(fake::Journal(), 6), (Journal{
                                            "log WorkerLoop EXIT: gTunnelDesired != Connected",
                                            "call RemoveBypassRoutes",
                                            "call StopTunnelService telvor 8000",
                                            "call RollbackToOpen",
                                            "call UninstallTunnelService telvor",
                                            "call RollbackToOpen",
                                        }));
}

TEST(WorkerConnect, HoldsNoLockAcrossAnOperation) {
  WorkerRun run;
  fake::gState.onEveryCall = [] {
    for (platform::Mutex* mutex : {&gLastErrorMutex, &gBypassMutex, &gUiLock, &gSessionMutex}) {
      mutex->lock();
      mutex->unlock();
    }
  };
  StartConnected(run);
  sim::Run(31'000);
  WriteDisconnectIntent();
  sim::Run(1000);
  EXPECT_GT(fake::Count("RefreshSplitTunnelRoutes"), 0u);
  EXPECT_GT(fake::Count("UninstallTunnelService"), 0u);
}

}  // namespace
