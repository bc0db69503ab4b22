// What is HttpGet's own: its headers, its boolean, its log.
#include "controlplane/http_transport.h"
#include "controlplane_fixture.h"

namespace {

constexpr wchar_t kUrl[] = L"https://plane.test:9443/v1/thing?q=1";

bool Get(uint32_t& status, std::string& body, const std::wstring& token = L"secret") {
  return HttpGet(kUrl, token, status, body);
}

bool Get() {
  uint32_t status = 0;
  std::string body;
  return Get(status, body);
}

TEST(HttpGet, SendsAcceptAndAuthorizationThroughTheDefaultProxy) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  EXPECT_TRUE(Get());
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  EXPECT_EQ(sim::HttpRequests()[0].headers, L"Accept: application/json\r\nAuthorization: Bearer secret\r\n");
  EXPECT_EQ(sim::HttpRequests()[0].accessType, 0U);
  EXPECT_EQ(sim::HttpRequests()[0].body, "");
  EXPECT_EQ(sim::CountCalls("WinHttpAddRequestHeaders"), 0U);
  EXPECT_EQ(sim::CountCalls("WinHttpWriteData"), 0U);
  EXPECT_EQ(sim::CountCalls("WinHttpSendRequest", "totalLength=0"), 1U);
}

TEST(HttpGet, SendsNoAuthorizationForAnEmptyToken) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  uint32_t status = 0;
  std::string body;
  EXPECT_TRUE(Get(status, body, L""));
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  EXPECT_EQ(sim::HttpRequests()[0].headers, L"Accept: application/json\r\n");
}

TEST(HttpGet, IsTrueOnlyForStatus200) {
  for (const uint32_t code : {200U, 201U, 204U, 206U, 302U, 401U, 404U, 500U}) {
    SCOPED_TRACE(code);
    sim::Machine machine;
    AnswerAlways(Answer(code, "real body"));
    uint32_t status = 0;
    std::string body;
    EXPECT_EQ(Get(status, body), code == 200);
    EXPECT_EQ(status, code);
    EXPECT_EQ(body, "real body");
  }
}

TEST(HttpGet, LogsStatusAndHeadOfEveryAnswer) {
  for (const uint32_t code : {200U, 204U, 500U}) {
    sim::Machine machine;
    AnswerAlways(Answer(code, "{\"a\":1}"));
    Get();
    EXPECT_EQ(sim::LogLines(), Lines({"HTTP GET status=" + std::to_string(code) + " body-head={\"a\":1}"}));
  }
}

TEST(HttpGet, LogsTheFirst400BytesAsText) {
  const std::string most(398, 'a');
  const struct {
    std::string body;
    std::string head;
  } cases[] = {{most + "bcde", most + "bc"},
               {most + "\xC3\xA9z", most + "\xE9"},
               {most + "b\xC3\xA9", ""},
               {"bad \xFF", ""},
               {"", ""}};
  for (const auto& one : cases) {
    sim::Machine machine;
    AnswerAlways(Answer(200, one.body));
    EXPECT_TRUE(Get());
    EXPECT_EQ(sim::LogLines(), Lines({"HTTP GET status=200 body-head=" + one.head}));
  }
}

TEST(HttpGet, LogsTheStepThatFailed) {
  const struct {
    const char* step;
    const char* line;
  } cases[] = {{"WinHttpCrackUrl", "CrackUrl: https://plane.test:9443/v1/thing?q=1"},
               {"WinHttpOpen", "WinHttpOpen: https://plane.test:9443/v1/thing?q=1"},
               {"WinHttpConnect", "WinHttpConnect: plane.test"},
               {"WinHttpOpenRequest", "WinHttpOpenRequest: /v1/thing?q=1"},
               {"WinHttpReceiveResponse", "WinHttpReceiveResponse failed GLE=12002"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.step);
    sim::Machine machine;
    AnswerAlways(Answer(200));
    sim::Fail({.operation = one.step, .code = 12002});
    EXPECT_FALSE(Get());
    EXPECT_EQ(sim::LogLines(), Lines({one.line}));
  }
}

TEST(HttpGet, LogsAFailedSendWithRedactedHeaders) {
  sim::Machine machine;
  AnswerAlways(NoAnswer());
  EXPECT_FALSE(Get());
  EXPECT_EQ(sim::LogBytes(),
            std::string(kStamp) +
                "WinHttpSendRequest FAILED gle=12029 host=plane.test port=9443 path=/v1/thing?q=1 "
                "headers=Accept: application/json\r\r\nAuthorization: Bearer <redacted>\r\r\n\r\n");
}

TEST(HttpGet, ShowsNoAuthorizationInTheLogWithoutAToken) {
  sim::Machine machine;
  AnswerAlways(NoAnswer());
  uint32_t status = 0;
  std::string body;
  EXPECT_FALSE(Get(status, body, L""));
  EXPECT_EQ(sim::LogBytes(),
            std::string(kStamp) +
                "WinHttpSendRequest FAILED gle=12029 host=plane.test port=9443 path=/v1/thing?q=1 "
                "headers=Accept: application/json\r\r\n\r\n");
}

TEST(HttpGet, LogsNothingWhenTheBodyBreaksOff) {
  for (const char* step : {"WinHttpQueryDataAvailable", "WinHttpReadData"}) {
    SCOPED_TRACE(step);
    sim::Machine machine;
    AnswerAlways(Answer(200, "body"));
    sim::Fail({.operation = step});
    EXPECT_FALSE(Get());
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

TEST(HttpGet, CountsAStatusThatCannotBeReadAsZero) {
  sim::Machine machine;
  AnswerAlways(Answer(200, "body"));
  sim::Fail({.operation = "WinHttpQueryHeaders"});
  uint32_t status = 99;
  std::string body;
  EXPECT_FALSE(Get(status, body));
  EXPECT_EQ(status, 0U);
  EXPECT_EQ(body, "body");
  EXPECT_EQ(sim::LogLines(), Lines({"HTTP GET status=0 body-head=body"}));
}

}  // namespace
