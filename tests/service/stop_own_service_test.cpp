// The service asks the service manager to stop it.
#include "service/lifecycle.h"

#include "tests/service/service_fixture.h"

namespace {

std::vector<uint64_t> TimesOf(const std::string& operation) {
  std::vector<uint64_t> times;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == operation) times.push_back(entry.time);
  }
  return times;
}

const std::vector<std::string> kManagerOperations = {
    "OpenSCManagerW", "OpenServiceW",         "ControlService",
    "GetTickCount64", "QueryServiceStatusEx", "CloseServiceHandle",
};

TEST(StopOwnService, StopsTheRunningService) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  LetTheProcessLinger();
  sim::ClearTrace();
  EXPECT_TRUE(StopOwnService());
  EXPECT_EQ(sim::CountCalls("OpenSCManagerW", "access=1"), 1u);
  EXPECT_EQ(sim::CountCalls("OpenServiceW", "name=\"TELVOR\" access=36"), 1u);
  EXPECT_EQ(sim::CountCalls("ControlService", "control=1"), 1u);
  EXPECT_EQ(sim::CountCalls("CloseServiceHandle"), 2u);
  EXPECT_EQ(Reports().back(), kStoppedReport);
}

TEST(StopOwnService, IsTrueAtOnceForAStoppedServiceAndIgnoresTheRefusedControl) {
  sim::Machine machine;
  EXPECT_TRUE(StopOwnService());
  EXPECT_EQ(CallsOf(kManagerOperations),
            (Lines{"OpenSCManagerW", "OpenServiceW", "ControlService", "GetTickCount64",
                   "QueryServiceStatusEx", "CloseServiceHandle", "CloseServiceHandle"}));
  EXPECT_EQ(sim::CountCalls("Sleep"), 0u);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(StopOwnService, IsFalseWithoutTheManager) {
  sim::Machine machine;
  sim::Fail({.operation = "OpenSCManagerW", .code = 5});
  EXPECT_FALSE(StopOwnService());
  EXPECT_EQ(CallsOf(kManagerOperations), Lines{"OpenSCManagerW"});
}

TEST(StopOwnService, IsFalseWithoutTheService) {
  sim::Machine machine;
  sim::Fail({.operation = "OpenServiceW", .code = 1060});
  EXPECT_FALSE(StopOwnService());
  EXPECT_EQ(CallsOf(kManagerOperations), (Lines{"OpenSCManagerW", "OpenServiceW", "CloseServiceHandle"}));
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(StopOwnService, IsFalseWhenAQueryFails) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  sim::Fail({.operation = "QueryServiceStatusEx", .code = 5, .skip = 3});
  EXPECT_FALSE(StopOwnService());
  EXPECT_EQ(TimesOf("QueryServiceStatusEx").size(), 4u);
  EXPECT_EQ(sim::CountCalls("CloseServiceHandle"), 2u);
  EXPECT_EQ(sim::OpenHandles("service"), 0u);
}

// The first look comes at once, and the last one is the first that finds more than 8000 milliseconds gone.
TEST(StopOwnService, LooksEvery100MillisecondsForMoreThan8Seconds) {
  ServiceRun run;
  fake::OnCall("Bootstrap", 1, [] { platform::Sleep(600'000); });
  run.StartAndWaitForRunning();
  gTunnelDesired = 1;
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("Bootstrap") == 1; }, 1000));
  const uint64_t asked = sim::Now();
  EXPECT_FALSE(StopOwnService());
  const std::vector<uint64_t> looks = TimesOf("QueryServiceStatusEx");
  ASSERT_EQ(looks.size(), 82u);
  EXPECT_EQ(looks.front(), asked);
  EXPECT_EQ(looks.back(), asked + 8100);
  EXPECT_EQ(sim::CountCalls("Sleep", "milliseconds=100"), 81u);
  EXPECT_EQ(sim::OpenHandles("service"), 0u);
  EXPECT_EQ(sim::OpenHandles("manager"), 0u);
}

// The time begins behind the control, which may itself wait for the handler.
TEST(StopOwnService, DoesNotCountTheTimeOfTheControlItself) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  LetTheProcessLinger();
  fake::OnCall("StopTunnelService", 1, [] { platform::Sleep(8000); });
  const uint64_t asked = sim::Now();
  EXPECT_TRUE(StopOwnService());
  EXPECT_GE(sim::Now() - asked, 13'000u);
}

}  // namespace
