// The console host: the worker alone.
#include "service/console_host.h"

#include "tests/service/service_fixture.h"

namespace {

// An event that is signalled already: the worker leaves at once.
void StopBeforeTheWorkerStarts() {
  sim::Before("CreateThread", [] { platform::SetEvent(gStopEvent); });
}

TEST(RunConsoleMode, RunsTheWorkerUntilItEnds) {
  ServiceRun run;
  run.StartInTerminal({L"--console"});
  sim::Run(1000);
  EXPECT_GE(fake::Count("UninstallTunnelService"), 4u);
  EXPECT_EQ(sim::LogLines().front(), "Console mode: starting (not under SCM). Press Ctrl+C to stop.");
  EXPECT_TRUE(sim::SendConsoleEvent(0));
  run.WaitForEnd();
  EXPECT_EQ(sim::LogLines().back(), "Console mode: exited.");
  EXPECT_EQ(sim::ProductExitCode(), 0);
}

// No pipe, no supervision, no crash hooks, and no marker of ServiceMain.
TEST(RunConsoleMode, IsDeliberatelyThin) {
  ServiceRun run;
  run.StartInTerminal({L"--console"});
  sim::Run(1000);
  const sim::CrashHooks& hooks = sim::InstalledCrashHooks();
  EXPECT_EQ(hooks.unhandledExceptionFilter, nullptr);
  EXPECT_EQ(hooks.terminate, nullptr);
  EXPECT_TRUE(hooks.atExit.empty());
  EXPECT_EQ(sim::CountCalls("CreateNamedPipeW"), 0u);
  EXPECT_EQ(sim::CountCalls("CreateThread"), 1u);
  EXPECT_EQ(sim::CountCalls("SetServiceStatus"), 0u);
  EXPECT_EQ(MarkerText(L"20-servicemain-enter.txt"), "missing");
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(fake::Count("Bootstrap"), 0u);
}

TEST(RunConsoleMode, DoesItsStepsInOrder) {
  sim::Machine machine;
  fake::PlugOperations();
  StopBeforeTheWorkerStarts();
  EXPECT_EQ(RunConsoleMode(), 0u);
  EXPECT_EQ(CallsOf({"CreateEventW", "SetConsoleCtrlHandler", "CreateThread"}),
            (Lines{"CreateEventW", "SetConsoleCtrlHandler", "CreateThread"}));
  EXPECT_EQ(sim::CountCalls("CreateEventW", "manualReset=true initiallySet=false"), 1u);
  EXPECT_EQ(sim::CountCalls("WaitForSingleObject", "milliseconds=4294967295"), 1u);
  EXPECT_EQ(gStopEvent, nullptr);
  EXPECT_EQ(gWorkerThread, nullptr);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(RunConsoleMode, GivesTheErrorOfTheEvent) {
  sim::Machine machine;
  sim::Fail({.operation = "CreateEventW", .code = 1450});
  EXPECT_EQ(RunConsoleMode(), 1450u);
  EXPECT_EQ(sim::CountCalls("SetConsoleCtrlHandler"), 0u);
  EXPECT_EQ(sim::LogLines(), Lines{"Console mode: starting (not under SCM). Press Ctrl+C to stop."});
}

// The event stays open here: the process ends anyway.
TEST(RunConsoleMode, GivesTheErrorOfTheThreadAndLeavesTheEventOpen) {
  sim::Machine machine;
  sim::Fail({.operation = "CreateThread", .code = 8});
  EXPECT_EQ(RunConsoleMode(), 8u);
  EXPECT_NE(gStopEvent, nullptr);
  EXPECT_EQ(sim::OpenHandles("event"), 1u);
  EXPECT_FALSE(sim::LogHas("Console mode: exited."));
  sim::ExpectOpenHandles(1);
}

TEST(RunConsoleMode, ThreeKindsOfEventsEndIt) {
  for (const uint32_t type : {0u, 1u, 2u}) {
    SCOPED_TRACE(type);
    ServiceRun run;
    run.StartInTerminal({L"--console"});
    sim::Run(500);
    const uint64_t epoch = gTunnelEpoch;
    EXPECT_TRUE(sim::SendConsoleEvent(type));
    EXPECT_EQ(gTunnelEpoch, epoch);
    run.WaitForEnd();
    EXPECT_EQ(sim::LogCount("Console Ctrl event: stopping."), 1u);
    EXPECT_TRUE(sim::LogHas("Console mode: exited."));
  }
}

TEST(ConsoleCtrlHandler, SignalsTheStopEventAndWritesNoIntent) {
  for (const uint32_t type : {0u, 1u, 2u}) {
    sim::Machine machine;
    gStopEvent = platform::CreateEventW(true, false);
    gTunnelDesired = 1;
    gTunnelStatus = 2;
    EXPECT_TRUE(ConsoleCtrlHandler(type));
    EXPECT_EQ(platform::WaitForSingleObject(gStopEvent, 0), platform::kWaitObject0);
    EXPECT_EQ(sim::LogLines(), Lines{"Console Ctrl event: stopping."});
    EXPECT_EQ(gTunnelDesired, 1);
    EXPECT_EQ(gTunnelStatus, 2);
    EXPECT_EQ(gTunnelEpoch, 0u);
    platform::CloseHandle(gStopEvent);
  }
}

TEST(ConsoleCtrlHandler, LeavesOtherTypesToTheSystem) {
  sim::Machine machine;
  gStopEvent = platform::CreateEventW(true, false);
  for (const uint32_t type : {3u, 5u, 6u, 4'294'967'295u}) EXPECT_FALSE(ConsoleCtrlHandler(type));
  EXPECT_EQ(platform::WaitForSingleObject(gStopEvent, 0), platform::kWaitTimeout);
  EXPECT_EQ(sim::LogBytes(), "");
  platform::CloseHandle(gStopEvent);
}

TEST(ConsoleCtrlHandler, WorksWithoutAStopEvent) {
  sim::Machine machine;
  EXPECT_TRUE(ConsoleCtrlHandler(0));
  EXPECT_EQ(sim::CountCalls("SetEvent"), 0u);
  EXPECT_TRUE(sim::LogHas("Console Ctrl event: stopping."));
}

}  // namespace
