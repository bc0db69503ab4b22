// ServiceMain up to its wait: the first reports, the threads, and the failures on the way.
#include "service/lifecycle.h"

#include "tests/service/service_fixture.h"

namespace {

const std::vector<std::string> kStartOperations = {
    "RegisterServiceCtrlHandlerExW",
    "SetServiceStatus",
    "SetUnhandledExceptionFilter",
    "set_terminate",
    "atexit",
    "CreateEventW",
    "CreateThread",
    "WaitForMultipleObjects",
};

TEST(ServiceStart, LogsItsSteps) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  EXPECT_EQ(ServiceLines(), (Lines{
                                "Service starting.",
                                "Worker thread started (supervised).",
                                "IPC thread started.",
                                "Service RUNNING.",
                            }));
}

TEST(ServiceStart, DoesItsStepsInOrder) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  sim::Run(10);
  EXPECT_EQ(CallsOf(kStartOperations), (Lines{
                                           "RegisterServiceCtrlHandlerExW",
                                           "SetServiceStatus",
                                           "SetUnhandledExceptionFilter",
                                           "set_terminate",
                                           "atexit",
                                           "CreateEventW",
                                           "CreateThread",
                                           "CreateThread",
                                           "SetServiceStatus",
                                           "WaitForMultipleObjects",
                                       }));
  EXPECT_EQ(sim::CountCalls("RegisterServiceCtrlHandlerExW", "\"TELVOR\""), 1u);
  EXPECT_EQ(sim::CountCalls("CreateEventW", "manualReset=true initiallySet=false"), 1u);
  EXPECT_EQ(sim::CountCalls("WaitForMultipleObjects", "count=2"), 1u);
  EXPECT_EQ(sim::CountCalls("WaitForMultipleObjects", "waitForAll=false milliseconds=4294967295"), 1u);
}

TEST(ServiceStart, MakesTwoReportsWithEveryField) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  EXPECT_EQ(Reports(), (Lines{kStartPendingReport, kRunningReport}));
}

TEST(ServiceStart, CountsTheCheckPointUpAndBack) {
  ServiceRun run;
  uint32_t atRegistration = 0;
  uint32_t afterPending = 0;
  uint32_t afterRunning = 0;
  sim::Before("RegisterServiceCtrlHandlerExW", [&] { atRegistration = gServiceCheckPoint; });
  sim::Before("CreateEventW", [&] { afterPending = gServiceCheckPoint; });
  sim::Before("WaitForMultipleObjects", [&] { afterRunning = gServiceCheckPoint; });
  run.StartAndWaitForRunning();
  sim::Run(10);
  EXPECT_EQ(atRegistration, 1u);
  EXPECT_EQ(afterPending, 2u);
  EXPECT_EQ(afterRunning, 1u);
}

TEST(ServiceStart, ReportsTheCheckPointItFinds) {
  ServiceRun run;
  sim::Before("RegisterServiceCtrlHandlerExW", [] { gServiceCheckPoint = 7; });
  run.StartAndWaitForRunning();
  EXPECT_EQ(Reports().at(0), "16 2 261 0 0 7 5000");
  EXPECT_EQ(Reports().at(1), kRunningReport);
}

TEST(ServiceStart, WritesItsMarkerBeforeItRegisters) {
  ServiceRun run;
  std::string marker;
  sim::Before("RegisterServiceCtrlHandlerExW", [&] { marker = MarkerText(L"20-servicemain-enter.txt"); });
  run.StartAndWaitForRunning();
  EXPECT_NE(marker, "missing");
}

TEST(ServiceStart, WithoutAHandlerItReturnsWithoutAWord) {
  ServiceRun run;
  sim::Fail({.operation = "RegisterServiceCtrlHandlerExW", .code = 1063});
  run.Start();
  sim::Run(10'000);
  EXPECT_EQ(MarkerText(L"20-servicemain-enter.txt").size(), 42u);
  EXPECT_EQ(sim::LogBytes(), "");
  EXPECT_TRUE(Reports().empty());
  EXPECT_EQ(sim::CountCalls("CreateEventW"), 0u);
  EXPECT_EQ(sim::InstalledCrashHooks().terminate, nullptr);
}

TEST(ServiceStart, WithoutAStopEventItReportsStoppedWithTheError) {
  ServiceRun run;
  sim::Fail({.operation = "CreateEventW", .code = 1450});
  run.Start();
  run.WaitForEnd();
  EXPECT_EQ(Reports(), (Lines{kStartPendingReport, "16 1 261 1450 0 0 0"}));
  EXPECT_EQ(ServiceLines(), (Lines{"Service starting.", "CreateEvent failed."}));
  EXPECT_EQ(sim::CountCalls("CreateThread"), 0u);
}

TEST(ServiceStart, WithoutAWorkerItReportsStoppedWithTheError) {
  ServiceRun run;
  sim::Fail({.operation = "CreateThread", .code = 8});
  platform::Handle stopEvent = platform::InvalidHandle();
  LetTheProcessLinger();
  sim::Before(
      "CreateFileW", [&] { stopEvent = gStopEvent; }, "04-after-runasservice.txt");
  run.Start();
  run.WaitForEnd();
  EXPECT_EQ(Reports(), (Lines{kStartPendingReport, "16 1 261 8 0 0 0"}));
  EXPECT_EQ(ServiceLines(), (Lines{"Service starting.", "CreateThread(worker) failed."}));
  EXPECT_EQ(sim::CountCalls("CreateThread"), 1u);
  EXPECT_EQ(stopEvent, nullptr);
}

TEST(ServiceStart, ResetsTheCheckPointAfterAFailure) {
  for (const char* operation : {"CreateEventW", "CreateThread"}) {
    SCOPED_TRACE(operation);
    ServiceRun run;
    uint32_t checkPoint = 0;
    sim::Fail({.operation = operation, .code = 8});
    sim::Before(
        "CreateFileW", [&] { checkPoint = gServiceCheckPoint; }, "04-after-runasservice.txt");
    run.Start();
    run.WaitForEnd();
    EXPECT_EQ(checkPoint, 1u);
  }
}

TEST(ServiceStart, RunsOnWithoutAPipeThread) {
  ServiceRun run;
  sim::Fail({.operation = "CreateThread", .code = 8, .skip = 1});
  run.StartAndWaitForRunning();
  EXPECT_EQ(ServiceLines(), (Lines{
                                "Service starting.",
                                "Worker thread started (supervised).",
                                "CreateThread(IPC) failed.",
                                "Service RUNNING.",
                            }));
  EXPECT_EQ(Reports().back(), kRunningReport);
  EXPECT_EQ(gIpcThread, nullptr);
  const uint64_t asked = sim::Now();
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(sim::Now(), asked);
  EXPECT_EQ(sim::ProductExitCode(), 0);
}

// Handles of an earlier run of ServiceMain in the same process.
TEST(ServiceStart, ReplacesAKnownWorkerAndKeepsAKnownPipeThread) {
  ServiceRun run;
  sim::Before("RegisterServiceCtrlHandlerExW", [] {
    gWorkerThread = platform::CreateEventW(true, false);
    gIpcThread = platform::CreateEventW(true, true);
  });
  run.StartAndWaitForRunning();
  EXPECT_EQ(sim::OpenHandles("event"), 2u);
  EXPECT_EQ(sim::OpenHandles("thread"), 1u);
  EXPECT_EQ(sim::LogCount("IPC thread started."), 0u);
  EXPECT_EQ(sim::CountCalls("CreateThread"), 1u);
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
}

TEST(ServiceStart, ThePipeThreadIsNotSupervised) {
  ServiceRun run;
  sim::Fail({.operation = "ConvertStringSecurityDescriptorToSecurityDescriptorW", .code = 87});
  run.StartAndWaitForRunning();
  sim::Run(60'000);
  EXPECT_EQ(sim::LogCount("ERROR: failed to build pipe security descriptor"), 1u);
  EXPECT_EQ(sim::LogCount("IPC thread started."), 1u);
  EXPECT_EQ(sim::CountCalls("CreateThread"), 2u);
  const uint64_t asked = sim::Now();
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(sim::Now(), asked);
}

}  // namespace
