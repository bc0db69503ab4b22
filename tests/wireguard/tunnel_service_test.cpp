#include "wireguard/tunnel_service.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/wireguard/tunnel_service_fixture.h"
#include "wireguard/platform.h"

namespace {

using Lines = std::vector<std::string>;

constexpr char kNoStop[] = "WireGuard tunnel service did not reach STOPPED within timeout.";
constexpr char kNoStart[] = "WireGuard tunnel service did not reach RUNNING within timeout.";

// How long the call took in virtual time.
template <class F>
uint64_t Milliseconds(F call) {
  const uint64_t start = sim::Now();
  call();
  return sim::Now() - start;
}

// WaitServiceState on an open handle to the own tunnel service.
bool Wait(uint32_t state, uint32_t timeoutMs) {
  const platform::Handle manager = platform::OpenSCManagerW(platform::kScManagerConnect);
  const platform::Handle service =
      platform::OpenServiceW(manager, kOwnTunnelService, platform::kServiceQueryStatus);
  const bool reached = WaitServiceState(service, state, timeoutMs);
  platform::CloseServiceHandle(service);
  platform::CloseServiceHandle(manager);
  return reached;
}

// The own tunnel service enters START_PENDING and is RUNNING after so many milliseconds.
void BeginStart(uint32_t milliseconds) {
  sim::Service service = TunnelService(platform::kServiceStopped);
  service.startMilliseconds = milliseconds;
  sim::InstallService(service);
  sim::StartThread("starter", [] {
    const platform::Handle manager = platform::OpenSCManagerW(platform::kScManagerConnect);
    const platform::Handle handle =
        platform::OpenServiceW(manager, kOwnTunnelService, platform::kServiceStart);
    platform::StartServiceW(handle);
    platform::CloseServiceHandle(handle);
    platform::CloseServiceHandle(manager);
  });
  sim::RunUntil([] { return StateOf() == platform::kServiceStartPending && sim::OpenHandles() == 0; }, 1000);
}

TEST(TunnelServiceExists, TellsWhetherTheServiceCanBeOpenedWhateverItsState) {
  sim::Machine machine;
  EXPECT_FALSE(TunnelServiceExists(L"telvor"));
  for (const uint32_t state : {1U, 2U, 3U, 4U, 7U}) {
    sim::InstallService(TunnelService(state));
    EXPECT_TRUE(TunnelServiceExists(L"telvor")) << state;
    sim::RemoveService(kOwnTunnelService);
  }
  sim::InstallService(TunnelService(4, L"telvor"));
  EXPECT_FALSE(TunnelServiceExists(L"telvor"));
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(TunnelServiceExists, AsksForNoMoreRightsThanItNeeds) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  EXPECT_TRUE(TunnelServiceExists(L"telvor"));
  EXPECT_EQ(sim::CountCalls("OpenSCManagerW", "access=1"), 1U);
  EXPECT_EQ(sim::CountCalls("OpenServiceW", "access=4"), 1U);
}

TEST(TunnelServiceExists, ReadsEveryFailureAsNoServiceWithoutALine) {
  for (const char* call : {"OpenSCManagerW", "OpenServiceW"}) {
    sim::Machine machine;
    sim::InstallService(TunnelService(4));
    sim::Fail({.operation = call, .code = 5});
    EXPECT_FALSE(TunnelServiceExists(L"telvor")) << call;
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(IsTunnelServiceRunning, IsTrueInTheRunningStateAlone) {
  sim::Machine machine;
  EXPECT_FALSE(IsTunnelServiceRunning(L"telvor"));
  for (uint32_t state = 1; state <= 7; ++state) {
    sim::InstallService(TunnelService(state));
    EXPECT_EQ(IsTunnelServiceRunning(L"telvor"), state == 4) << state;
    sim::RemoveService(kOwnTunnelService);
  }
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(IsTunnelServiceRunning, LogsOnlyAManagerThatCannotBeOpened) {
  const struct {
    const char* call;
    Lines lines;
  } cases[] = {{"OpenSCManagerW", {AccessDenied("OpenSCManagerW")}},
               {"OpenServiceW", {}},
               {"QueryServiceStatusEx", {}}};
  for (const auto& step : cases) {
    SCOPED_TRACE(step.call);
    sim::Machine machine;
    sim::InstallService(TunnelService(4));
    sim::Fail({.operation = step.call, .code = 5});
    EXPECT_FALSE(IsTunnelServiceRunning(L"telvor"));
    EXPECT_EQ(sim::LogLines(), step.lines);
  }
}

TEST(WaitServiceState, ReturnsAtOnceInTheStateWanted) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  EXPECT_EQ(Milliseconds([] { EXPECT_TRUE(Wait(4, 0)); }), 0U);
  EXPECT_EQ(sim::CountCalls("Sleep"), 0U);
}

TEST(WaitServiceState, LooksEvery250Milliseconds) {
  sim::Machine machine;
  BeginStart(600);
  EXPECT_EQ(Milliseconds([] { EXPECT_TRUE(Wait(4, 60000)); }), 750U);
  EXPECT_EQ(sim::CountCalls("QueryServiceStatusEx"), 4U);
  EXPECT_EQ(sim::CountCalls("Sleep", "250"), 3U);
}

TEST(WaitServiceState, LooksOnceMoreAfterTheSleepThatPassesTheTimeout) {
  sim::Machine machine;
  BeginStart(1100);
  EXPECT_EQ(Milliseconds([] { EXPECT_TRUE(Wait(4, 1000)); }), 1250U);
}

TEST(WaitServiceState, GivesUpOnceMoreTimeThanTheTimeoutHasPassed) {
  sim::Machine machine;
  sim::InstallService(TunnelService(2));
  EXPECT_EQ(Milliseconds([] { EXPECT_FALSE(Wait(4, 1000)); }), 1250U);
  EXPECT_EQ(Milliseconds([] { EXPECT_FALSE(Wait(4, 999)); }), 1000U);
  EXPECT_EQ(Milliseconds([] { EXPECT_FALSE(Wait(4, 0)); }), 250U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(WaitServiceState, LogsAFailedQuery) {
  sim::Machine machine;
  sim::InstallService(TunnelService(2));
  sim::Fail({.operation = "QueryServiceStatusEx", .code = 5, .skip = 1});
  EXPECT_EQ(Milliseconds([] { EXPECT_FALSE(Wait(4, 60000)); }), 250U);
  EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied("QueryServiceStatusEx")}));
}

TEST(StopTunnelService, HasNothingToDoForAServiceThatDoesNotExistOrCannotBeOpened) {
  sim::Machine machine;
  EXPECT_TRUE(StopTunnelService(L"telvor", 8000));
  sim::InstallService(TunnelService(4));
  sim::Fail({.operation = "OpenServiceW", .code = 5});
  EXPECT_TRUE(StopTunnelService(L"telvor", 8000));
  EXPECT_EQ(StateOf(), 4U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(StopTunnelService, LeavesAStoppedServiceAlone) {
  sim::Machine machine;
  sim::InstallService(TunnelService(1));
  EXPECT_TRUE(StopTunnelService(L"telvor", 8000));
  EXPECT_EQ(sim::CountCalls("ControlService"), 0U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(StopTunnelService, StopsARunningServiceAndWaitsForIt) {
  sim::Machine machine;
  sim::Service service = TunnelService(4);
  service.stopMilliseconds = 400;
  sim::InstallService(service);
  EXPECT_EQ(Milliseconds([] { EXPECT_TRUE(StopTunnelService(L"telvor", 8000)); }), 500U);
  EXPECT_EQ(StateOf(), 1U);
  EXPECT_EQ(sim::CountCalls("OpenSCManagerW", "access=1"), 1U);
  EXPECT_EQ(sim::CountCalls("OpenServiceW", "access=36"), 1U);
  EXPECT_EQ(sim::CountCalls("ControlService", "control=1"), 1U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(StopTunnelService, LogsTheCallThatFailedAndReportsIt) {
  for (const char* call : {"OpenSCManagerW", "QueryServiceStatusEx", "ControlService"}) {
    SCOPED_TRACE(call);
    sim::Machine machine;
    sim::InstallService(TunnelService(4));
    sim::Fail({.operation = call, .code = 5});
    EXPECT_FALSE(StopTunnelService(L"telvor", 8000));
    const std::string what = call == std::string("ControlService") ? "ControlService(STOP)" : call;
    EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied(what)}));
    EXPECT_EQ(StateOf(), 4U);
  }
}

TEST(StopTunnelService, LogsAQueryThatFailsDuringTheWaitAndTheTimeoutText) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  sim::Fail({.operation = "QueryServiceStatusEx", .code = 5, .skip = 1});
  EXPECT_FALSE(StopTunnelService(L"telvor", 8000));
  EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied("QueryServiceStatusEx"), kNoStop}));
}

TEST(StopTunnelService, GoesOnToTheWaitWhenTheServiceWasNotActiveAnyMore) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  sim::Before("ControlService", [] { sim::SetServiceState(kOwnTunnelService, 1); });
  EXPECT_EQ(Milliseconds([] { EXPECT_TRUE(StopTunnelService(L"telvor", 8000)); }), 0U);
  EXPECT_EQ(sim::CountCalls("QueryServiceStatusEx"), 2U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(StopTunnelService, GivesUpOnAServiceThatHangsAndLogsIt) {
  sim::Machine machine;
  sim::Service service = TunnelService(4);
  service.hangsOnStop = true;
  sim::InstallService(service);
  EXPECT_EQ(Milliseconds([] { EXPECT_FALSE(StopTunnelService(L"telvor", 8000)); }), 8250U);
  EXPECT_EQ(sim::LogLines(), (Lines{kNoStop}));
}

TEST(RestartTunnelService, StopsARunningServiceAndStartsItAnew) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  EXPECT_TRUE(RestartTunnelService(L"telvor"));
  EXPECT_EQ(StateOf(), 4U);
  EXPECT_EQ(sim::CountCalls("OpenSCManagerW", "access=1"), 1U);
  EXPECT_EQ(sim::CountCalls("OpenServiceW", "access=52"), 1U);
  EXPECT_EQ(ServiceCalls(),
            (Lines{"OpenSCManagerW", "OpenServiceW", "QueryServiceStatusEx", "ControlService",
                   "QueryServiceStatusEx", "QueryServiceStatusEx", "StartServiceW", "QueryServiceStatusEx",
                   "QueryServiceStatusEx", "CloseServiceHandle", "CloseServiceHandle"}));
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(RestartTunnelService, OnlyStartsAStoppedService) {
  sim::Machine machine;
  sim::InstallService(TunnelService(1));
  EXPECT_TRUE(RestartTunnelService(L"telvor"));
  EXPECT_EQ(StateOf(), 4U);
  EXPECT_EQ(sim::CountCalls("ControlService"), 0U);
}

TEST(RestartTunnelService, WaitsForAServiceThatStartsAlready) {
  sim::Machine machine;
  BeginStart(600);
  sim::ClearTrace();
  EXPECT_EQ(Milliseconds([] { EXPECT_TRUE(RestartTunnelService(L"telvor")); }), 750U);
  EXPECT_EQ(sim::CountCalls("ControlService"), 0U);
  EXPECT_EQ(sim::CountCalls("StartServiceW"), 1U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(RestartTunnelService, LogsTheCallThatFailedAndReportsIt) {
  for (const char* call : {"OpenSCManagerW", "OpenServiceW", "QueryServiceStatusEx", "StartServiceW"}) {
    SCOPED_TRACE(call);
    sim::Machine machine;
    sim::InstallService(TunnelService(1));
    sim::Fail({.operation = call, .code = 5});
    EXPECT_FALSE(RestartTunnelService(L"telvor"));
    EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied(call)}));
    EXPECT_EQ(StateOf(), 1U);
  }
}

TEST(RestartTunnelService, FailsForAServiceThatDoesNotExist) {
  sim::Machine machine;
  EXPECT_FALSE(RestartTunnelService(L"telvor"));
  EXPECT_EQ(sim::LogLines(), (Lines{"OpenServiceW failed: 1060 (The specified service does not exist as an "
                                    "installed service.)"}));
}

TEST(RestartTunnelService, DoesNotStartWhatItCouldNotStop) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  sim::Fail({.operation = "ControlService", .code = 5});
  EXPECT_FALSE(RestartTunnelService(L"telvor"));
  EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied("ControlService(STOP)")}));

  sim::ClearLog();
  sim::Service service = TunnelService(4);
  service.hangsOnStop = true;
  sim::InstallService(service);
  EXPECT_EQ(Milliseconds([] { EXPECT_FALSE(RestartTunnelService(L"telvor")); }), 60250U);
  EXPECT_EQ(sim::LogLines(), (Lines{kNoStop}));
  EXPECT_EQ(sim::CountCalls("StartServiceW"), 0U);
}

TEST(RestartTunnelService, StartsAServiceThatStoppedByItselfBeforeTheStop) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  sim::Before("ControlService", [] { sim::SetServiceState(kOwnTunnelService, 1); });
  EXPECT_TRUE(RestartTunnelService(L"telvor"));
  EXPECT_EQ(StateOf(), 4U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(RestartTunnelService, DoesNotStopAServiceThatIsStoppingAlready) {
  sim::Machine machine;
  sim::InstallService(TunnelService(3));
  sim::Fail({.operation = "StartServiceW", .code = 5});
  EXPECT_FALSE(RestartTunnelService(L"telvor"));
  EXPECT_EQ(sim::CountCalls("ControlService"), 0U);
  EXPECT_EQ(sim::CountCalls("StartServiceW"), 1U);
}

TEST(RestartTunnelService, GivesUpOnAServiceThatDoesNotStartAndLogsIt) {
  sim::Machine machine;
  sim::Service service = TunnelService(1);
  service.hangsOnStart = true;
  sim::InstallService(service);
  EXPECT_EQ(Milliseconds([] { EXPECT_FALSE(RestartTunnelService(L"telvor")); }), 60250U);
  EXPECT_EQ(sim::LogLines(), (Lines{kNoStart}));
}

}  // namespace
