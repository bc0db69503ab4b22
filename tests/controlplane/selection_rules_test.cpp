// Which server is asked for when the user has picked none: the bootstrap and the view of the locations differ
// here, and that is wanted.
#include "controlplane/catalogue.h"
#include "controlplane_fixture.h"
#include "engine/bootstrap.h"
#include "ipc/views.h"

namespace {

sim::ControlPlane& LogIn(const std::string& servers) {
  sim::ControlPlane& plane = sim::UseControlPlane();
  plane.locationsBody = "{\"servers\":[" + servers + "]}";
  plane.profileBody =
      R"({"client_address":"10.8.0.2/32","servers":[{"endpoint":"e:1","server_public_key":"k"}]})";
  StoreSession(plane.accessToken, 3000);
  gCachedAccessToken = sim::Widen(plane.accessToken);
  return plane;
}

std::string Server(const std::string& id, bool online) {
  return "{\"server_id\":\"" + id + "\",\"online\":" + (online ? "true" : "false") + "}";
}

Lines CatalogueIds() {
  Lines ids;
  for (const ServerRecord& server : gUiServers) ids.push_back(server.id);
  return ids;
}

// The bodies of the requests that choose a server.
Lines Selections() {
  Lines bodies;
  for (const sim::HttpRequest& request : sim::HttpRequests()) {
    if (request.path8.find("/wg-server") != std::string::npos) bodies.push_back(request.body);
  }
  return bodies;
}

void RemoveCatalogue(sim::ControlPlane& plane) {
  plane.overrides.emplace_back("/v1/servers/locations", Answer(500));
}

TEST(BootstrapsChoice, TakesTheFirstServerThatIsOnlineWithoutSelectingIt) {
  sim::Machine machine;
  LogIn(Server("off", false) + "," + Server("on", true) + "," + Server("also", true));
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Selections(), Lines({R"({"wg_server_id":"on"})"}));
  EXPECT_EQ(gSelectedServerId, "");
  EXPECT_EQ(CatalogueIds(), Lines({"off", "on", "also"}));
}

TEST(BootstrapsChoice, SendsTheSelectionAsItStands) {
  for (const char* id : {"off", "not listed"}) {
    sim::Machine machine;
    LogIn(Server("off", false) + "," + Server("on", true));
    gSelectedServerId = id;
    EXPECT_TRUE(Bootstrap());
    EXPECT_EQ(Selections(), Lines({"{\"wg_server_id\":\"" + std::string(id) + "\"}"}));
    EXPECT_EQ(gSelectedServerId, id);
  }
}

TEST(BootstrapsChoice, AsksForNoServerIfNoneIsOnline) {
  for (const std::string& servers : {std::string(), Server("off", false)}) {
    sim::Machine machine;
    LogIn(servers);
    EXPECT_TRUE(Bootstrap());
    EXPECT_EQ(Selections(), Lines());
    EXPECT_TRUE(
        sim::LogHas("Bootstrap: no desired server_id (no user selection and no online servers cached)."));
  }
}

TEST(BootstrapsChoice, AnEmptyCatalogueReplacesTheListAndKeepsTheSelection) {
  sim::Machine machine;
  LogIn("");
  gUiServers = std::vector<ServerRecord>(2);
  gSelectedServerId = "kept";
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(gUiServers.size(), 0U);
  EXPECT_EQ(gSelectedServerId, "kept");
}

TEST(BootstrapsChoice, AFailedFetchLeavesTheCachedList) {
  sim::Machine machine;
  RemoveCatalogue(LogIn(""));
  gUiServers = std::vector<ServerRecord>(1);
  gUiServers[0].id = "cached";
  gUiServers[0].online = true;
  EXPECT_TRUE(Bootstrap());
  EXPECT_TRUE(sim::LogHas("Bootstrap: CpGetServerLocations failed (non-fatal)."));
  EXPECT_EQ(CatalogueIds(), Lines({"cached"}));
  EXPECT_EQ(Selections(), Lines({R"({"wg_server_id":"cached"})"}));
}

TEST(LocationsViewsChoice, SelectsTheFirstServerEvenIfItIsOffline) {
  sim::Machine machine;
  LogIn(Server("off", false) + "," + Server("on", true));
  gSelectedServerValid = true;
  BuildLocationsJson();
  EXPECT_EQ(CatalogueIds(), Lines({"off", "on"}));
  EXPECT_EQ(gSelectedServerId, "off");
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_TRUE(sim::LogHas("[UI] Default-selected server_id=off"));
}

TEST(LocationsViewsChoice, ResetsASelectionThatIsNotListed) {
  sim::Machine machine;
  LogIn(Server("off", false) + "," + Server("on", true));
  gSelectedServerId = "gone";
  gSelectedServerValid = true;
  BuildLocationsJson();
  EXPECT_EQ(gSelectedServerId, "off");
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_TRUE(sim::LogHas("[UI] Selected server missing; reset to server_id=off"));
}

TEST(LocationsViewsChoice, KeepsASelectionThatIsListed) {
  sim::Machine machine;
  LogIn(Server("off", false) + "," + Server("on", true));
  gSelectedServerId = "on";
  gSelectedServerValid = true;
  BuildLocationsJson();
  EXPECT_EQ(gSelectedServerId, "on");
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(sim::LogCount("[UI] "), 0U);
}

TEST(LocationsViewsChoice, AnEmptyCatalogueReplacesTheListAndKeepsTheSelection) {
  for (const char* id : {"", "kept"}) {
    sim::Machine machine;
    LogIn("");
    gUiServers = std::vector<ServerRecord>(2);
    gSelectedServerId = id;
    BuildLocationsJson();
    EXPECT_EQ(gUiServers.size(), 0U);
    EXPECT_EQ(gSelectedServerId, id);
    EXPECT_EQ(sim::LogCount("[UI] "), 0U);
  }
}

TEST(LocationsViewsChoice, AFailedFetchLeavesListAndSelection) {
  sim::Machine machine;
  RemoveCatalogue(LogIn(""));
  gUiServers = std::vector<ServerRecord>(1);
  gUiServers[0].id = "cached";
  gSelectedServerId = "gone";
  BuildLocationsJson();
  EXPECT_EQ(CatalogueIds(), Lines({"cached"}));
  EXPECT_EQ(gSelectedServerId, "gone");
}

}  // namespace
