// locations and select.
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::platform::kErrorOperationAborted;

const std::string kLocations = R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/locations"})";
const std::string kNone = R"({"servers":[],"selected_server_id":null})";

std::string Server(const std::string& id, const std::string& city, const std::string& country, bool online) {
  return R"({"id":")" + id + R"(","name":")" + id + R"( name","country":")" + country + R"(","city":")" +
         city + R"(","lat":1.000000,"lon":2.000000,"online":)" + (online ? "true" : "false") +
         R"(,"last_seen_at":)" + (online ? R"("2026-01-02T03:04:05Z")" : "null") + "}";
}

const std::string kThree = R"({"servers":[)" + Server("fr-par-1", "Paris", "FR", true) + "," +
                           Server("jp-tyo-1", "Tokyo", "JP", false) + "," +
                           Server("us-par-1", "Paris", "US", true) + R"(],"selected_server_id":"jp-tyo-1"})";

std::string Select(const std::string& id) {
  return R"({"jsonrpc":"2.0","id":1,"method":"POST /ui/select-location","params":{"server_id":")" + id +
         R"("}})";
}

std::string Selected(const std::string& id, const std::string& lastError = "null") {
  return R"({"auth_state":"AUTH_OK","last_error":)" + lastError + R"(,"selected_server_id":")" + id + R"("})";
}

TEST_F(Telvorctl, LocationsAreATable) {
  Result(kLocations, kThree);
  EXPECT_EQ(Run({"locations"}), 0);
  EXPECT_EQ(gScript.output,
            "   ID        CITY   COUNTRY  NAME           ONLINE  LAST SEEN\n"
            "   fr-par-1  Paris  FR       fr-par-1 name  yes     2026-01-02T03:04:05Z\n"
            "*  jp-tyo-1  Tokyo  JP       jp-tyo-1 name  no\n"
            "   us-par-1  Paris  US       us-par-1 name  yes     2026-01-02T03:04:05Z\n");
}

TEST_F(Telvorctl, LocationsThatAreAllOfflineHaveAHint) {
  const std::string offline = R"({"servers":[)" + Server("fr-par-1", "Paris", "FR", false) + "," +
                              Server("jp-tyo-1", "Tokyo", "JP", false) + R"(],"selected_server_id":null})";
  Result(kLocations, offline);
  EXPECT_EQ(Run({"locations"}), 0);
  EXPECT_EQ(
      gScript.errors,
      "telvorctl: all locations are shown offline: the control plane may not have been reached, or this "
      "computer's clock is wrong\n");
  EXPECT_NE(gScript.output.find("fr-par-1"), std::string::npos);
  gScript.errors.clear();
  Result(kLocations, offline);
  EXPECT_EQ(Run({"locations", "--json"}), 0);
  Result(kLocations, kThree);  // one is offline
  EXPECT_EQ(Run({"locations"}), 0);
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(Telvorctl, LocationsForScripts) {
  Result(kLocations, R"({"servers":[{"id":"a","lat":52.37}],"selected_server_id":null})");
  EXPECT_EQ(Run({"locations", "--json"}), 0);
  EXPECT_EQ(gScript.output, "{\"servers\":[{\"id\":\"a\",\"lat\":52.37}],\"selected_server_id\":null}\n");
}

// The service has not looked at its session yet and shows nothing; the status makes it look.
TEST_F(Telvorctl, LocationsRightAfterTheServicesStart) {
  Result(kLocations, kNone);
  Result(kGetStatus, Status("DISCONNECTED"));
  Result(kLocations, kThree);
  EXPECT_EQ(Run({"locations"}), 0);
  EXPECT_NE(gScript.output.find("fr-par-1"), std::string::npos);
}

TEST_F(Telvorctl, LocationsNeedALogin) {
  Result(kLocations, kNone);
  Result(kGetStatus, Status("DISCONNECTED", "AUTH_REQUIRED", "no session: C:\\\\x"));
  EXPECT_EQ(Run({"locations"}), 6);
  EXPECT_EQ(gScript.errors, "telvorctl: no session: C:\\x (nobody is logged in; see telvorctl login)\n");
  EXPECT_EQ(gScript.output, "");
}

TEST_F(Telvorctl, ThereMayBeNoLocations) {
  Result(kLocations, kNone);
  Result(kGetStatus, Status("DISCONNECTED"));
  Result(kLocations, kNone);
  EXPECT_EQ(Run({"locations"}), 0);
  EXPECT_EQ(gScript.output,
            "No locations: the control plane has none, or was not reached; see telvorctl logs.\n");
}

TEST_F(Telvorctl, SelectById) {
  Result(kLocations, kThree);
  TunnelIs("disconnected");
  Result(Select("us-par-1"), "true");
  Result(kGetStatus, Selected("us-par-1"));
  EXPECT_EQ(Run({"select", "us-par-1"}), 0);
  EXPECT_EQ(gScript.output, "Selected Paris, US (us-par-1). Go on with: telvorctl connect\n");
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(Telvorctl, SelectTellsOfATunnelThatWasUp) {
  Result(kLocations, kThree);
  TunnelIs("connected");
  Result(Select("us-par-1"), "true");
  Result(kGetStatus, Selected("us-par-1"));
  EXPECT_EQ(Run({"select", "us-par-1"}), 0);
  EXPECT_EQ(gScript.output,
            "Selected Paris, US (us-par-1). The tunnel is taken down; go on with: telvorctl connect\n");
}

TEST_F(Telvorctl, SelectAsksNothingMoreAfterCtrlC) {
  Result(kLocations, kThree);
  Broken(kGetState, kErrorOperationAborted, "");
  EXPECT_EQ(Run({"select", "us-par-1"}), 130);
}

// The service takes it; what it gets for it is the control plane's matter.
TEST_F(Telvorctl, SelectWarnsOfALocationThatIsOffline) {
  Result(kLocations, kThree);
  TunnelIs("disconnected");
  Result(Select("jp-tyo-1"), "true");
  Result(kGetStatus, Selected("jp-tyo-1"));
  EXPECT_EQ(Run({"select", "jp-tyo-1"}), 0);
  EXPECT_EQ(gScript.output, "Selected Tokyo, JP (jp-tyo-1). Go on with: telvorctl connect\n");
  EXPECT_EQ(gScript.errors,
            "telvorctl: jp-tyo-1 is offline; the control plane may keep the server of before\n");
}

TEST_F(Telvorctl, SelectByACityThatOneServerHas) {
  Result(kLocations, kThree);
  TunnelIs("disconnected");
  Result(Select("jp-tyo-1"), "true");
  Result(kGetStatus, Selected("jp-tyo-1", R"("HANDSHAKE_TIMEOUT")"));
  EXPECT_EQ(Run({"select", "tokyo", "--json"}), 0);
  EXPECT_EQ(gScript.output, "true\n");
  EXPECT_EQ(
      gScript.errors,
      "telvorctl: jp-tyo-1 is offline; the control plane may keep the server of before\n"
      "telvorctl: the service reports: HANDSHAKE_TIMEOUT (the VPN server does not answer; see telvorctl "
      "locations for another)\n");
}

TEST_F(Telvorctl, SelectByName) {
  Result(kLocations, kThree);
  TunnelIs("disconnected");
  Result(Select("fr-par-1"), "true");
  Result(kGetStatus, Selected("fr-par-1"));
  EXPECT_EQ(Run({"select", "FR-par-1 NAME"}), 0);
}

TEST_F(Telvorctl, SelectDoesNotGuess) {
  Result(kLocations, kThree);
  EXPECT_EQ(Run({"select", "Paris"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: Paris is the name of more than one; say which: fr-par-1, us-par-1\n");
  gScript.errors.clear();
  Result(kLocations, kThree);
  EXPECT_EQ(Run({"select", "Rome"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: there is no location Rome; see telvorctl locations\n");
}

TEST_F(Telvorctl, SelectWithoutACatalogueTakesTheIdAsItIs) {
  Result(kLocations, kNone);
  Result(kGetStatus, Status("DISCONNECTED"));
  Result(kLocations, kNone);
  TunnelIs("disconnected");
  Result(Select("xx-1"), "true");
  Result(kGetStatus, Selected("xx-1"));
  EXPECT_EQ(Run({"select", "xx-1"}), 0);
}

TEST_F(Telvorctl, SelectNeedsALogin) {
  Result(kLocations, kNone);
  Result(kGetStatus, Status("DISCONNECTED", "AUTH_REQUIRED", "AUTH_REQUIRED"));
  EXPECT_EQ(Run({"select", "fr-par-1"}), 6);
}

TEST_F(Telvorctl, SelectLooksAtWhatTheServiceHasSelected) {
  Result(kLocations, kThree);
  TunnelIs("disconnected");
  Result(Select("us-par-1"), "true");
  Result(kGetStatus, Selected("fr-par-1"));
  EXPECT_EQ(Run({"select", "us-par-1"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: the service has selected fr-par-1 instead; see telvorctl logs\n");
}

TEST_F(Telvorctl, SelectIsRefused) {
  Result(kLocations, kThree);
  TunnelIs("disconnected");
  Refusal(Select("us-par-1"), "missing server_id");
  EXPECT_EQ(Run({"select", "us-par-1"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: missing server_id\n");
}

}  // namespace
