// Start and stop of the service: its reports, its trail, the time a stop takes and what it leaves.
#include "tests/support/system_run.h"

namespace {

constexpr char kStagePath[] = "C:\\VPN\\stage\\";

Lines Markers() {
  Lines names;
  for (const std::wstring& path : sim::AllFiles()) {
    const std::string text = sim::Narrow(path);
    if (text.starts_with(kStagePath)) names.push_back(text.substr(std::string(kStagePath).size()));
  }
  return names;
}

// "state/exit code/check point/wait hint" of each report.
Lines Reports() {
  Lines texts;
  for (const platform::ServiceStatus& report : sim::StatusReports()) {
    EXPECT_EQ(report.dwServiceType, 16u);
    EXPECT_EQ(report.dwControlsAccepted, 261u);
    EXPECT_EQ(report.dwServiceSpecificExitCode, 0u);
    texts.push_back(std::to_string(report.dwCurrentState) + "/" + std::to_string(report.dwWin32ExitCode) +
                    "/" + std::to_string(report.dwCheckPoint) + "/" + std::to_string(report.dwWaitHint));
  }
  return texts;
}

TEST(ServiceStart, ReportsAndLeavesItsTrail) {
  SystemRun run;
  run.Start();
  EXPECT_EQ(Reports(), (Lines{"2/0/1/5000", "4/0/0/0"}));
  EXPECT_EQ(Markers(), (Lines{"01-wmain-enter.txt", "03-before-runasservice.txt", "10-runasservice-enter.txt",
                              "11-before-dispatch.txt", "20-servicemain-enter.txt"}));
  EXPECT_TRUE(InOrder(sim::LogLines(), {"Service starting.", "Worker thread started (supervised).",
                                        "IPC thread started.", "Service RUNNING."}));
  const std::wstring step = L"C:\\ProgramData\\TELVOR\\step1.txt";
  ASSERT_TRUE(sim::RunUntil([&step] { return sim::FileBytes(step).value_or("").size() == 14; }, 1000));
  EXPECT_EQ(sim::FileBytes(step), std::string("i\0n\0 \0t\0r\0y\0\n\0", 14));
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(State(), "disconnected");
}

TEST(ServiceStart, OffersThePipeAsTold) {
  SystemRun run;
  run.Start();
  const platform::NamedPipeParameters* parameters = sim::LastPipeParameters();
  ASSERT_NE(parameters, nullptr);
  EXPECT_EQ(parameters->maxInstances, 16u);
  EXPECT_EQ(parameters->inBufferSize, 65536u);
  EXPECT_EQ(parameters->outBufferSize, 65536u);
  EXPECT_EQ(sim::LastSecurityDescriptorText(), L"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GRGW;;;AU)");
  EXPECT_EQ(sim::PipeInstances(), 1u);
}

// Only on a start without one is the pipe missing; the service runs on.
TEST(ServiceStart, GoesOnWithoutAPipe) {
  SystemRun run;
  sim::Fail({.operation = "CreateThread", .code = 8, .skip = 1});
  sim::StartProduct(true);
  ASSERT_TRUE(WaitForLine("Service RUNNING."));
  EXPECT_TRUE(sim::LogHas("CreateThread(IPC) failed."));
  sim::Run(5000);
  EXPECT_EQ(sim::PipeInstances(), 0u);
  EXPECT_TRUE(sim::ProductRunning());
  const uint64_t before = sim::Now();
  run.Stop();
  EXPECT_LT(sim::Now() - before, 1000u);
  ExpectNothingLeft();
}

TEST(ServiceStart, FailsWithoutAStopEvent) {
  SystemRun run;
  sim::Fail({.operation = "CreateEventW", .code = 8});
  sim::StartProduct(true);
  ASSERT_TRUE(WaitForEnd());
  EXPECT_EQ(Reports(), (Lines{"2/0/1/5000", "1/8/0/0"}));
  EXPECT_TRUE(sim::LogHas("CreateEvent failed."));
  EXPECT_EQ(sim::ProductExitCode(), 0);
}

TEST(ServiceStart, FailsWithoutAWorker) {
  SystemRun run;
  sim::Fail({.operation = "CreateThread", .code = 8});
  sim::StartProduct(true);
  ASSERT_TRUE(WaitForEnd());
  EXPECT_EQ(Reports(), (Lines{"2/0/1/5000", "1/8/0/0"}));
  EXPECT_TRUE(sim::LogHas("CreateThread(worker) failed."));
}

TEST(ServiceStart, FromATerminalIsAConsoleRunWithoutAPipe) {
  SystemRun run;
  sim::StartProduct(false);
  ASSERT_TRUE(WaitForLine("Worker: top."));
  sim::Run(2000);
  EXPECT_EQ(Markers(), (Lines{"01-wmain-enter.txt", "03-before-runasservice.txt", "04-after-runasservice.txt",
                              "05-fallback-console.txt", "10-runasservice-enter.txt",
                              "11-before-dispatch.txt", "12-dispatch-failed.txt"}));
  EXPECT_EQ(sim::PipeInstances(), 0u);
  EXPECT_TRUE(sim::StatusReports().empty());
  EXPECT_TRUE(sim::SendConsoleEvent(0));
  ASSERT_TRUE(WaitForEnd());
  EXPECT_EQ(sim::ProductExitCode(), 0);
  EXPECT_TRUE(
      InOrder(sim::LogLines(), {"Console mode: starting (not under SCM). Press Ctrl+C to stop.",
                                "Worker: top.", "Console Ctrl event: stopping.", "Console mode: exited."}));
}

// ---- Stop ----

// Nothing wakes the pipe's thread out of its wait for a client, so its 5 seconds run out.
TEST(ServiceStop, WithoutAClientTakesFiveSeconds) {
  for (const uint32_t control : {1u, 5u, 15u}) {
    SCOPED_TRACE(control);
    SystemRun run;
    run.Start();
    sim::Run(1000);
    const uint64_t before = sim::Now();
    ASSERT_TRUE(sim::SendControl(control));
    ASSERT_TRUE(WaitForEnd());
    EXPECT_GE(sim::Now() - before, 5000u);
    EXPECT_LT(sim::Now() - before, 5500u);
    EXPECT_EQ(Reports(), (Lines{"2/0/1/5000", "4/0/0/0", "3/0/1/5000", "1/0/0/0"}));
    EXPECT_TRUE(
        InOrder(sim::LogLines(), {"ServiceCtrlHandlerEx: ctrl=" + std::to_string(control),
                                  "ServiceCtrlHandlerEx: STOP/SHUTDOWN received",
                                  "ServiceMain: stop event signaled; shutting down.", "Service STOPPED."}));
    EXPECT_EQ(sim::LogCount("ServiceCtrlHandlerEx: SetEvent(gStopEvent) ok=true GLE="), 1u);
    EXPECT_EQ(Markers().back(), "20-servicemain-enter.txt");
    EXPECT_EQ(Markers()[5], "13-dispatch-returned.txt");
    ExpectNothingLeft();
  }
}

TEST(ServiceStop, AClientThatComesDuringTheStopShortensIt) {
  SystemRun run;
  run.Start();
  sim::Run(1000);
  ASSERT_TRUE(sim::SendControl(1));
  const uint64_t before = sim::Now();
  sim::Run(500);
  EXPECT_EQ(Ask("GetState"), kNoRequestReply);
  ASSERT_TRUE(WaitForEnd());
  EXPECT_LT(sim::Now() - before, 1000u);
  ExpectNothingLeft();
}

TEST(ServiceStop, ASilentClientIsCutOff) {
  SystemRun run;
  run.Start();
  sim::PipeClient client;
  ASSERT_TRUE(client.Connected());
  client.Write("{\"method\":");
  sim::Run(1000);
  run.Stop();
  EXPECT_FALSE(client.Connected());
  EXPECT_EQ(client.ReadToEnd(), "");
  client.Close();
  ExpectNothingLeft();
}

TEST(ServiceStop, WhileConnectedTakesTheTunnelDown) {
  SystemRun run;
  const Lines routes = sim::RouteTexts();
  run.StartConnected();
  run.Stop();
  ExpectNothingLeft();
  EXPECT_EQ(sim::RouteTexts(), routes);
  // Stopped by the handler; whether the worker also removed it is a matter of timing.
  EXPECT_NE(sim::ServiceState(kTunnelService), platform::kServiceRunning);
  EXPECT_TRUE(sim::FileExists(kSessionFile));
  EXPECT_TRUE(sim::FileExists(kTunnelConfigFile));
}

// The event alone, without the writes of an intent: the loop leaves without a line and tears down whole.
TEST(ServiceStop, TheEventAloneLeavesTheConnectedLoopWithoutALine) {
  SystemRun run;
  run.StartConnected();
  platform::SetEvent(gStopEvent);
  ASSERT_TRUE(WaitForEnd());
  EXPECT_EQ(sim::LogCount("WorkerLoop EXIT"), 0u);
  EXPECT_TRUE(sim::HostRouteTexts().empty());
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceStopped);
  ExpectNothingLeft();
}

// A connect pass does not look at the stop event; what it left of routes stays, the firewall is open.
TEST(ServiceStop, DuringTheWaitForAHandshakeLeavesTheRoutes) {
  SystemRun run;
  sim::HandshakeAnswers(false);
  run.StartAndLogIn();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForLine("WireGuard: waiting for handshake..."));
  const uint64_t before = sim::Now();
  run.Stop();
  // 5 seconds for each of the two threads.
  EXPECT_GE(sim::Now() - before, 10'000u);
  EXPECT_LT(sim::Now() - before, 11'000u);
  EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
  ExpectNothingLeft();
}

TEST(ServiceStop, AndTheNextStartIsAFreshOne) {
  SystemRun run;
  run.StartConnected();
  run.Stop();
  run.Start();
  EXPECT_EQ(State(), "disconnected");
  EXPECT_EQ(gTunnelEpoch, 0u);
  // The session and the keys are still there.
  run.Connect();
  run.Stop();
  ExpectNothingLeft();
}

// ---- StopService ----

TEST(StopService, RepliesTrueWhenTheServiceHasStopped) {
  SystemRun run;
  run.StartConnected();
  LetTheProcessLiveOn(500);
  EXPECT_EQ(Ask("StopService"), kTrueReply);
  ASSERT_TRUE(WaitForEnd());
  EXPECT_TRUE(InOrder(sim::LogLines(),
                      {"IPC: StopService requested", "ServiceCtrlHandlerEx: ctrl=1", "Service STOPPED."}));
  ExpectNothingLeft();
}

TEST(StopService, RepliesFalseWhenTheStopTakesTooLong) {
  SystemRun run;
  run.Start();
  // The worker sits in an installer that does not come back, so both threads' 5 seconds run out.
  sim::SetProcessHandler([](const std::wstring&) {
    sim::ProcessResult result;
    result.hangs = true;
    return result;
  });
  sim::Run(1000);
  const uint64_t before = sim::Now();
  EXPECT_EQ(Ask("StopService"), kFalseReply);
  EXPECT_GT(sim::Now() - before, 8000u);
  EXPECT_LT(sim::Now() - before, 8500u);
  EXPECT_TRUE(sim::ProductRunning());
  ASSERT_TRUE(WaitForEnd());
  ExpectNothingLeft();
}

// The process ends so soon behind its report that the client's thread may not live to see it: a race of the
// design, in which the client gets the reply or nothing.
TEST(StopService, RepliesTrueOrNothing) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    SystemRun run({.seed = seed});
    run.Start();
    const std::string reply = Ask("StopService");
    EXPECT_TRUE(reply == kTrueReply || reply.empty()) << reply;
    ASSERT_TRUE(WaitForEnd());
    ExpectNothingLeft();
  }
}

}  // namespace
