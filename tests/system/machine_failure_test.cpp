// Failures of the machine on the way to a connection: WireGuard's programs, the tunnel service, the adapter,
// the resolver, the filtering engine, the routes. Each opens the firewall and is tried again.
#include "tests/support/system_run.h"

namespace {

constexpr wchar_t kInstaller[] = L"C:\\Program Files\\WireGuard\\wireguard.exe";

TEST(Installer, ThatFailsShowsErrorDuringTheWait) {
  SystemRun run;
  run.StartAndLogIn();
  sim::SetProcessHandler([](const std::wstring& commandLine) {
    sim::ProcessResult result = sim::WireGuardProgram(commandLine);
    if (commandLine.find(L"/installtunnelservice") == std::wstring::npos) return result;
    result = {};
    result.exitCode = 5;
    result.standardOutput = "out";
    result.standardError = "err";
    return result;
  });
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForStatus(kStatusError));
  EXPECT_TRUE(InOrder(sim::LogLines(),
                      {"wireguard.exe installtunnelservice failed ec=5", "stdout: out", "stderr: err"}));
  ASSERT_TRUE(WaitForStatus(kStatusConnecting));
  sim::SetProcessHandler(nullptr);
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

TEST(Installer, ThatIsMissingCannotBeStarted) {
  SystemRun run;
  run.StartAndLogIn();
  sim::RemoveFile(kInstaller);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForLine("wireguard.exe installtunnelservice failed ec=0"));
  ASSERT_TRUE(WaitForStatus(kStatusError));
  sim::PutFile(kInstaller, "MZ");
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

TEST(TunnelService, ThatDoesNotStartKeepsTheFirewallOpen) {
  SystemRun run;
  run.StartAndLogIn();
  sim::Fail({.operation = "StartServiceW", .code = 1053});
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForLine("WireGuard tunnel service did not reach RUNNING. Keeping OPEN; retrying."));
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

TEST(TunnelService, OfAnotherTunnelIsStoppedAndKept) {
  SystemRun run;
  sim::Service other;
  other.name = L"WireGuardTunnel$office";
  other.state = platform::kServiceRunning;
  sim::InstallService(other);
  run.StartConnected();
  EXPECT_TRUE(sim::LogHas("Single-tunnel invariant: stopping extra tunnel service: WireGuardTunnel$office"));
  EXPECT_EQ(sim::ServiceState(other.name), platform::kServiceStopped);
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
}

TEST(Machine, FailuresBehindTheHandshakeRollBackAndAreTriedAgain) {
  const struct {
    sim::Fault fault;
    const char* line;
  } cases[] = {
      {{.operation = "GetAdaptersAddresses", .code = 8, .skip = 2},
       "WFP: unable to resolve WireGuard adapter ifIndex for tunnelName='telvor'; refusing fail-closed"},
      {{.operation = "GetAddrInfoW",
        .code = 11001,
        .skip = 1,
        .times = 5,
        .argumentsContain = "cp.telvor.test"},
       "WFP: failed to resolve cp.telvor.test for baseline; rolling back to OPEN; retrying."},
      {{.operation = "FwpmFilterAdd0", .code = 5},
       "WFP baseline failed to apply; rolling back to OPEN; retrying."},
      {{.operation = "FwpmGetAppIdFromFileName0", .code = 2},
       "WFP baseline failed to apply; rolling back to OPEN; retrying."},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.fault.operation);
    SystemRun run;
    run.StartAndLogIn();
    sim::Fail(row.fault);
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    ASSERT_TRUE(WaitForLine(row.line));
    EXPECT_NE(gTunnelStatus, kStatusConnected);
    EXPECT_FALSE(gTunnelUp);
    ASSERT_TRUE(WaitForStatus(kStatusConnected));
    EXPECT_GE(sim::FiltersInForce().size(), 15u);
    EXPECT_EQ(sim::LogCount(row.line), 1u);
  }
}

TEST(Machine, WithoutAGatewayTheConnectionComesUpWithoutBypass) {
  SystemRun run;
  run.StartAndLogIn();
  sim::ClearRoutes();
  run.Connect();
  EXPECT_TRUE(sim::LogHas("SplitTunnelV1: pre-tunnel route install FAILED (continuing)"));
  EXPECT_TRUE(sim::LogHas("SplitTunnelV1: route apply failed (continuing without bypass)"));
  EXPECT_TRUE(sim::HostRouteTexts().empty());
  // With no route ever installed the first look refreshes at once.
  EXPECT_TRUE(WaitForLine("WorkerLoop : Started refresh0", 500));
}

TEST(Machine, AFailedAllowlistKeepsTheTunnelUp) {
  SystemRun run;
  run.StartAndLogIn();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForLine("WFP: updating split-bypass allowlist after baseline: count=3"));
  sim::Fail({.operation = "FwpmTransactionCommit0", .code = 5});
  ASSERT_TRUE(
      WaitForLine("WFP: split-bypass allowlist update FAILED (continuing fail-closed with CP/WG/DNS only)"));
  ASSERT_TRUE(WaitForStatus(kStatusConnected));
  EXPECT_EQ(sim::FiltersInForce().size(), 15u);
  // The next refresh repairs it.
  ASSERT_TRUE(sim::RunUntil([] { return gRefreshIteration == 1; }, kMinute));
  EXPECT_EQ(sim::FiltersInForce().size(), 15u + 6u + 2u);
}

TEST(Machine, WithoutWinsockTheServiceGoesOn) {
  SystemRun run;
  sim::Fail({.operation = "WSAStartup", .code = 10091});
  run.StartConnected();
  EXPECT_TRUE(sim::LogHas("WSAStartup failed rc=10091; continuing without Winsock DNS bootstrap support"));
}

TEST(Machine, WithoutALogTheServiceGoesOn) {
  SystemRun run;
  sim::SetEnvironment(L"ProgramData", L"C:\\nowhere\\at\\all");
  sim::StartProduct(true);
  ASSERT_TRUE(sim::RunUntil([] { return sim::PipeInstances() > 0; }, kMinute));
  EXPECT_EQ(Login(), kLoginReply);
  run.Connect();
  // Not valid JSON, and what the client gets when there is no log.
  EXPECT_EQ(Ask("GET /ui/logs"), "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":,\"error\":null}\n");
  run.Stop();
  ExpectNothingLeft();
}

}  // namespace
