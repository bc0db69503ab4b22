// ApplyAssignedServerFromProfile: what the control plane assigned against what the user picked.
#include <mutex>

#include "controlplane/catalogue.h"
#include "controlplane_fixture.h"

namespace {

constexpr char kProfile[] =
    R"({"assigned_server_id":"srv-a","assigned_server":{"server_id":"srv-a","name":"One","country":"NL",)"
    R"("city":"Ede","public_egress_ip":"203.0.113.7","latitude":52.25,"longitude":-5.5,"online":true,)"
    R"("last_seen_at":"2026-01-01T00:00:00Z"}})";
constexpr char kIgnored[] =
    "[UI] Ignoring wg-profile assigned_server_id=srv-a because UI selected server_id=srv-b";
constexpr char kStored[] = "[UI] Selected server stored in memory: id=srv-a valid=true";

void SelectB() {
  gSelectedServerId = "srv-b";
  gSelectedServer.id = "srv-b";
  gSelectedServer.name = "Two";
  gSelectedServerValid = true;
}

TEST(ApplyAssignedServerFromProfile, TakesOverTheAssignedServer) {
  sim::Machine machine;
  ApplyAssignedServerFromProfile(kProfile);
  EXPECT_EQ(gSelectedServerId, "srv-a");
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(gSelectedServer.id, "srv-a");
  EXPECT_EQ(gSelectedServer.name, "One");
  EXPECT_EQ(gSelectedServer.country, "NL");
  EXPECT_EQ(gSelectedServer.city, "Ede");
  EXPECT_EQ(gSelectedServer.latitude, 52.25);
  EXPECT_EQ(gSelectedServer.longitude, -5.5);
  EXPECT_EQ(gSelectedServer.public_egress_ip, "203.0.113.7");
  EXPECT_EQ(sim::LogLines(), Lines({kStored}));
}

// The profile's object is not searched for these two.
TEST(ApplyAssignedServerFromProfile, LeavesOnlineAndLastSeenAtTheirDefaults) {
  sim::Machine machine;
  gSelectedServer.online = true;
  gSelectedServer.last_seen_at = "stale";
  ApplyAssignedServerFromProfile(kProfile);
  EXPECT_FALSE(gSelectedServer.online);
  EXPECT_EQ(gSelectedServer.last_seen_at, "");
}

TEST(ApplyAssignedServerFromProfile, ConfirmsTheUsersSelection) {
  sim::Machine machine;
  gSelectedServerId = "srv-a";
  ApplyAssignedServerFromProfile(kProfile);
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(gSelectedServer.name, "One");
  EXPECT_EQ(sim::LogLines(), Lines({kStored}));
}

TEST(ApplyAssignedServerFromProfile, TheUsersChoiceWins) {
  sim::Machine machine;
  SelectB();
  ApplyAssignedServerFromProfile(kProfile);
  EXPECT_EQ(gSelectedServerId, "srv-b");
  EXPECT_EQ(gSelectedServer.id, "srv-b");
  EXPECT_EQ(gSelectedServer.name, "Two");
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(sim::LogLines(), Lines({kIgnored}));
}

TEST(ApplyAssignedServerFromProfile, TheUsersChoiceStaysUnconfirmed) {
  sim::Machine machine;
  gSelectedServerId = "srv-b";
  ApplyAssignedServerFromProfile(kProfile);
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_EQ(gSelectedServer.id, "");
  EXPECT_EQ(sim::LogLines(), Lines({kIgnored}));
}

TEST(ApplyAssignedServerFromProfile, TakesTheIdFromAssignedServerIdIfTheObjectHasNone) {
  for (const char* body :
       {R"({"assigned_server_id":"srv-a","assigned_server":{"name":"One"}})",
        R"({"assigned_server":{"name":"One"},"assigned_server_id":"srv-a"})",
        R"({"assigned_server_id":"srv-a","assigned_server":{"server_id":"","name":"One"}})"}) {
    SCOPED_TRACE(body);
    sim::Machine machine;
    ApplyAssignedServerFromProfile(body);
    EXPECT_EQ(gSelectedServerId, "srv-a");
    EXPECT_EQ(gSelectedServer.id, "srv-a");
    EXPECT_EQ(gSelectedServer.name, "One");
    EXPECT_TRUE(gSelectedServerValid);
    EXPECT_EQ(sim::LogLines(), Lines({kStored}));
  }
}

TEST(ApplyAssignedServerFromProfile, StopsWithoutAnyId) {
  for (const char* body :
       {R"({"assigned_server":{"name":"One"}})", R"({"assigned_server":null})", "{}", "",
        R"({"assigned_server_id":""})", R"({"assigned_server":{},"assigned_server_id":""})"}) {
    SCOPED_TRACE(body);
    sim::Machine machine;
    SelectB();
    ApplyAssignedServerFromProfile(body);
    EXPECT_EQ(gSelectedServerId, "srv-b");
    EXPECT_EQ(gSelectedServer.name, "Two");
    EXPECT_TRUE(gSelectedServerValid);
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

// The text runs to the end of the body; that is wanted.
TEST(ApplyAssignedServerFromProfile, FindsAMissingKeyFurtherOnInTheBody) {
  sim::Machine machine;
  ApplyAssignedServerFromProfile(
      R"({"city":"before","assigned_server":{"server_id":"srv-a"},"city":"behind","latitude":7})");
  EXPECT_EQ(gSelectedServer.city, "behind");
  EXPECT_EQ(gSelectedServer.latitude, 7.0);
}

TEST(ApplyAssignedServerFromProfile, TheObjectsIdWinsOverAssignedServerId) {
  sim::Machine machine;
  ApplyAssignedServerFromProfile(R"({"assigned_server_id":"other","assigned_server":{"server_id":"srv-a"}})");
  EXPECT_EQ(gSelectedServerId, "srv-a");
}

TEST(ApplyAssignedServerFromProfile, TakesTheBareIdIfNothingElseIsSelected) {
  const struct {
    const char* before;
    const char* after;
  } cases[] = {{"", "srv-a"}, {"srv-a", "srv-a"}, {"srv-b", "srv-b"}};
  for (const auto& one : cases) {
    for (const bool valid : {true, false}) {
      SCOPED_TRACE(one.before);
      sim::Machine machine;
      gSelectedServerId = one.before;
      gSelectedServerValid = valid;
      gSelectedServer.name = "before";
      ApplyAssignedServerFromProfile(R"({"assigned_server_id":"srv-a"})");
      EXPECT_EQ(gSelectedServerId, one.after);
      EXPECT_EQ(gSelectedServerValid, valid);
      EXPECT_EQ(gSelectedServer.name, "before");
      EXPECT_EQ(sim::LogLines(), Lines());
    }
  }
}

// A lock that were still held would stop this thread for good, and the machine reports that.
TEST(ApplyAssignedServerFromProfile, TellsOfTheStoredServerWithoutTheLock) {
  sim::Machine machine;
  bool looked = false;
  sim::Before("WriteFile", [&looked] {
    const std::lock_guard<platform::Mutex> lock(gUiLock);
    looked = gSelectedServerId == "srv-a" && gSelectedServerValid;
  });
  ApplyAssignedServerFromProfile(kProfile);
  EXPECT_TRUE(looked);
}

TEST(ApplyAssignedServerFromProfile, TellsOfTheIgnoredServerWithTheLockHeld) {
  for (uint64_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    sim::Machine machine({.seed = seed});
    gSelectedServerId = "srv-b";
    bool lineWasThere = false;
    sim::Before("GetEnvironmentVariableW", [&lineWasThere] {
      sim::StartThread("other", [&lineWasThere] {
        const std::lock_guard<platform::Mutex> lock(gUiLock);
        lineWasThere = sim::LogHas(kIgnored);
      });
    });
    ApplyAssignedServerFromProfile(kProfile);
    sim::Run(1);
    EXPECT_TRUE(lineWasThere);
  }
}

}  // namespace
