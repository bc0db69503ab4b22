// Ends out of order: the process killed, the worker or the whole process failing, files torn; and what the
// next start or the next request makes of it.
#include "tests/support/system_run.h"

namespace {

const std::wstring kException = L"C:\\ProgramData\\TELVOR\\cpp_exception.txt";

// The worker copies or replaces the bypass list under this lock.
void FailTheNextCopy() {
  sim::FailLock(gBypassMutex);
}

// The order in which the kinds of calls appear in the trace for the first time.
size_t FirstCall(const std::string& operation, const std::string& argumentsContain = "") {
  const auto& trace = sim::Trace();
  for (size_t i = 0; i < trace.size(); ++i) {
    const bool fits = trace[i].arguments.find(argumentsContain) != std::string::npos;
    if (trace[i].operation == operation && fits) return i;
  }
  return trace.size();
}

// ---- Killed ----

TEST(Killed, WhileConnectedLeavesEverythingInForce) {
  SystemRun run;
  run.StartConnected();
  const size_t filters = sim::FiltersInForce().size();
  sim::KillProcess();
  sim::Run(10 * kMinute);
  EXPECT_FALSE(sim::ProductRunning());
  EXPECT_EQ(sim::FiltersInForce().size(), filters);
  EXPECT_GE(filters, 15u);
  EXPECT_TRUE(sim::ProviderInForce(kProviderKey));
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
  EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
}

TEST(Killed, TheNextStartClearsTheOldRuleSetFirst) {
  SystemRun run;
  run.StartConnected();
  sim::KillProcess();
  sim::ClearTrace();
  sim::StartProduct(true);
  ASSERT_TRUE(sim::RunUntil([] { return FirewallIsOpen(); }, kMinute));
  // Before the worker touches the tunnel service and before it looks at what is wanted.
  EXPECT_EQ(sim::CountCalls("CreateProcessW"), 0u);
  EXPECT_LT(FirstCall("WSAStartup"), FirstCall("FwpmEngineOpen0"));
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
  ASSERT_TRUE(sim::RunUntil([] { return !sim::ServiceInstalled(kTunnelService); }, kMinute));
  // Routes are not touched by the idle branch.
  EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
  EXPECT_EQ(State(), "disconnected");
}

TEST(Killed, TheNextConnectionTakesTheOldRoutesOver) {
  SystemRun run;
  const Lines routes = sim::RouteTexts();
  run.StartConnected();
  sim::KillProcess();
  run.Start();
  run.Connect();
  EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  ASSERT_TRUE(WaitForIdle());
  EXPECT_EQ(sim::RouteTexts(), routes);
}

TEST(Killed, InTheMiddleOfATransactionLeavesTheRulesAsTheyWere) {
  SystemRun run;
  run.StartAndLogIn();
  sim::Before("FwpmTransactionCommit0", [] { sim::KillProcess(); });
  sim::Run(kMinute);
  EXPECT_FALSE(sim::ProductRunning());
  EXPECT_TRUE(FirewallIsOpen());
  run.Start();
  run.Connect();
  run.Stop();
  ExpectNothingLeft();
}

// The session is written in place; what a crash leaves of it does not open and counts as none.
TEST(Killed, InTheMiddleOfALoginCostsTheSession) {
  SystemRun run;
  run.StartAndLogIn();
  sim::TearWritesAt(10);
  sim::Before(
      "CreateFileW", [] { sim::Before("CloseHandle", [] { sim::KillProcess(); }); },
      R"(session.dat" access=0x40000000)");
  EXPECT_EQ(Login(), "");
  EXPECT_FALSE(sim::ProductRunning());
  EXPECT_LE(sim::FileBytes(kSessionFile).value().size(), 10u);
  run.Start();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(sim::RunUntil([] { return LastErrorText() == "AUTH_REQUIRED"; }, kMinute));
  EXPECT_TRUE(sim::FileExists(kSessionFile));
  EXPECT_EQ(Login(), kLoginReply);
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

// ---- The worker alone ----

TEST(WorkerRestart, WhileConnectedConnectsAgain) {
  SystemRun run;
  run.StartConnected();
  FailTheNextCopy();
  ASSERT_TRUE(WaitForLine("ServiceMain: restarting worker (stop not requested).", 10 * kMinute));
  EXPECT_TRUE(sim::FileExists(kException));
  EXPECT_TRUE(sim::LogHas("ServiceMain: worker exited. exitCode=0"));
  EXPECT_EQ(gTunnelStatus, kStatusConnected);
  // The firewall opens in between, as the first thing that the new thread does after its set-up.
  ASSERT_TRUE(sim::RunUntil([] { return FirewallIsOpen(); }, kMinute));
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == kStatusConnected && !FirewallIsOpen(); }, kMinute));
  EXPECT_EQ(gTunnelEpoch, 1u);
  EXPECT_EQ(sim::LogCount("Worker thread started (supervised)."), 2u);
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_TRUE(WaitForIdle());
}

TEST(WorkerRestart, TakesTheRoutesOfTheOneBeforeDown) {
  SystemRun run;
  run.StartConnected();
  FailTheNextCopy();
  ASSERT_TRUE(
      sim::RunUntil([] { return sim::LogCount("Worker thread started (supervised).") == 2; }, 10 * kMinute));
  EXPECT_TRUE(gBypassRoutesInstalled);
  EXPECT_EQ(gBypassIpsApplied.size(), 3u);
  ASSERT_TRUE(
      sim::RunUntil([] { return sim::LogCount("WFP: split-bypass allowlist update OK") == 2; }, kMinute));
  ASSERT_TRUE(WaitForStatus(kStatusConnected));
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  ASSERT_TRUE(WaitForIdle());
}

TEST(WorkerRestart, AWorkerThatCannotBeStartedAgainEndsTheService) {
  SystemRun run;
  run.StartConnected();
  // The pipe's clients need threads too; none comes now.
  sim::Fail({.operation = "CreateThread", .code = 8});
  FailTheNextCopy();
  ASSERT_TRUE(WaitForEnd(10 * kMinute));
  EXPECT_TRUE(InOrder(sim::LogLines(),
                      {"ServiceMain: worker exited. exitCode=0",
                       "ServiceMain: restarting worker (stop not requested).", "CreateThread(worker) failed.",
                       "ServiceMain: failed to restart worker; stopping service.", "Service STOPPED."}));
  EXPECT_EQ(sim::StatusReports().back().dwCurrentState, platform::kServiceStopped);
  EXPECT_EQ(sim::StatusReports().back().dwWin32ExitCode, 0u);
  // The hook at the process's end opens the firewall; nobody takes the tunnel down.
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
}

// ---- The process ----

TEST(Crash, InTheWorkersStartRunsTheTerminateHook) {
  SystemRun run;
  run.StartConnected();
  sim::KillProcess();
  EXPECT_FALSE(FirewallIsOpen());
  FailTheNextCopy();
  sim::StartProduct(true);
  ASSERT_TRUE(WaitForEnd());
  EXPECT_TRUE(sim::ProcessAborted());
  EXPECT_FALSE(sim::ProductExitCode().has_value());
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_FALSE(sim::FileExists(kException));
  // Neither the tunnel service nor the routes are the hook's business.
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
  EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
}

TEST(Crash, TheHooksOpenTheFirewallWhileConnected) {
  SystemRun run;
  run.StartConnected();
  ASSERT_NE(sim::InstalledCrashHooks().unhandledExceptionFilter, nullptr);
  ASSERT_NE(sim::InstalledCrashHooks().terminate, nullptr);
  EXPECT_EQ(sim::InstalledCrashHooks().atExit.size(), 1u);
  EXPECT_FALSE(FirewallIsOpen());
  EXPECT_EQ(sim::InstalledCrashHooks().unhandledExceptionFilter(), 1);
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
}

TEST(Crash, AClientsExceptionBecomesAReply) {
  SystemRun run;
  run.StartAndLogIn();
  sim::FailLock(gLastErrorMutex);
  const std::string reply = Ask("GetState");
  EXPECT_TRUE(reply.starts_with("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":null,\"error\":{\"message\":\""))
      << reply;
  EXPECT_EQ(State(), "disconnected");
}

}  // namespace
