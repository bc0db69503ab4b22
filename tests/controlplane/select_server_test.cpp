// CpSelectServer: three shapes of one request, tried in a fixed order.
#include "controlplane/catalogue.h"
#include "controlplane_fixture.h"

namespace {

const Lines kAllThree = {"PUT /v1/devices/my-pc/wg-server", "PUT /v1/devices/my-pc/server",
                         "POST /v1/servers/select"};
constexpr char kPutLine[] = "[CP REQUEST] access_len=5";

bool Select(const std::wstring& base = kBase) {
  return CpSelectServer(base, L"token", L"my-pc", "srv-a");
}

Lines FirstThree(size_t count) {
  return Lines(kAllThree.begin(), kAllThree.begin() + static_cast<std::ptrdiff_t>(count));
}

TEST(CpSelectServer, SendsTheThreeShapesInOrder) {
  sim::Machine machine;
  AnswerInTurn({Answer(404), Answer(500), Answer(200)});
  EXPECT_TRUE(Select(L"https://plane.test:9443/"));
  EXPECT_EQ(Sent(), kAllThree);
  EXPECT_EQ(SentBodies(), Lines({R"({"wg_server_id":"srv-a"})", R"({"server_id":"srv-a"})",
                                 R"({"device_id":"my-pc","server_id":"srv-a"})"}));
  EXPECT_EQ(SentBearers(), Lines({"token", "token", "token"}));
  ASSERT_EQ(sim::HttpRequests().size(), 3U);
  const std::wstring put = L"Content-Type: application/json\r\nAuthorization: Bearer token\r\n";
  EXPECT_EQ(sim::HttpRequests()[0].headers, put);
  EXPECT_EQ(sim::HttpRequests()[1].headers, put);
  EXPECT_EQ(sim::HttpRequests()[2].headers, L"Accept: application/json\r\n" + put);
}

TEST(CpSelectServer, EscapesTheIdsInTheBodiesOnly) {
  sim::Machine machine;
  AnswerInTurn({Answer(404), Answer(404), Answer(200)});
  EXPECT_TRUE(CpSelectServer(kBase, L"token", L"p\"\u00E9%c", "7\"\\"));
  EXPECT_EQ(SentBodies(), Lines({R"({"wg_server_id":"7\"\\"})", R"({"server_id":"7\"\\"})",
                                 "{\"device_id\":\"p\\\"\xC3\xA9%c\",\"server_id\":\"7\\\"\\\\\"}"}));
  ASSERT_EQ(sim::HttpRequests().size(), 3U);
  EXPECT_EQ(sim::HttpRequests()[0].path, L"/v1/devices/p\"\u00E9%c/wg-server");
  EXPECT_EQ(sim::HttpRequests()[1].path, L"/v1/devices/p\"\u00E9%c/server");
}

TEST(CpSelectServer, TheFirst2xxEndsIt) {
  for (const uint32_t status : {200U, 201U, 204U, 299U}) {
    for (size_t refused = 0; refused < 3; ++refused) {
      SCOPED_TRACE(std::to_string(status) + " after " + std::to_string(refused));
      sim::Machine machine;
      std::vector<sim::HttpResponse> answers(refused, Answer(300));
      answers.push_back(Answer(status));
      AnswerInTurn(answers);
      EXPECT_TRUE(Select());
      EXPECT_EQ(Sent(), FirstThree(refused + 1));
    }
  }
}

TEST(CpSelectServer, LogsTheRefusedPut) {
  sim::Machine machine;
  AnswerInTurn({Answer(404, "no such"), Answer(200, "fine")});
  EXPECT_TRUE(Select());
  EXPECT_EQ(
      sim::LogLines(),
      Lines({kPutLine, "CpSelectServer: PUT non-2xx HTTP 404 path=/v1/devices/my-pc/wg-server head=no such",
             kPutLine}));
}

TEST(CpSelectServer, LogsEveryRefusal) {
  sim::Machine machine;
  const std::string body(201, 'b');
  const std::string head(200, 'b');
  AnswerInTurn({Answer(404, body), Answer(401, body), Answer(500, body)});
  EXPECT_FALSE(Select());
  EXPECT_EQ(
      sim::LogLines(),
      Lines({kPutLine, "CpSelectServer: PUT non-2xx HTTP 404 path=/v1/devices/my-pc/wg-server head=" + head,
             kPutLine, "CpSelectServer: PUT non-2xx HTTP 401 path=/v1/devices/my-pc/server head=" + head,
             "CpSelectServer: POST /v1/servers/select non-2xx HTTP 500 head=" + head}));
}

TEST(CpSelectServer, LogsEveryTransportFailure) {
  sim::Machine machine;
  AnswerInTurn({NoAnswer(), NoAnswer(), NoAnswer()});
  EXPECT_FALSE(Select());
  EXPECT_EQ(Operations("WinHttpSendRequest").size(), 3U);
  const Lines log = sim::LogLines();
  ASSERT_EQ(log.size(), 6U);
  EXPECT_EQ(log[1], "CpSelectServer: PUT failed HTTP 0 path=/v1/devices/my-pc/wg-server head=");
  EXPECT_EQ(log[3], "CpSelectServer: PUT failed HTTP 0 path=/v1/devices/my-pc/server head=");
  EXPECT_EQ(log[5], "CpSelectServer: POST /v1/servers/select failed HTTP 0 head=");
}

TEST(CpSelectServer, APostWhoseBodyBreaksOffHasFailed) {
  sim::Machine machine;
  AnswerInTurn({Answer(404), Answer(404), BrokenAnswer(200, "part")});
  EXPECT_FALSE(Select());
  EXPECT_EQ(sim::LogLines().back(), "CpSelectServer: POST /v1/servers/select failed HTTP 200 head=part");
}

TEST(CpSelectServer, RefreshesNoTokenAfterA401) {
  sim::Machine machine;
  StoreSession("file", 10);
  AnswerInTurn({Answer(401), Answer(401), Answer(401)});
  EXPECT_FALSE(Select());
  EXPECT_EQ(Sent(), kAllThree);
  EXPECT_EQ(SentBearers(), Lines({"token", "token", "token"}));
}

}  // namespace
