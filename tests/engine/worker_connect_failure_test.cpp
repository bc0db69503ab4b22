// The failures of a connect pass: their lines, what they undo, the status meanwhile and the time of the next
// try.
#include "tests/engine/worker_fixture.h"

namespace {

struct Rollback {
  std::string operation;
  std::string line;
};

const std::vector<Rollback> kRollbacks = {
    {"RestartTunnelService", "WireGuard tunnel service did not reach RUNNING. Keeping OPEN; retrying."},
    {"IsTunnelServiceRunning", "Tunnel service not running after start; retrying."},
    {"GetAdapterIfIndexByName",
     "WFP: unable to resolve WireGuard adapter ifIndex for tunnelName='telvor'; refusing fail-closed"},
    {"ParseHttpsBaseUrl", "WFP: invalid CP base URL; rolling back to OPEN; retrying."},
    {"ResolveHostIpV4", "WFP: failed to resolve cp.example for baseline; rolling back to OPEN; retrying."},
    {"EnableFailClosedBaseline", "WFP baseline failed to apply; rolling back to OPEN; retrying."},
};

TEST(WorkerConnectFailure, RollsTheFirewallBackAndTriesAgain) {
  for (const Rollback& row : kRollbacks) {
    SCOPED_TRACE(row.operation);
    WorkerRun run;
    fake::gState.refusing = {row.operation};
    fake::OnCall(row.operation, 1, [] { gTunnelUp = true; });
    WriteConnectIntent();
    run.Start();
    ASSERT_TRUE(sim::RunUntil([] { return fake::Count("RollbackToOpen") == 2; }, 10'000));
    sim::Run(500);
    EXPECT_EQ(LastOf(fake::Journal(), 2), (Journal{"log " + row.line, "call RollbackToOpen"}));
    EXPECT_EQ(gTunnelStatus, 1);
    EXPECT_FALSE(gTunnelUp);
    EXPECT_EQ(gTunnelDesired, 1);
    ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 2; }, 10'000));
    EXPECT_EQ(fake::Times("Bootstrap").at(1) - fake::Times("RollbackToOpen").at(1), 1000u);
  }
}

TEST(WorkerConnectFailure, LeavesRoutesAndTunnelServiceAsTheyAre) {
  for (const Rollback& row : kRollbacks) {
    SCOPED_TRACE(row.operation);
    WorkerRun run;
    fake::gState.refusing = {row.operation};
    WriteConnectIntent();
    run.Start();
    ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 2; }, 10'000));
    run.Stop();
    EXPECT_EQ(fake::Count("RemoveBypassRoutes"), 0u);
    EXPECT_EQ(fake::Count("StopTunnelService"), 0u);
    EXPECT_EQ(fake::Count("UninstallTunnelService"), 0u);
    EXPECT_TRUE(gBypassRoutesInstalled);
  }
}

TEST(WorkerConnectFailure, RefusesAnAdapterWithIndexZero) {
  WorkerRun run;
  fake::gState.adapterIndex = 0;
  StopAtCall("GetAdapterIfIndexByName", 1);
  WriteConnectIntent();
  run.Start();
  run.Wait();
  EXPECT_EQ(LastOf(fake::Journal(), 3),
            (Journal{"call GetAdapterIfIndexByName telvor",
                     "log WFP: unable to resolve WireGuard adapter ifIndex for tunnelName='telvor'; refusing "
                     "fail-closed",
                     "call RollbackToOpen"}));
}

TEST(WorkerConnectFailure, RefusesAnEmptyControlPlaneAddress) {
  WorkerRun run;
  fake::gState.controlPlaneAddresses = {L""};
  StopAtCall("ResolveHostIpV4", 1);
  WriteConnectIntent();
  run.Start();
  run.Wait();
  EXPECT_EQ(LastOf(fake::Journal(), 3),
            (Journal{"call ResolveHostIpV4 cp.example",
                     "log WFP: failed to resolve cp.example for baseline; rolling back to OPEN; retrying.",
                     "call RollbackToOpen"}));
}

TEST(WorkerConnectFailure, NamesTheHostWhenOnlyTheSecondParseFails) {
  WorkerRun run;
  fake::gState.answers["ParseHttpsBaseUrl"] = {true, false};
  StopAtCall("ParseHttpsBaseUrl", 2);
  WriteConnectIntent();
  run.Start();
  run.Wait();
  EXPECT_EQ(LastOf(fake::Journal(), 2),
            (Journal{"log WFP: failed to resolve cp.example for baseline; rolling back to OPEN; retrying.",
                     "call RollbackToOpen"}));
}

TEST(WorkerConnectFailure, ABootstrapThatIsNotReadyShowsDisconnected) {
  WorkerRun run;
  fake::gState.refusing = {"Bootstrap"};
  fake::OnCall("Bootstrap", 1, [] { gTunnelUp = true; });
  WriteConnectIntent();
  run.Start();
  sim::Run(500);
  EXPECT_EQ(gTunnelStatus, 0);
  EXPECT_FALSE(gTunnelUp);
  EXPECT_EQ(gTunnelDesired, 1);
  run.Stop();
  EXPECT_EQ(Passes(),
            (Journal{
                "call Bootstrap",
                "log Bootstrap not ready (likely AUTH_REQUIRED); staying DISCONNECTED/CONNECTING and "
                "retrying.",
            }));
}

TEST(WorkerConnectFailure, AlternatesConnectingAndDisconnectedWhileBootstrapFails) {
  WorkerRun run;
  fake::gState.refusing = {"Bootstrap"};
  WriteConnectIntent();
  run.Start();
  std::vector<int32_t> seen;
  const auto changed = [&] { return seen.empty() || gTunnelStatus != seen.back(); };
  while (seen.size() < 8 && sim::RunUntil(changed, 60'000)) seen.push_back(gTunnelStatus);
  EXPECT_EQ(seen, (std::vector<int32_t>{1, 0, 1, 0, 1, 0, 1, 0}));
  EXPECT_EQ(gTunnelDesired, 1);
}

struct InstallFailure {
  bool starts;
  uint32_t exitCode;
  std::wstring output;
  std::wstring errors;
  Journal lines;
};

TEST(WorkerConnectFailure, ShowsAFailedInstall) {
  const std::string line = "log wireguard.exe installtunnelservice failed ec=";
  const std::vector<InstallFailure> cases = {
      {false, 0, L"", L"", {line + "0"}},
      {true, 5, L"", L"", {line + "5"}},
      {true, 4294967295, L"said", L"", {line + "4294967295", "log stdout: said"}},
      {true, 1, L"", L"wrong", {line + "1", "log stderr: wrong"}},
      {true, 2, L"said", L"wrong", {line + "2", "log stdout: said", "log stderr: wrong"}},
  };
  for (const InstallFailure& row : cases) {
    SCOPED_TRACE(row.lines.back());
    WorkerRun run;
    fake::gState.refusing = {"TunnelServiceExists"};
    if (!row.starts) fake::gState.refusing.insert("RunProcessCapture");
    fake::gState.installerExitCode = row.exitCode;
    fake::gState.installerOutput = row.output;
    fake::gState.installerErrors = row.errors;
    fake::OnCall("RunProcessCapture", 1, [] { gTunnelUp = true; });
    WriteConnectIntent();
    run.Start();
    sim::Run(500);
    EXPECT_EQ(LastOf(fake::Journal(), row.lines.size()), row.lines);
    EXPECT_EQ(gTunnelStatus, 3);
    EXPECT_FALSE(gTunnelUp);
    EXPECT_EQ(fake::Count("RollbackToOpen"), 1u);
    EXPECT_EQ(fake::Count("RestartTunnelService"), 0u);
    sim::Run(600);
    EXPECT_EQ(fake::Calls("Bootstrap").at(1).status, 1);
    EXPECT_EQ(Gaps(fake::Times("Bootstrap")), std::vector<uint64_t>{1000});
  }
}

}  // namespace
