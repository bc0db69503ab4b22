// The control handler and the order of shutdown.
#include "service/lifecycle.h"

#include "sim/trace_text.h"
#include "tests/service/service_fixture.h"

namespace {

// The handler's own lines and the tear-down calls it makes; the worker idles and makes some of its own.
Lines HandlerLines() {
  Lines found;
  for (const std::string& line : sim::LogLines()) {
    if (line.rfind("ServiceCtrlHandlerEx: ", 0) == 0) found.push_back(line);
  }
  return found;
}

void SetLastErrorTo2() {
  platform::GetFileAttributesW(L"C:\\missing.txt");
  ASSERT_EQ(platform::GetLastError(), 2u);
}

TEST(ServiceStop, StopsInOrder) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  const uint64_t asked = sim::Now();
  EXPECT_TRUE(sim::SendControl(1));
  EXPECT_EQ(sim::Now(), asked);
  run.WaitForEnd();
  EXPECT_EQ(Reports(), (Lines{kStartPendingReport, kRunningReport, kStopPendingReport, kStoppedReport}));
  const Lines handler = HandlerLines();
  ASSERT_EQ(handler.size(), 3u);
  EXPECT_EQ(handler[0], "ServiceCtrlHandlerEx: ctrl=1");
  EXPECT_EQ(handler[1], "ServiceCtrlHandlerEx: STOP/SHUTDOWN received");
  EXPECT_EQ(handler[2].substr(0, 54), "ServiceCtrlHandlerEx: SetEvent(gStopEvent) ok=true GLE");
  EXPECT_TRUE(sim::LogHas("ServiceMain: stop event signaled; shutting down."));
  EXPECT_EQ(sim::LogLines().back(), "Service STOPPED.");
  EXPECT_EQ(sim::ProductExitCode(), 0);
}

// The pipe thread cannot see the stop while it waits for a client.
TEST(ServiceStop, SpendsFiveSecondsOnAPipeThreadWithoutAClient) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  const uint64_t asked = sim::Now();
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(sim::Now() - asked, 5000u);
}

TEST(ServiceStop, WaitsFiveSecondsForEachThreadAndEndsAroundThem) {
  ServiceRun run;
  fake::OnCall("Bootstrap", 1, [] { platform::Sleep(600'000); });
  run.StartAndWaitForRunning();
  gTunnelDesired = 1;
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 1; }, 1000));
  const uint64_t asked = sim::Now();
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(sim::Now() - asked, 10'000u);
  EXPECT_EQ(sim::CountCalls("WaitForSingleObject", "milliseconds=5000"), 2u);
  EXPECT_EQ(Reports().back(), kStoppedReport);
  EXPECT_EQ(sim::ProductExitCode(), 0);
}

TEST(ServiceStop, WaitsForThePipeThreadBeforeTheWorker) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  const platform::Handle ipcThread = gIpcThread;
  const platform::Handle worker = gWorkerThread;
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  Lines waits;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    const bool counts = entry.arguments.find("milliseconds=5000") != std::string::npos;
    if (entry.operation == "WaitForSingleObject" && counts) waits.push_back(entry.arguments);
  }
  const auto waitFor = [](platform::Handle handle) {
    return sim::Args("handle", handle, "milliseconds", 5000u);
  };
  EXPECT_EQ(waits, (Lines{waitFor(ipcThread), waitFor(worker)}));
}

TEST(ServiceStop, ForgetsItsHandlesAndResetsTheCheckPoint) {
  ServiceRun run;
  std::vector<platform::Handle> handles = {platform::InvalidHandle()};
  uint32_t checkPoint = 0;
  size_t threads = 99;
  sim::Before(
      "SetServiceStatus",
      [&] {
        handles = {gStopEvent, gWorkerThread, gIpcThread};
        checkPoint = gServiceCheckPoint;
        threads = sim::OpenHandles("thread");
      },
      "state=1");
  run.StartAndWaitForRunning();
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(handles, (std::vector<platform::Handle>{nullptr, nullptr, nullptr}));
  EXPECT_EQ(checkPoint, 1u);
  EXPECT_EQ(threads, 0u);
}

TEST(ServiceStop, OpensTheFirewallOnceMoreAsTheProcessEnds) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(fake::Journal().back(), "call RollbackToOpen");
  EXPECT_EQ(fake::Journal().at(fake::Journal().size() - 2), "log Service STOPPED.");
}

TEST(ServiceStop, TearsAConnectedTunnelDown) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  gTunnelDesired = 1;
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 2; }, 1000));
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(fake::Count("StopTunnelService"), 2u);
  EXPECT_EQ(fake::Count("RemoveBypassRoutes"), 1u);
}

// The event is set last: a worker may see the new intent and idle while the handler still stops the tunnel.
TEST(ServiceStop, TheWorkerMayUninstallWhileTheHandlerStopsTheTunnel) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  gTunnelDesired = 1;
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 2; }, 1000));
  const size_t before = fake::Count("UninstallTunnelService");
  fake::OnCall("StopTunnelService", 1, [] { platform::Sleep(8000); });
  const uint64_t asked = sim::Now();
  EXPECT_TRUE(sim::SendControl(1));
  EXPECT_EQ(sim::Now() - asked, 8000u);
  EXPECT_GT(fake::Count("UninstallTunnelService"), before);
  EXPECT_EQ(Reports().back(), kStopPendingReport);
  run.WaitForEnd();
}

TEST(ServiceStop, ASecondStopFindsTheSameFlowAgain) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  const uint64_t epoch = gTunnelEpoch;
  EXPECT_TRUE(sim::SendControl(1));
  EXPECT_TRUE(sim::SendControl(5));
  EXPECT_EQ(gTunnelEpoch, epoch + 2);
  EXPECT_EQ(Reports().at(2), kStopPendingReport);
  EXPECT_EQ(Reports().at(3), "16 3 261 0 0 2 5000");
  EXPECT_EQ(gServiceCheckPoint, 3u);
  EXPECT_EQ(fake::Count("StopTunnelService"), 2u);
  EXPECT_EQ(HandlerLines().size(), 6u);
  run.WaitForEnd();
  EXPECT_EQ(Reports().back(), kStoppedReport);
}

TEST(ServiceStop, ActsOnThreeControls) {
  for (const uint32_t control : {1u, 5u, 15u}) {
    SCOPED_TRACE(control);
    ServiceRun run;
    run.StartAndWaitForRunning();
    EXPECT_TRUE(sim::SendControl(control));
    EXPECT_EQ(HandlerLines().at(0), "ServiceCtrlHandlerEx: ctrl=" + std::to_string(control));
    EXPECT_EQ(Reports().back(), kStopPendingReport);
    run.WaitForEnd();
    EXPECT_EQ(Reports().back(), kStoppedReport);
  }
}

// Over the real operations: the handler finds no tunnel service and does not wait for one.
TEST(ServiceStop, ADownTunnelCostsTheHandlerNoTime) {
  ServiceRun run;
  sim::StartProduct(true);
  ASSERT_TRUE(sim::RunUntil([] { return sim::LogHas("Service RUNNING."); }, 60'000));
  const uint64_t asked = sim::Now();
  EXPECT_TRUE(sim::SendControl(1));
  EXPECT_EQ(sim::Now(), asked);
  EXPECT_EQ(HandlerLines().size(), 3u);
  EXPECT_FALSE(sim::ServiceInstalled(L"WireGuardTunnel$telvor"));
  run.WaitForEnd();
  EXPECT_EQ(Reports().back(), kStoppedReport);
}

TEST(ServiceCtrlHandlerEx, LogsEveryOtherControlAndDoesNothing) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  const size_t stops = fake::Count("StopTunnelService");
  Lines expected;
  for (const uint32_t control : {0u, 2u, 3u, 4u, 6u, 14u, 16u, 128u, 255u}) {
    EXPECT_EQ(ServiceCtrlHandlerEx(control), 0u);
    expected.push_back("ServiceCtrlHandlerEx: ctrl=" + std::to_string(control));
  }
  EXPECT_EQ(HandlerLines(), expected);
  EXPECT_EQ(Reports().size(), 2u);
  EXPECT_EQ(gTunnelEpoch, 0u);
  EXPECT_EQ(fake::Count("StopTunnelService"), stops);
  EXPECT_EQ(platform::WaitForSingleObject(gStopEvent, 0), platform::kWaitTimeout);
}

TEST(ServiceCtrlHandlerEx, LogsTheLastErrorWhetherSetEventFailedOrNot) {
  sim::Machine machine;
  fake::PlugOperations();
  gStopEvent = platform::CreateEventW(true, false);
  fake::OnCall("StopTunnelService", 1, SetLastErrorTo2);
  EXPECT_EQ(ServiceCtrlHandlerEx(1), 0u);
  EXPECT_EQ(HandlerLines().back(), "ServiceCtrlHandlerEx: SetEvent(gStopEvent) ok=true GLE=2");
  sim::Fail({.operation = "SetEvent", .code = 6});
  EXPECT_EQ(ServiceCtrlHandlerEx(1), 0u);
  EXPECT_EQ(HandlerLines().back(), "ServiceCtrlHandlerEx: SetEvent(gStopEvent) ok=false GLE=6");
  platform::CloseHandle(gStopEvent);
}

TEST(ServiceCtrlHandlerEx, GoesOnWithoutAStopEventAndWithoutAStatusHandle) {
  sim::Machine machine;
  fake::PlugOperations();
  EXPECT_EQ(ServiceCtrlHandlerEx(1), 0u);
  EXPECT_EQ(fake::Journal(), (Lines{
                                 "log ServiceCtrlHandlerEx: ctrl=1",
                                 "log ServiceCtrlHandlerEx: STOP/SHUTDOWN received",
                                 "call StopTunnelService telvor 8000",
                                 "log ServiceCtrlHandlerEx: gStopEvent is NULL",
                                 "call RollbackToOpen",
                             }));
  EXPECT_EQ(sim::CountCalls("SetServiceStatus"), 0u);
  EXPECT_EQ(sim::CountCalls("SetEvent"), 0u);
}

TEST(ServiceCtrlHandlerEx, ReportsBeforeItWritesTheIntent) {
  ServiceRun run;
  fake::OnCall("Bootstrap", 1, [] { platform::Sleep(1000); });
  run.StartAndWaitForRunning();
  gTunnelDesired = 1;
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 1; }, 1000));
  gTunnelStatus = 3;
  gTunnelUp = true;
  int32_t status = -1;
  bool up = false;
  sim::Before(
      "SetServiceStatus",
      [&] {
        status = gTunnelStatus;
        up = gTunnelUp;
      },
      "state=3");
  EXPECT_TRUE(sim::SendControl(1));
  EXPECT_EQ(status, 3);
  EXPECT_TRUE(up);
  EXPECT_EQ(fake::Calls("StopTunnelService").at(0).status, 0);
  EXPECT_FALSE(fake::Calls("StopTunnelService").at(0).up);
}

TEST(ServiceCtrlHandlerEx, StopsTheTunnelBeforeItSetsTheEventAndOpensTheFirewallAfterIt) {
  sim::Machine machine;
  fake::PlugOperations();
  gStopEvent = platform::CreateEventW(true, false);
  std::vector<uint32_t> signalled;
  const auto look = [&] { signalled.push_back(platform::WaitForSingleObject(gStopEvent, 0)); };
  fake::OnCall("StopTunnelService", 1, look);
  fake::OnCall("RollbackToOpen", 1, look);
  ServiceCtrlHandlerEx(1);
  EXPECT_EQ(signalled, (std::vector<uint32_t>{platform::kWaitTimeout, platform::kWaitObject0}));
  platform::CloseHandle(gStopEvent);
}

TEST(ServiceCtrlHandlerEx, DoesNotMindFailingOperations) {
  sim::Machine machine;
  fake::PlugOperations();
  fake::gState.refusing = {"StopTunnelService", "RollbackToOpen"};
  EXPECT_EQ(ServiceCtrlHandlerEx(15), 0u);
  EXPECT_EQ(fake::Count("RollbackToOpen"), 1u);
}

}  // namespace
