// Connect, Disconnect, StopService and the change of server: guards, writes, calls, log, replies.
#include "ipc/intent_methods.h"

#include <gtest/gtest.h>

#include <mutex>

#include "tests/ipc/ipc_fixture.h"

namespace {

using namespace ipc_test;

const std::string kTrue = ResultText("true");
const char kForcedDisconnect[] =
    "Select-location: tunnel is up; forcing immediate disconnect due to server change";
const char kNoBootstrap[] =
    "Unable to pull bootstrap state either AUTH_REQUIRED or other error; staying DISCONNECTED/CONNECTING.";

std::string SelectLocation(const std::string& fields) {
  return ReplyTo(R"({"id":7,"method":"POST /ui/select-location")" + fields + "}");
}

// ---- Connect ----

TEST(Connect, WritesTheIntentAndReplies) {
  sim::Machine machine;
  WireRecordedOperations();
  EXPECT_EQ(Call("Connect"), kTrue);
  EXPECT_EQ(State(), "desired=1 epoch=1 status=1 up=false");
  EXPECT_EQ(sim::LogLines(), Lines{"IPC: Connect requested"});
  EXPECT_EQ(gOperations.calls, Lines{});
}

TEST(Connect, LogsBeforeItWrites) {
  sim::Machine machine;
  WireRecordedOperations();
  std::string atTheLine;
  sim::Before("WriteFile", [&atTheLine] { atTheLine = State(); });
  EXPECT_EQ(Call("Connect"), kTrue);
  EXPECT_EQ(atTheLine, "desired=0 epoch=0 status=0 up=false");
}

TEST(Connect, TwiceInARowIsOneStepAndOneLine) {
  sim::Machine machine;
  WireRecordedOperations();
  EXPECT_EQ(Call("Connect"), kTrue);
  EXPECT_EQ(Call("Connect"), kTrue);
  EXPECT_EQ(State(), "desired=1 epoch=1 status=1 up=false");
  EXPECT_EQ(sim::LogLines(), Lines{"IPC: Connect requested"});
}

TEST(Connect, IsANoOpOnlyWhileConnectingOrConnectedWithDesired1) {
  for (int32_t status = 0; status <= 3; ++status) {
    for (int32_t desired = 0; desired <= 1; ++desired) {
      SCOPED_TRACE("status " + std::to_string(status) + " desired " + std::to_string(desired));
      sim::Machine machine;
      WireRecordedOperations();
      SetState(desired, 5, status, status == 2);
      const std::string before = State();
      const std::string up = status == 2 ? "true" : "false";
      EXPECT_EQ(Call("Connect"), kTrue);
      const bool noOp = desired == 1 && (status == 1 || status == 2);
      EXPECT_EQ(State(), noOp ? before : "desired=1 epoch=6 status=1 up=" + up);
      EXPECT_EQ(sim::LogLines(), noOp ? Lines{} : Lines{"IPC: Connect requested"});
    }
  }
}

// ---- Disconnect ----

TEST(Disconnect, WhenIdleTouchesNothing) {
  sim::Machine machine;
  WireRecordedOperations();
  EXPECT_EQ(Call("Disconnect"), kTrue);
  EXPECT_EQ(State(), "desired=0 epoch=0 status=0 up=false");
  EXPECT_EQ(gOperations.calls, Lines{});
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(Disconnect, GoesThroughUnlessBothAre0) {
  for (int32_t status = 0; status <= 3; ++status) {
    for (int32_t desired = 0; desired <= 1; ++desired) {
      if (status == 0 && desired == 0) continue;
      SCOPED_TRACE("status " + std::to_string(status) + " desired " + std::to_string(desired));
      sim::Machine machine;
      WireRecordedOperations();
      SetState(desired, 5, status, true);
      EXPECT_EQ(Call("Disconnect"), kTrue);
      const std::string written = "desired=0 epoch=6 status=0 up=false";
      EXPECT_EQ(State(), written);
      EXPECT_EQ(gOperations.calls,
                (Lines{At("UninstallTunnelService telvor", written), At("RollbackToOpen", written)}));
      EXPECT_EQ(sim::LogLines(), Lines{"IPC: Disconnect requested"});
    }
  }
}

// ---- StopService ----

TEST(StopService, OpensTheFirewallAndThenStopsTheServiceWithoutAGuard) {
  sim::Machine machine;
  WireRecordedOperations();
  std::string reply;
  EXPECT_TRUE(HandleIpcRequest(R"({"id":7,"method":"StopService"})", reply));
  EXPECT_EQ(reply, kTrue);
  const std::string written = "desired=0 epoch=1 status=0 up=false";
  EXPECT_EQ(gOperations.calls, (Lines{At("RollbackToOpen", written), At("StopOwnService", written)}));
  EXPECT_EQ(sim::LogLines(), Lines{"IPC: StopService requested"});
}

TEST(StopService, WritesTheWholeIntentWhileConnected) {
  sim::Machine machine;
  WireRecordedOperations();
  SetState(1, 5, 2, true);
  EXPECT_EQ(Call("StopService"), kTrue);
  EXPECT_EQ(State(), "desired=0 epoch=6 status=0 up=false");
}

TEST(StopService, RepliesFalseWhenTheServiceDoesNotStopInTime) {
  sim::Machine machine;
  WireRecordedOperations();
  gOperations.stopOwnService = false;
  std::string reply;
  EXPECT_FALSE(HandleIpcRequest(R"({"id":7,"method":"StopService"})", reply));
  EXPECT_EQ(reply, ResultText("false"));
}

// ---- Select-location ----

TEST(SelectLocation, NeedsAServerId) {
  for (const std::string fields : {"", R"(,"server_id":"")", R"(,"server_id":5)", R"(,"server_id":null)"}) {
    SCOPED_TRACE(fields);
    sim::Machine machine;
    WireRecordedOperations();
    gSelectedServerId = "srv-a";
    gSelectedServerValid = true;
    std::string reply;
    EXPECT_FALSE(HandleIpcRequest(R"({"id":7,"method":"POST /ui/select-location")" + fields + "}", reply));
    EXPECT_EQ(reply, ErrorText("missing server_id"));
    EXPECT_EQ(gSelectedServerId, "srv-a");
    EXPECT_TRUE(gSelectedServerValid);
    EXPECT_EQ(gOperations.calls, Lines{});
  }
}

TEST(SelectLocation, StoresAnyIdAndRunsTheBootstrapWithTheLockFree) {
  sim::Machine machine;
  WireRecordedOperations();
  gSelectedServerValid = true;
  gWorkerOperations.Bootstrap = [] {
    const std::lock_guard lock(gUiLock);
    Note("Bootstrap for " + gSelectedServerId + (gSelectedServerValid ? " valid" : " not valid"));
    return true;
  };
  std::string reply;
  EXPECT_TRUE(HandleIpcRequest(
      R"({"id":7,"method":"POST /ui/select-location","params":{"server_id":"no-such-server"}})", reply));
  EXPECT_EQ(reply, kTrue);
  EXPECT_EQ(gOperations.calls,
            Lines{At("Bootstrap for no-such-server not valid", "desired=0 epoch=0 status=0 up=false")});
  EXPECT_EQ(State(), "desired=0 epoch=0 status=0 up=false");
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(SelectLocation, TakesAWantedTunnelDownAfterTheBootstrap) {
  const struct { int32_t desired, status; } rows[] = {{1, 2}, {1, 1}, {1, 3}, {1, 0}, {0, 2}, {0, 3}};
  for (const auto& row : rows) {
    SCOPED_TRACE("status " + std::to_string(row.status) + " desired " + std::to_string(row.desired));
    sim::Machine machine;
    WireRecordedOperations();
    SetState(row.desired, 5, row.status, true);
    const std::string before = State();
    EXPECT_EQ(SelectLocation(R"(,"server_id":"srv-b")"), kTrue);
    const std::string written = "desired=0 epoch=6 status=0 up=false";
    EXPECT_EQ(gOperations.calls, (Lines{At("Bootstrap", before), At("UninstallTunnelService telvor", written),
                                        At("RollbackToOpen", written)}));
    EXPECT_EQ(State(), written);
    EXPECT_EQ(sim::LogLines(), Lines{kForcedDisconnect});
  }
}

TEST(SelectLocation, HidesAFailedBootstrapFromTheClient) {
  sim::Machine machine;
  WireRecordedOperations();
  gOperations.bootstrap = false;
  EXPECT_EQ(SelectLocation(R"(,"server_id":"srv-b")"), kTrue);
  EXPECT_EQ(sim::LogLines(), Lines{kNoBootstrap});
  EXPECT_EQ(State(), "desired=0 epoch=0 status=0 up=false");
  EXPECT_EQ(gSelectedServerId, "srv-b");
}

TEST(SelectLocation, DisconnectsAWantedTunnelAfterAFailedBootstrapToo) {
  sim::Machine machine;
  WireRecordedOperations();
  gOperations.bootstrap = false;
  SetState(1, 5, 2, true);
  EXPECT_EQ(SelectLocation(R"(,"server_id":"srv-b")"), kTrue);
  const std::string written = "desired=0 epoch=6 status=0 up=false";
  EXPECT_EQ(gOperations.calls,
            (Lines{At("Bootstrap", "desired=1 epoch=5 status=2 up=true"),
                   At("UninstallTunnelService telvor", written), At("RollbackToOpen", written)}));
  EXPECT_EQ(sim::LogLines(), (Lines{kNoBootstrap, kForcedDisconnect}));
}

TEST(SelectLocation, LeavesDesiredAndEpochToTheSecondStepOfAFailure) {
  sim::Machine machine;
  WireRecordedOperations();
  gOperations.bootstrap = false;
  SetState(0, 5, 2, true);
  EXPECT_EQ(SelectLocation(R"(,"server_id":"srv-b")"), kTrue);
  // The failure has set the status to 0, so nothing is left to disconnect.
  EXPECT_EQ(State(), "desired=0 epoch=5 status=0 up=false");
  EXPECT_EQ(gOperations.calls, Lines{At("Bootstrap", "desired=0 epoch=5 status=2 up=true")});
  EXPECT_EQ(sim::LogLines(), Lines{kNoBootstrap});
}

}  // namespace
