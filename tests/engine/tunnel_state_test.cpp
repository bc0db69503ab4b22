// The shared tunnel state: its first values, and every change that a thread other than the worker may make.
#include "engine/tunnel_state.h"

#include "controlplane/session.h"
#include "ipc/dispatch.h"
#include "service/lifecycle.h"
#include "service/wiring.h"
#include "tests/engine/worker_fixture.h"

#include <system_error>

namespace {

const char kTrueReply[] = R"({"jsonrpc":"2.0","id":0,"result":true,"error":null})";

std::string Request(const std::string& method, const std::string& parameters = "") {
  std::string reply;
  HandleIpcRequest("{\"method\":\"" + method + "\"" + parameters + "}", reply);
  return reply;
}

struct Intent {
  int32_t desired;
  int32_t status;
};

void SetIntent(const Intent& intent) {
  gTunnelDesired = intent.desired;
  gTunnelStatus = intent.status;
  gTunnelEpoch = 10;
  gTunnelUp = true;
}

void PlugEverything() {
  WireSubsystems();
  fake::PlugOperations();
}

void ExpectDisconnectWrites() {
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(gTunnelEpoch, 11u);
  EXPECT_EQ(gTunnelStatus, 0);
  EXPECT_FALSE(gTunnelUp);
}

// The intent was written in full before the first teardown step.
void ExpectWrittenBefore(const fake::Call& call) {
  EXPECT_EQ(call.status, 0);
  EXPECT_FALSE(call.up);
}

TEST(TunnelState, StartsWithNothingWantedAndNothingKnown) {
  sim::Machine machine;
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(gTunnelStatus, 0);
  EXPECT_EQ(gTunnelEpoch, 0u);
  EXPECT_FALSE(gTunnelUp);
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(gLastError, L"");
  EXPECT_TRUE(gBypassIpsEffective.empty());
  EXPECT_TRUE(gBypassIpsApplied.empty());
  EXPECT_TRUE(gUiServers.empty());
  EXPECT_EQ(gSelectedServerId, "");
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_EQ(gCachedAccessToken, L"");
}

TEST(TunnelState, StartsWithoutRoutesHandlesAndCheckPoints) {
  sim::Machine machine;
  EXPECT_FALSE(gBypassRoutesInstalled);
  EXPECT_EQ(gLastRefreshTick, 0u);
  EXPECT_EQ(gRefreshIteration, 0);
  EXPECT_EQ(gCpIpV4, L"");
  EXPECT_EQ(gDefaultGatewayV4, L"");
  EXPECT_EQ(gDefaultIfIndex, 0u);
  EXPECT_EQ(gStopEvent, nullptr);
  EXPECT_EQ(gServiceStatusHandle, nullptr);
  EXPECT_EQ(gServiceCheckPoint, 1u);
  EXPECT_EQ(gWorkerThread, nullptr);
  EXPECT_EQ(gIpcThread, nullptr);
}

TEST(TunnelState, DisconnectIntentIsFourWrites) {
  sim::Machine machine;
  SetIntent({1, 2});
  gAuthRequired = true;
  WriteDisconnectIntent();
  ExpectDisconnectWrites();
  EXPECT_TRUE(gAuthRequired);
  WriteDisconnectIntent();
  EXPECT_EQ(gTunnelEpoch, 12u);
}

TEST(TunnelState, TheLastErrorIsSetUnderItsLock) {
  sim::Machine machine;
  SetLastErrorText(L"one");
  EXPECT_EQ(gLastError, L"one");
  sim::FailLock(gLastErrorMutex);
  EXPECT_THROW(SetLastErrorText(L"two"), std::system_error);
  EXPECT_EQ(gLastError, L"one");
  SetLastErrorText(L"");
  EXPECT_EQ(gLastError, L"");
}

TEST(TunnelStateConnect, ChangesNothingWhileAWantedTunnelIsComingOrUp) {
  for (const Intent& intent : {Intent{1, 1}, Intent{1, 2}}) {
    sim::Machine machine;
    PlugEverything();
    SetIntent(intent);
    EXPECT_EQ(Request("Connect"), kTrueReply);
    EXPECT_EQ(gTunnelDesired, 1);
    EXPECT_EQ(gTunnelEpoch, 10u);
    EXPECT_EQ(gTunnelStatus, intent.status);
    EXPECT_EQ(fake::Journal(), Journal{});
  }
}

TEST(TunnelStateConnect, WritesTheIntentInEveryOtherState) {
  const std::vector<Intent> others = {{1, 3}, {1, 0}, {0, 0}, {0, 1}, {0, 2}, {0, 3}};
  for (const Intent& intent : others) {
    SCOPED_TRACE(intent.status);
    sim::Machine machine;
    PlugEverything();
    SetIntent(intent);
    EXPECT_EQ(Request("Connect"), kTrueReply);
    EXPECT_EQ(gTunnelDesired, 1);
    EXPECT_EQ(gTunnelEpoch, 11u);
    EXPECT_EQ(gTunnelStatus, 1);
    EXPECT_TRUE(gTunnelUp);
    EXPECT_EQ(fake::Journal(), Journal{"log IPC: Connect requested"});
  }
}

TEST(TunnelStateConnect, ReleasesAWorkerParkedInError) {
  WorkerRun run;
  PlugEverything();
  fake::gState.refusing = {"WgHandshakeSeen"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 3; }, 60'000));
  sim::Run(1000);
  EXPECT_EQ(Request("Connect"), kTrueReply);
  EXPECT_EQ(gTunnelStatus, 1);
  EXPECT_TRUE(sim::RunUntil([] { return fake::Count("WgHandshakeSeen") == 4; }, 300));
}

TEST(TunnelStateDisconnect, ChangesNothingWhenIdle) {
  sim::Machine machine;
  PlugEverything();
  SetIntent({0, 0});
  EXPECT_EQ(Request("Disconnect"), kTrueReply);
  EXPECT_EQ(gTunnelEpoch, 10u);
  EXPECT_TRUE(gTunnelUp);
  EXPECT_EQ(fake::Journal(), Journal{});
}

TEST(TunnelStateDisconnect, WritesTheIntentAndTearsDownInEveryOtherState) {
  const std::vector<Intent> others = {{1, 0}, {1, 1}, {1, 2}, {1, 3}, {0, 1}, {0, 2}, {0, 3}};
  for (const Intent& intent : others) {
    SCOPED_TRACE(intent.status);
    sim::Machine machine;
    PlugEverything();
    SetIntent(intent);
    EXPECT_EQ(Request("Disconnect"), kTrueReply);
    ExpectDisconnectWrites();
    EXPECT_EQ(fake::Journal(), (Journal{
                                   "log IPC: Disconnect requested",
                                   "call UninstallTunnelService telvor",
                                   "call RollbackToOpen",
                               }));
    ExpectWrittenBefore(fake::Calls("UninstallTunnelService").at(0));
  }
}

TEST(TunnelStateStopService, AlwaysWritesTheIntentAndStops) {
  for (const Intent& intent : {Intent{0, 0}, Intent{1, 2}}) {
    sim::Machine machine;
    PlugEverything();
    SetIntent(intent);
    EXPECT_EQ(Request("StopService"), kTrueReply);
    ExpectDisconnectWrites();
    EXPECT_EQ(fake::Journal(), (Journal{
                                   "log IPC: StopService requested",
                                   "call RollbackToOpen",
                                   "call StopOwnService",
                               }));
    ExpectWrittenBefore(fake::Calls("RollbackToOpen").at(0));
  }
}

TEST(TunnelStateLocation, AWantedTunnelIsTakenDownAfterTheBootstrap) {
  for (const Intent& intent : {Intent{1, 2}, Intent{1, 0}, Intent{0, 3}}) {
    sim::Machine machine;
    PlugEverything();
    SetIntent(intent);
    EXPECT_EQ(Request("POST /ui/select-location", R"(,"server_id":"srv-b")"), kTrueReply);
    ExpectDisconnectWrites();
    EXPECT_EQ(fake::Journal(),
              (Journal{
                  "call Bootstrap",
                  "log Select-location: tunnel is up; forcing immediate disconnect due to server change",
                  "call UninstallTunnelService telvor",
                  "call RollbackToOpen",
              }));
    EXPECT_EQ(fake::Calls("Bootstrap").at(0).status, intent.status);
  }
}

TEST(TunnelStateLocation, AnIdleTunnelIsLeftAlone) {
  sim::Machine machine;
  PlugEverything();
  SetIntent({0, 0});
  EXPECT_EQ(Request("POST /ui/select-location", R"(,"server_id":"srv-b")"), kTrueReply);
  EXPECT_EQ(gTunnelEpoch, 10u);
  EXPECT_TRUE(gTunnelUp);
  EXPECT_EQ(fake::Journal(), Journal{"call Bootstrap"});
}

TEST(TunnelStateLocation, AFailedBootstrapShowsDisconnectedFirst) {
  sim::Machine machine;
  PlugEverything();
  fake::gState.refusing = {"Bootstrap"};
  SetIntent({1, 2});
  EXPECT_EQ(Request("POST /ui/select-location", R"(,"server_id":"srv-b")"), kTrueReply);
  ExpectDisconnectWrites();
  EXPECT_EQ(fake::Journal(),
            (Journal{
                "call Bootstrap",
                ("log Unable to pull bootstrap state either AUTH_REQUIRED or other error; staying "
                 "DISCONNECTED/CONNECTING."),
                "log Select-location: tunnel is up; forcing immediate disconnect due to server change",
                "call UninstallTunnelService telvor",
                "call RollbackToOpen",
            }));
}

TEST(TunnelStateLocation, AFailedBootstrapKeepsDesiredAndEpochOfAnIdleTunnel) {
  sim::Machine machine;
  PlugEverything();
  fake::gState.refusing = {"Bootstrap"};
  SetIntent({0, 3});
  Request("POST /ui/select-location", R"(,"server_id":"srv-b")");
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(gTunnelEpoch, 10u);
  EXPECT_EQ(gTunnelStatus, 0);
  EXPECT_FALSE(gTunnelUp);
  EXPECT_EQ(fake::Count("UninstallTunnelService"), 0u);
}

TEST(TunnelStateLogout, AlwaysWritesTheIntentAndOpensTheFirewallAlone) {
  for (const Intent& intent : {Intent{0, 0}, Intent{1, 2}}) {
    sim::Machine machine;
    PlugEverything();
    SetIntent(intent);
    Logout();
    ExpectDisconnectWrites();
    EXPECT_TRUE(gAuthRequired);
    EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
    EXPECT_EQ(fake::Journal(), Journal{"call RollbackToOpen"});
    ExpectWrittenBefore(fake::Calls("RollbackToOpen").at(0));
  }
}

TEST(TunnelStateLogout, LeavesTheTunnelServiceToTheWorker) {
  WorkerRun run;
  PlugEverything();
  StartConnected(run);
  Logout();
  EXPECT_EQ(fake::Count("UninstallTunnelService"), 0u);
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("UninstallTunnelService") == 1; }, 300));
}

TEST(TunnelStateStopControl, AlwaysWritesTheIntentAndStopsTheTunnelFirst) {
  for (const uint32_t control : {1u, 5u, 15u}) {
    sim::Machine machine;
    PlugEverything();
    SetIntent({1, 2});
    EXPECT_EQ(ServiceCtrlHandlerEx(control), 0u);
    ExpectDisconnectWrites();
    EXPECT_EQ(fake::Journal(), (Journal{
                                   "log ServiceCtrlHandlerEx: ctrl=" + std::to_string(control),
                                   "log ServiceCtrlHandlerEx: STOP/SHUTDOWN received",
                                   "call StopTunnelService telvor 8000",
                                   "log ServiceCtrlHandlerEx: gStopEvent is NULL",
                                   "call RollbackToOpen",
                               }));
    ExpectWrittenBefore(fake::Calls("StopTunnelService").at(0));
  }
}

}  // namespace
