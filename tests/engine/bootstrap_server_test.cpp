// Bootstrap's catalogue and the server that it asks for.
#include "tests/engine/bootstrap_fixture.h"

namespace {

constexpr char kCatalogueFailed[] = "Bootstrap: CpGetServerLocations failed (non-fatal).";
constexpr char kNoServer[] =
    "Bootstrap: no desired server_id (no user selection and no online servers cached).";
constexpr char kSelectFailed[] =
    "Bootstrap: CpSelectServer failed (non-fatal); may fall back to prior assignment.";

// A profile without an assignment, which leaves the selection alone.
constexpr char kPlainProfile[] = R"({"client_address":"10.8.0.2/32","servers":[)"
                                 R"({"endpoint":"192.0.2.10:51820","server_public_key":"KEYA="}]})";

ServerRecord Server(const std::string& id, bool online) {
  ServerRecord server;
  server.id = id;
  server.online = online;
  return server;
}

void Select(const std::string& id) {
  const std::lock_guard lock(gUiLock);
  gSelectedServerId = id;
}

Lines Catalogue() {
  const std::lock_guard lock(gUiLock);
  Lines ids;
  for (const ServerRecord& server : gUiServers) ids.push_back(server.id);
  return ids;
}

std::string Locations(const std::string& servers) {
  return "{\"servers\":[" + servers + "]}";
}

TEST(BootstrapCatalogue, ReplacesTheListAndLeavesTheSelection) {
  BootstrapRun run;
  run.GiveProfile(kPlainProfile);
  gUiServers = {Server("old", true)};
  gSelectedServerValid = true;
  gSelectedServer = Server("old", true);
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Catalogue(), (Lines{"srv-a", "srv-b"}));
  EXPECT_EQ(SelectedServer(), "");
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(gSelectedServer.id, "old");
}

TEST(BootstrapCatalogue, MayBeEmpty) {
  BootstrapRun run;
  run.AnswerTo(kLocations, {Answer(200, Locations(""))});
  gUiServers = {Server("old", true)};
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Catalogue(), Lines{});
  EXPECT_TRUE(sim::LogHas(kNoServer));
}

TEST(BootstrapCatalogue, AFailureKeepsTheListAndGoesOn) {
  for (const sim::HttpResponse& answer : {Answer(500), Answer(200, "{}"), Answer(401), NoAnswer()}) {
    BootstrapRun run;
    run.AnswerTo(kLocations, {answer});
    gUiServers = {Server("old", true)};
    EXPECT_TRUE(Bootstrap());
    EXPECT_EQ(Catalogue(), Lines{"old"});
    EXPECT_TRUE(sim::LogHas(kCatalogueFailed));
    EXPECT_EQ(SentBody(kSelect), R"({"wg_server_id":"old"})");
  }
}

TEST(BootstrapServer, IsTheUsersEvenWhenOffline) {
  BootstrapRun run;
  run.AnswerTo(kLocations, {Answer(200, Locations(R"({"server_id":"srv-a","online":true},)"
                                                  R"({"server_id":"srv-b","online":false})"))});
  Select("srv-b");
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SentBody(kSelect), R"({"wg_server_id":"srv-b"})");
  EXPECT_TRUE(sim::LogHas("Bootstrap: selecting server_id=srv-b (persisting to CP)"));
}

TEST(BootstrapServer, IsTheUsersEvenWhenUnknown) {
  BootstrapRun run;
  Select("no-such-server");
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SentBody(kSelect), R"({"wg_server_id":"no-such-server"})");
  EXPECT_EQ(SelectedServer(), "no-such-server");
}

TEST(BootstrapServer, IsTheFirstThatIsOnlineWithoutASelection) {
  BootstrapRun run;
  run.GiveProfile(kPlainProfile);
  run.AnswerTo(kLocations, {Answer(200, Locations(R"({"server_id":"srv-c","online":false},)"
                                                  R"({"server_id":"srv-b","online":true},)"
                                                  R"({"server_id":"srv-a","online":true})"))});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SentBody(kSelect), R"({"wg_server_id":"srv-b"})");
  EXPECT_EQ(SelectedServer(), "");
}

TEST(BootstrapServer, IsNeverOneWithoutAnId) {
  BootstrapRun run;
  run.AnswerTo(kLocations, {NoAnswer()});
  gUiServers = {Server("", true), Server("srv-b", true)};
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SentBody(kSelect), R"({"wg_server_id":"srv-b"})");
}

TEST(BootstrapServer, NoneToAskForIsNoFailure) {
  BootstrapRun run;
  run.AnswerTo(kLocations, {Answer(200, Locations(R"({"server_id":"srv-a","online":false})"))});
  EXPECT_TRUE(Bootstrap());
  EXPECT_TRUE(sim::LogHas(kNoServer));
  EXPECT_EQ(Sent(), (Lines{kLocations, kRegister, kUploadKey, kProfile}));
  EXPECT_EQ(sim::LogCount("Bootstrap: selecting"), 0u);
  EXPECT_EQ(SelectedServer(), "srv-a");
}

TEST(BootstrapServer, ARefusedSelectionIsNoFailure) {
  BootstrapRun run;
  run.AnswerTo(kSelect, {Answer(404)});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Sent(), (Lines{kLocations, kRegister, kUploadKey, kSelect, kSelectSecondShape, kSelectThirdShape,
                           kProfile}));
  EXPECT_TRUE(sim::LogHas(kSelectFailed));
  EXPECT_EQ(Config(), kFullConfig);
}

TEST(BootstrapServer, ASelectionThatIsTakenLogsNoFailure) {
  BootstrapRun run;
  run.AnswerTo(kSelect, {Answer(404)});
  run.AnswerTo(kSelectSecondShape, {Answer(204)});
  EXPECT_TRUE(Bootstrap());
  EXPECT_FALSE(sim::LogHas(kSelectFailed));
}

// ---- What the profile assigns ----

TEST(BootstrapAssignment, BecomesTheSelectionIfThereIsNone) {
  BootstrapRun run;
  run.AnswerTo(kLocations, {NoAnswer()});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SelectedServer(), "srv-a");
  EXPECT_FALSE(gSelectedServerValid);
}

TEST(BootstrapAssignment, OfAWholeServerIsStored) {
  BootstrapRun run;
  run.GiveProfile(
      R"({"client_address":"10.8.0.2/32","assigned_server":{"server_id":"srv-b","city":"Paris"},)"
      R"("servers":[{"server_id":"srv-b","endpoint":"192.0.2.20:1","server_public_key":"KEYB="}]})");
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SelectedServer(), "srv-b");
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(gSelectedServer.city, "Paris");
  EXPECT_TRUE(sim::LogHas("[UI] Selected server stored in memory: id=srv-b valid=true"));
}

TEST(BootstrapAssignment, YieldsToTheUsersChoice) {
  BootstrapRun run;
  run.GiveProfile(
      R"({"client_address":"10.8.0.2/32","assigned_server":{"server_id":"srv-b"},)"
      R"("servers":[{"server_id":"srv-b","endpoint":"192.0.2.20:1","server_public_key":"KEYB="}]})");
  Select("srv-a");
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SelectedServer(), "srv-a");
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_TRUE(
      sim::LogHas("[UI] Ignoring wg-profile assigned_server_id=srv-b because UI selected server_id=srv-a"));
}

// It is taken over before the peer is chosen, so also from a profile that ends the run.
TEST(BootstrapAssignment, IsTakenOverFromAProfileWithoutAPeer) {
  BootstrapRun run;
  run.GiveProfile(R"({"client_address":"10.8.0.2/32","assigned_server_id":"srv-b"})");
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(SelectedServer(), "srv-b");
}

}  // namespace
