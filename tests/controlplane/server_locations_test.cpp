// CpGetServerLocations: the fetch of the catalogue and what is kept of it.
#include <mutex>

#include "controlplane/catalogue.h"
#include "controlplane_fixture.h"

namespace {

struct Fetch {
  bool ok = false;
  std::vector<ServerRecord> servers = std::vector<ServerRecord>(1);
};

Fetch FetchWith(const sim::HttpResponse& answer, const std::wstring& base = kBase) {
  gCachedAccessToken = L"cached";
  AnswerInTurn({answer});
  Fetch fetch;
  fetch.ok = CpGetServerLocations(base, fetch.servers);
  return fetch;
}

Lines Ids(const Fetch& fetch) {
  Lines ids;
  for (const ServerRecord& server : fetch.servers) ids.push_back(server.id);
  return ids;
}

// The line of HttpGet, then the given ones.
Lines LogOfGet(const std::string& statusAndHead, const Lines& more) {
  Lines lines = {"HTTP GET status=" + statusAndHead};
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

TEST(CpGetServerLocations, AsksWithTheCachedToken) {
  sim::Machine machine;
  EXPECT_TRUE(FetchWith(Answer(200, R"({"servers":[]})"), L"https://plane.test:9443/").ok);
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  const sim::HttpRequest& request = sim::HttpRequests()[0];
  EXPECT_EQ(request.verb, "GET");
  EXPECT_EQ(request.host, L"plane.test");
  EXPECT_EQ(request.path, L"/v1/servers/locations");
  EXPECT_EQ(request.bearer, "cached");
}

TEST(CpGetServerLocations, KeepsOneOfTwoTrailingSlashes) {
  sim::Machine machine;
  EXPECT_TRUE(FetchWith(Answer(200, R"({"servers":[]})"), L"https://plane.test:9443//").ok);
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  EXPECT_EQ(sim::HttpRequests()[0].path, L"//v1/servers/locations");
}

TEST(CpGetServerLocations, ReadsEveryField) {
  sim::Machine machine;
  const std::string body =
      R"({"servers":[{"server_id":"srv-a","name":"One","country":"NL","city":"Ede","latitude":52.25,)"
      R"("longitude":-5.5,"public_egress_ip":"203.0.113.7","online":true,)"
      R"("last_seen_at":"2026-01-01T00:00:00Z"}]})";
  const Fetch fetch = FetchWith(Answer(200, body));
  EXPECT_TRUE(fetch.ok);
  ASSERT_EQ(fetch.servers.size(), 1U);
  const ServerRecord& server = fetch.servers[0];
  EXPECT_EQ(server.id, "srv-a");
  EXPECT_EQ(server.name, "One");
  EXPECT_EQ(server.country, "NL");
  EXPECT_EQ(server.city, "Ede");
  EXPECT_EQ(server.latitude, 52.25);
  EXPECT_EQ(server.longitude, -5.5);
  EXPECT_EQ(server.public_egress_ip, "203.0.113.7");
  EXPECT_TRUE(server.online);
  EXPECT_EQ(server.last_seen_at, "2026-01-01T00:00:00Z");
  EXPECT_EQ(sim::LogLines(),
            LogOfGet("200 body-head=" + body, {"[CP] server_id=srv-a city=Ede public_egress_ip=203.0.113.7",
                                               "[CP] /v1/servers/locations parsed servers=1"}));
}

TEST(CpGetServerLocations, LeavesDefaultsForWhatIsMissingOrUnreadable) {
  for (const char* object : {R"({"server_id":"a"})",
                             R"({"server_id":"a","latitude":"48.85","longitude":1e400,"online":"true"})"}) {
    SCOPED_TRACE(object);
    sim::Machine machine;
    const Fetch fetch = FetchWith(Answer(200, "{\"servers\":[" + std::string(object) + "]}"));
    ASSERT_EQ(fetch.servers.size(), 1U);
    const ServerRecord& server = fetch.servers[0];
    EXPECT_EQ(server.name + server.country + server.city + server.public_egress_ip + server.last_seen_at, "");
    EXPECT_EQ(server.latitude, 0.0);
    EXPECT_EQ(server.longitude, 0.0);
    EXPECT_FALSE(server.online);
  }
}

TEST(CpGetServerLocations, LooksForNoOtherSpellingOfTheId) {
  sim::Machine machine;
  EXPECT_EQ(Ids(FetchWith(Answer(200, R"({"servers":[{"id":"a","wg_server_id":"b"}]})"))), Lines());
}

TEST(CpGetServerLocations, TakesTheNextQuotedTextForAnIdThatIsANumber) {
  sim::Machine machine;
  EXPECT_EQ(Ids(FetchWith(Answer(200, R"({"servers":[{"server_id":5,"name":"x"}]})"))), Lines({"name"}));
}

TEST(CpGetServerLocations, KeepsOrderAndDuplicatesAndDropsRecordsWithoutAnId) {
  sim::Machine machine;
  const std::string body = R"({"servers":[{"server_id":"b"},{"city":"Nowhere"},{"server_id":"a"},)"
                           R"({"server_id":""},{"server_id":"b"}]})";
  const Fetch fetch = FetchWith(Answer(200, body));
  EXPECT_TRUE(fetch.ok);
  EXPECT_EQ(Ids(fetch), Lines({"b", "a", "b"}));
  EXPECT_EQ(
      sim::LogLines(),
      LogOfGet("200 body-head=" + body,
               {"[CP] server_id=b city= public_egress_ip=", "[CP] server_id= city=Nowhere public_egress_ip=",
                "[CP] server_id=a city= public_egress_ip=", "[CP] server_id= city= public_egress_ip=",
                "[CP] server_id=b city= public_egress_ip=", "[CP] /v1/servers/locations parsed servers=3"}));
}

TEST(CpGetServerLocations, AnEmptyArrayIsASuccess) {
  sim::Machine machine;
  const Fetch fetch = FetchWith(Answer(200, R"({"servers":[]})"));
  EXPECT_TRUE(fetch.ok);
  EXPECT_EQ(fetch.servers.size(), 0U);
  EXPECT_EQ(sim::LogLines().back(), "[CP] /v1/servers/locations parsed servers=0");
}

TEST(CpGetServerLocations, LogsTextThatIsNotUtf8AsEmptyAndKeepsIt) {
  sim::Machine machine;
  const Fetch fetch = FetchWith(Answer(
      200, "{\"servers\":[{\"server_id\":\"a\",\"city\":\"\xFF\",\"public_egress_ip\":\"\xC3\xA9\"}]}"));
  ASSERT_EQ(fetch.servers.size(), 1U);
  EXPECT_EQ(fetch.servers[0].city, "\xFF");
  EXPECT_EQ(sim::LogLines(), LogOfGet("200 body-head=", {"[CP] server_id=a city= public_egress_ip=\xE9",
                                                         "[CP] /v1/servers/locations parsed servers=1"}));
}

TEST(CpGetServerLocations, FindsNoArrayAndKeepsNothing) {
  for (const char* body :
       {"", "{}", R"({"servers":null})", R"({"servers" :[{"server_id":"a"}]})",
        R"({"servers":[{"server_id":"a"},{"server_id":"b"})", R"({"servers":[{"server_id":"a"},1]})"}) {
    SCOPED_TRACE(body);
    sim::Machine machine;
    const Fetch fetch = FetchWith(Answer(200, body));
    EXPECT_FALSE(fetch.ok);
    EXPECT_EQ(fetch.servers.size(), 0U);
    EXPECT_EQ(sim::LogLines(), LogOfGet("200 body-head=" + std::string(body),
                                        {"CpGetServerLocations: missing/invalid servers[]"}));
  }
}

TEST(CpGetServerLocations, FailsOnEveryStatusBut200) {
  const std::string body(201, 'b');
  for (const uint32_t status : {201U, 204U, 401U, 500U}) {
    SCOPED_TRACE(status);
    sim::Machine machine;
    const Fetch fetch = FetchWith(Answer(status, body));
    EXPECT_FALSE(fetch.ok);
    EXPECT_EQ(fetch.servers.size(), 0U);
    EXPECT_EQ(sim::LogLines().back(),
              "CpGetServerLocations: HTTP " + std::to_string(status) + " head=" + body.substr(0, 200));
    EXPECT_EQ(sim::HttpRequests().size(), 1U);
  }
}

TEST(CpGetServerLocations, FailsWithoutAResponse) {
  sim::Machine machine;
  const Fetch fetch = FetchWith(NoAnswer());
  EXPECT_FALSE(fetch.ok);
  EXPECT_EQ(fetch.servers.size(), 0U);
  EXPECT_EQ(sim::LogLines().back(), "CpGetServerLocations: HTTP 0 head=");
}

// The second of the three odd characters lies above U+00FF and cuts the line, its line end included.
TEST(CpGetServerLocations, SendsNothingWithoutAToken) {
  sim::Machine machine;
  std::vector<ServerRecord> servers(1);
  EXPECT_FALSE(CpGetServerLocations(kBase, servers));
  EXPECT_EQ(servers.size(), 0U);
  EXPECT_EQ(Operations("WinHttp"), Lines());
  EXPECT_EQ(sim::LogBytes(), std::string(kStamp) + "[BOOTSTRAP] AUTH_REQUIRED (no token) \xE2");
}

TEST(CpGetServerLocations, HoldsNoLockAcrossTheNetwork) {
  sim::Machine machine;
  const auto looks = LookForLocksBefore({"WinHttpSendRequest", "WinHttpReceiveResponse"});
  EXPECT_TRUE(FetchWith(Answer(200, R"({"servers":[]})")).ok);
  EXPECT_EQ(*looks, 2U);
}

}  // namespace
