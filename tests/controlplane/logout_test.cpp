// Logout: what it clears, in which order, and under which locks.
#include <system_error>

#include "controlplane/session.h"
#include "controlplane_fixture.h"
#include "engine/operations.h"
#include "engine/tunnel_state.h"

namespace {

int gRollbacks = 0;

// What a process that is logged in and connected knows.
void LogInAndConnect() {
  gRollbacks = 0;
  gWorkerOperations = EmptyWorkerOperations();
  gWorkerOperations.RollbackToOpen = [] {
    ++gRollbacks;
    return true;
  };
  StoreSession("access-1", 1000);
  sim::PutFile(kLegacyTokenFile, "old token");
  gCachedAccessToken = L"access-1";
  ServerRecord server;
  server.id = "srv-a";
  server.name = server.country = server.city = server.public_egress_ip = server.last_seen_at = "text";
  server.latitude = server.longitude = 1.5;
  server.online = true;
  gUiServers = {server};
  gSelectedServerId = "srv-a";
  gSelectedServer = server;
  gSelectedServerValid = true;
  gTunnelDesired = kDesiredConnected;
  gTunnelEpoch = 7;
  gTunnelStatus = kStatusConnected;
  gTunnelUp = true;
  gLastError = L"HANDSHAKE_TIMEOUT";
}

void ExpectNothingSelected() {
  EXPECT_EQ(gUiServers.size(), 0U);
  EXPECT_EQ(gSelectedServerId, "");
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_EQ(gSelectedServer.id, "");
  EXPECT_EQ(gSelectedServer.name, "");
  EXPECT_EQ(gSelectedServer.country, "");
  EXPECT_EQ(gSelectedServer.city, "");
  EXPECT_EQ(gSelectedServer.latitude, 0.0);
  EXPECT_EQ(gSelectedServer.longitude, 0.0);
  EXPECT_EQ(gSelectedServer.public_egress_ip, "");
  EXPECT_FALSE(gSelectedServer.online);
  EXPECT_EQ(gSelectedServer.last_seen_at, "");
}

void ExpectLoggedOut() {
  EXPECT_EQ(gCachedAccessToken, L"");
  ExpectNothingSelected();
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
  EXPECT_EQ(gTunnelDesired, kDesiredDisconnected);
  EXPECT_EQ(gTunnelStatus, kStatusDisconnected);
  EXPECT_FALSE(gTunnelUp);
}

TEST(Logout, ForgetsEverythingAboutTheSession) {
  sim::Machine machine;
  LogInAndConnect();
  Logout();
  ExpectLoggedOut();
  EXPECT_EQ(gTunnelEpoch, 8U);
  EXPECT_EQ(gRollbacks, 1);
  EXPECT_FALSE(sim::FileExists(kSessionFile));
  EXPECT_FALSE(sim::FileExists(kLegacyTokenFile));
  SessionRecord session;
  EXPECT_FALSE(LoadSession(session));
  EXPECT_EQ(sim::HttpRequests().size(), 0U);
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(Logout, RunsAllStepsWithoutASession) {
  sim::Machine machine;
  gRollbacks = 0;
  gWorkerOperations = EmptyWorkerOperations();
  gWorkerOperations.RollbackToOpen = [] {
    ++gRollbacks;
    return false;
  };
  Logout();
  ExpectLoggedOut();
  EXPECT_EQ(gTunnelEpoch, 1U);
  EXPECT_EQ(gRollbacks, 1);
  EXPECT_EQ(sim::CountCalls("DeleteFileW"), 2U);
}

TEST(Logout, KeepsDeviceIdAndKeys) {
  sim::Machine machine;
  LogInAndConnect();
  sim::PutFile(kDeviceIdFile, "id\r\n");
  sim::PutFile(kPrivateKeyFile, "private\r\n");
  sim::PutFile(kPublicKeyFile, "public\r\n");
  Logout();
  EXPECT_TRUE(sim::FileExists(kDeviceIdFile));
  EXPECT_TRUE(sim::FileExists(kPrivateKeyFile));
  EXPECT_TRUE(sim::FileExists(kPublicKeyFile));
}

TEST(Logout, EmptiesTheCacheBeforeItDeletesTheFiles) {
  sim::Machine machine;
  LogInAndConnect();
  sim::Before("DeleteFileW", [] {
    EXPECT_EQ(gCachedAccessToken, L"");
    EXPECT_EQ(gSelectedServerId, "srv-a");
    EXPECT_FALSE(gAuthRequired);
    EXPECT_EQ(gTunnelDesired, kDesiredConnected);
  });
  Logout();
  Lines deleted;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == "DeleteFileW") deleted.push_back(entry.arguments);
  }
  ASSERT_EQ(deleted.size(), 2U);
  EXPECT_NE(deleted[0].find("session.dat"), std::string::npos);
  EXPECT_NE(deleted[1].find("token.txt"), std::string::npos);
}

TEST(Logout, GoesOnWhenAFileCannotBeDeleted) {
  sim::Machine machine;
  LogInAndConnect();
  sim::Fail({.operation = "DeleteFileW", .code = 5, .times = 2});
  Logout();
  ExpectLoggedOut();
  EXPECT_EQ(gRollbacks, 1);
}

TEST(Logout, OpensTheFirewallLast) {
  sim::Machine machine;
  LogInAndConnect();
  gWorkerOperations.RollbackToOpen = [] {
    ++gRollbacks;
    ExpectLoggedOut();
    EXPECT_EQ(gTunnelEpoch, 8U);
    EXPECT_EQ(sim::CountCalls("DeleteFileW"), 2U);
    return true;
  };
  Logout();
  EXPECT_EQ(gRollbacks, 1);
}

TEST(Logout, HoldsNoLockAcrossTheFilesOrTheFirewall) {
  sim::Machine machine;
  LogInAndConnect();
  const auto looks = LookForLocksBefore({"DeleteFileW", "DeleteFileW"});
  gWorkerOperations.RollbackToOpen = [] {
    TakeEveryLock();
    ++gRollbacks;
    return true;
  };
  Logout();
  EXPECT_EQ(*looks, 2U);
  EXPECT_EQ(gRollbacks, 1);
}

TEST(Logout, StopsAtTheStepWhoseLockFails) {
  sim::Machine machine;
  LogInAndConnect();
  sim::FailLock(gSessionMutex);
  EXPECT_THROW(Logout(), std::system_error);
  EXPECT_TRUE(sim::FileExists(kSessionFile));

  sim::FailLock(gUiLock);
  EXPECT_THROW(Logout(), std::system_error);
  EXPECT_EQ(gCachedAccessToken, L"");
  EXPECT_FALSE(sim::FileExists(kSessionFile));
  EXPECT_EQ(gSelectedServerId, "srv-a");
  EXPECT_FALSE(gAuthRequired);

  sim::FailLock(gLastErrorMutex);
  EXPECT_THROW(Logout(), std::system_error);
  ExpectNothingSelected();
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
  EXPECT_EQ(gTunnelDesired, kDesiredConnected);
  EXPECT_EQ(gTunnelEpoch, 7U);
  EXPECT_EQ(gRollbacks, 0);
}

}  // namespace
