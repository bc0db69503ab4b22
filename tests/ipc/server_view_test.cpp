// The server and locations objects, the reading of times, and GET /ui/locations.
#include "ipc/server_view.h"

#include <gtest/gtest.h>

#include "controlplane/base_url.h"
#include "ipc/views.h"
#include "tests/ipc/ipc_fixture.h"

namespace {

using namespace ipc_test;

constexpr int64_t kNewYear = 1767225600;  // 2026-01-01 00:00:00 UTC

// ---- Times ----

TEST(ParseIso8601Utc, ReadsTimesWithAndWithoutFractionAndOffset) {
  const struct {
    std::string text;
    int64_t seconds;
  } rows[] = {{"2026-01-01T00:00:00Z", kNewYear},
              {"2026-01-01T00:00:00z", kNewYear},
              {"2026-01-01T00:00:00", kNewYear},
              {"2026-01-01 00:00:00", kNewYear},
              {" \t2026-01-01T00:00:00Z\r\n", kNewYear},
              {"2026-01-01T00:00:00Z\v\f", kNewYear},
              {"2026-01-01T00:00:00.5", kNewYear},
              {"2026-01-01T00:00:00.Z", kNewYear},
              {"2026-01-01T00:00:00.99999999999999999999Z", kNewYear},
              {"2026-01-01T00:00:00.123+02:00", kNewYear - 7200},
              {"2026-01-01T00:00:00+0530", kNewYear - 19800},
              {"2026-01-01T00:00:00+05:30", kNewYear - 19800},
              {"2026-01-01T00:00:00-01:00", kNewYear + 3600},
              {"2026-01-01T00:00:00+01:00 \v", kNewYear - 3600},
              {"1970-01-01T00:00:00Z", 0},
              {"1970-01-01T00:00:00+01:00", -3600},
              {"2024-02-29T23:59:59Z", 1709251199},
              {"2000-03-01T12:34:56Z", 951914096}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    int64_t seconds = -99;
    EXPECT_TRUE(ParseIso8601Utc(row.text, seconds));
    EXPECT_EQ(seconds, row.seconds);
  }
}

TEST(ParseIso8601Utc, NormalisesWhatIsOutOfRange) {
  const struct {
    std::string text;
    int64_t seconds;
  } rows[] = {{"2025-13-01T00:00:00Z", kNewYear},
              {"2025-12-32T00:00:00Z", kNewYear},
              {"2025-12-31T24:00:00Z", kNewYear},
              {"2025-11-45T00:00:00Z", kNewYear - 17L * 86400},
              {"2025-12-31T23:59:60Z", kNewYear}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    int64_t seconds = -99;
    EXPECT_TRUE(ParseIso8601Utc(row.text, seconds));
    EXPECT_EQ(seconds, row.seconds);
  }
}

TEST(ParseIso8601Utc, RefusesEverythingElse) {
  for (const std::string text : {"",
                                 "2026-01-01",
                                 "2026-01-01T00:00:0",
                                 "2026-01-01t00:00:00Z",
                                 "2026/01-01T00:00:00Z",
                                 "2026-01/01T00:00:00Z",
                                 "2026-01-01T00.00:00Z",
                                 "2026-01-01T00:00-00Z",
                                 "202x-01-01T00:00:00Z",
                                 "2026-1a-01T00:00:00Z",
                                 "2026-01-+1T00:00:00Z",
                                 "2026-01-01T0x:00:00Z",
                                 "2026-01-01T00: 0:00Z",
                                 "2026-01-01T00:00:0xZ",
                                 "2026-01-01T00:00:00X",
                                 "2026-01-01T00:00:00 Z",
                                 "2026-01-01T00:00:00\v",
                                 "2026-01-01T00:00:00,5Z",
                                 "2026-01-01T00:00:00ZZ",
                                 "2026-01-01T00:00:00Z x",
                                 "2026-01-01T00:00:00+05",
                                 "2026-01-01T00:00:00+05:",
                                 "2026-01-01T00:00:00+05:3",
                                 "2026-01-01T00:00:00+053",
                                 "2026-01-01T00:00:00+5:30",
                                 "2026-01-01T00:00:00+",
                                 "2026-01-01T00:00:00+05:30Z",
                                 "2026-01-01T00:00:00+05-30",
                                 "2026-01-01T00:00:00+x5:30",
                                 "2026-01-01T00:00:00+05:x0",
                                 "2026-01-01T00:00:00+05:3x",
                                 "2026-01-01T00:00:00.5.5Z",
                                 "1969-12-31T23:59:59Z",
                                 "0000-01-01T00:00:00Z"}) {
    SCOPED_TRACE(text);
    int64_t seconds = 0;
    EXPECT_FALSE(ParseIso8601Utc(text, seconds));
  }
}

// ---- Server objects ----

ServerRecord Server(const std::string& id) {
  ServerRecord server;
  server.id = id;
  return server;
}

std::string OnlineOf(const ServerRecord& server) {
  const std::string text = ServerToJson(server);
  const size_t at = text.find("\"online\":");
  return text.substr(at + 9, text.find(',', at) - at - 9);
}

TEST(ServerToJson, ShowsAllFieldsInOrderWithoutTheAddress) {
  sim::Machine machine;
  sim::SetUnixTime(kNewYear);
  const ServerRecord server = {"srv-1", "Name \"1\"", "NL",  "Amsterdam",           52.37,
                               -0.127,  "192.0.2.1",  false, "2026-01-01T00:00:00Z"};
  EXPECT_EQ(ServerToJson(server),
            R"({"id":"srv-1","name":"Name \"1\"","country":"NL","city":"Amsterdam","lat":52.370000,)"
            R"("lon":-0.127000,"online":true,"last_seen_at":"2026-01-01T00:00:00Z"})");
}

TEST(ServerToJson, ShowsEmptyTextsAsTextsAndOnlyTheTimeAsNull) {
  sim::Machine machine;
  EXPECT_EQ(ServerToJson({}), R"({"id":"","name":"","country":"","city":"","lat":0.000000,"lon":0.000000,)"
                              R"("online":false,"last_seen_at":null})");
}

TEST(ServerToJson, RoundsToSixDecimals) {
  sim::Machine machine;
  ServerRecord server;
  server.latitude = 1.23456789;
  server.longitude = -179.9999996;
  EXPECT_NE(ServerToJson(server).find(R"("lat":1.234568,"lon":-180.000000)"), std::string::npos);
}

TEST(ServerToJson, IsOnlineUpTo25SecondsAfterItWasSeen) {
  sim::Machine machine;
  ServerRecord server;
  server.last_seen_at = "2026-01-01T02:00:00.7+02:00";
  const struct {
    int64_t age;
    std::string online;
  } rows[] = {{0, "true"}, {25, "true"}, {26, "false"}, {86400, "false"}, {-1, "true"}, {-86400, "true"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.age);
    sim::SetUnixTime(kNewYear + row.age);
    // What the catalogue says does not count while the time can be read.
    for (const bool claimed : {false, true}) {
      server.online = claimed;
      EXPECT_EQ(OnlineOf(server), row.online);
    }
  }
}

TEST(ServerToJson, BelievesTheCatalogueWhenTheTimeCannotBeRead) {
  sim::Machine machine;
  sim::SetUnixTime(kNewYear);
  for (const std::string text : {"", "2026-01-01", "yesterday"}) {
    SCOPED_TRACE(text);
    ServerRecord server;
    server.last_seen_at = text;
    EXPECT_EQ(OnlineOf(server), "false");
    server.online = true;
    EXPECT_EQ(OnlineOf(server), "true");
  }
  ServerRecord server;
  server.last_seen_at = "yes\"terday";
  EXPECT_NE(ServerToJson(server).find(R"("last_seen_at":"yes\"terday")"), std::string::npos);
}

std::string ServerText(const std::string& id, const std::string& online = "false") {
  return R"({"id":")" + id + R"(","name":"","country":"","city":"","lat":0.000000,"lon":0.000000,"online":)" +
         online + R"(,"last_seen_at":null})";
}

TEST(LocationsToJson, ListsTheServersAndTheSelection) {
  sim::Machine machine;
  EXPECT_EQ(LocationsToJson({}, ""), R"({"servers":[],"selected_server_id":null})");
  EXPECT_EQ(LocationsToJson({Server("a"), Server("b")}, "x\""),
            R"({"servers":[)" + ServerText("a") + "," + ServerText("b") + R"(],"selected_server_id":"x\""})");
}

// ---- GET /ui/locations ----

// A machine with a token, and a control plane whose catalogue is this.
struct LocationsMachine {
  explicit LocationsMachine(const std::string& catalogue) {
    WireSubsystems();
    gCachedAccessToken = L"access-1";
    sim::SetHttpHandler(
        [catalogue](const sim::HttpRequest&) { return sim::HttpResponse{.body = catalogue}; });
  }
  sim::Machine machine;
};

const char kTwoServers[] = R"({"servers":[{"server_id":"a","online":false},)"
                           R"({"server_id":"b","online":true,"public_egress_ip":"192.0.2.2"}]})";

std::string TwoServers(const std::string& selected) {
  return R"({"servers":[)" + ServerText("a") + "," + ServerText("b", "true") + R"(],"selected_server_id":)" +
         selected + "}";
}

// The lines behind those of the fetch.
Lines SelectionLines() {
  Lines lines;
  for (const std::string& line : sim::LogLines()) {
    if (line.rfind("[UI] ", 0) == 0) lines.push_back(line);
  }
  return lines;
}

TEST(BuildLocationsJson, IsAFixedTextWithoutAToken) {
  LocationsMachine machine(kTwoServers);
  gCachedAccessToken.clear();
  gUiServers = {Server("old")};
  gSelectedServerId = "old";
  EXPECT_EQ(BuildLocationsJson(), R"({"servers":[],"selected_server_id":null})");
  EXPECT_EQ(gUiServers.size(), 1u);
  EXPECT_EQ(gSelectedServerId, "old");
  EXPECT_EQ(sim::HttpRequests().size(), 0u);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(BuildLocationsJson, FetchesAtTheBuiltInUrlOnEveryCall) {
  LocationsMachine machine(kTwoServers);
  gCpBaseUrl = L"https://elsewhere.test";
  EXPECT_EQ(Call("GET /ui/locations"), ResultText(TwoServers(R"("a")")));
  EXPECT_EQ(Call("GET /ui/locations"), ResultText(TwoServers(R"("a")")));
  ASSERT_EQ(sim::HttpRequests().size(), 2u);
  for (const sim::HttpRequest& request : sim::HttpRequests()) {
    EXPECT_EQ(request.verb + " " + request.path8, "GET /v1/servers/locations");
    EXPECT_EQ(request.host, L"cp.telvor.test");
    EXPECT_EQ(request.port, 8443);
    EXPECT_EQ(request.bearer, "access-1");
  }
}

TEST(BuildLocationsJson, SelectsTheFirstServerByDefaultThoughItIsOffline) {
  LocationsMachine machine(kTwoServers);
  gSelectedServerValid = true;
  EXPECT_EQ(BuildLocationsJson(), TwoServers(R"("a")"));
  EXPECT_EQ(gSelectedServerId, "a");
  EXPECT_FALSE(gSelectedServerValid);
  // The details of the server never reach the log.
  EXPECT_EQ(SelectionLines(), Lines{"[UI] Default-selected server_id=a"});
}

TEST(BuildLocationsJson, MovesASelectionThatIsMissingToTheFirstServer) {
  LocationsMachine machine(kTwoServers);
  gSelectedServerId = "gone";
  gSelectedServerValid = true;
  EXPECT_EQ(BuildLocationsJson(), TwoServers(R"("a")"));
  EXPECT_EQ(gSelectedServerId, "a");
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_EQ(SelectionLines(), Lines{"[UI] Selected server missing; reset to server_id=a"});
}

TEST(BuildLocationsJson, KeepsASelectionThatIsThere) {
  LocationsMachine machine(kTwoServers);
  gUiServers = {Server("old")};
  gSelectedServerId = "b";
  gSelectedServerValid = true;
  EXPECT_EQ(BuildLocationsJson(), TwoServers(R"("b")"));
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(SelectionLines(), Lines{});
  ASSERT_EQ(gUiServers.size(), 2u);
  EXPECT_EQ(gUiServers[1].public_egress_ip, "192.0.2.2");
}

TEST(BuildLocationsJson, KeepsTheSelectionWithAnEmptyCatalogue) {
  LocationsMachine machine(R"({"servers":[]})");
  gUiServers = {Server("old")};
  gSelectedServerId = "old";
  gSelectedServerValid = true;
  EXPECT_EQ(BuildLocationsJson(), R"({"servers":[],"selected_server_id":"old"})");
  EXPECT_EQ(gUiServers.size(), 0u);
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(SelectionLines(), Lines{});
  gSelectedServerId = "";
  EXPECT_EQ(BuildLocationsJson(), R"({"servers":[],"selected_server_id":null})");
}

TEST(BuildLocationsJson, ShowsTheCachedListWhenTheFetchFails) {
  LocationsMachine machine("");
  sim::SetHttpHandler([](const sim::HttpRequest&) { return sim::HttpResponse{.status = 500, .body = "no"}; });
  gUiServers = {Server("old")};
  gSelectedServerId = "elsewhere";
  gSelectedServerValid = true;
  EXPECT_EQ(BuildLocationsJson(),
            R"({"servers":[)" + ServerText("old") + R"(],"selected_server_id":"elsewhere"})");
  EXPECT_TRUE(gSelectedServerValid);
  EXPECT_EQ(SelectionLines(), Lines{});
  EXPECT_TRUE(sim::LogHas("CpGetServerLocations: HTTP 500 head=no"));
}

TEST(BuildLocationsJson, ShowsOnlineAsOfNow) {
  LocationsMachine machine(R"({"servers":[{"server_id":"a","last_seen_at":"2026-01-01T00:00:00Z"}]})");
  sim::SetUnixTime(kNewYear + 20);
  EXPECT_NE(BuildLocationsJson().find("\"online\":true"), std::string::npos);
  sim::SetUnixTime(kNewYear + 60);
  EXPECT_NE(BuildLocationsJson().find("\"online\":false"), std::string::npos);
}

}  // namespace
