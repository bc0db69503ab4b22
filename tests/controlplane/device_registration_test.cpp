// The registration of the device and the upload of its key: two calls that look alike and differ where it is
// wanted.
#include "controlplane/base_url.h"
#include "controlplane/device.h"
#include "controlplane_fixture.h"
#include "engine/tunnel_state.h"

namespace {

struct Outcome {
  bool ok = false;
  std::wstring token = L"token";
};

Outcome Register(const std::wstring& base = kBase, const std::wstring& deviceId = L"my-pc") {
  Outcome outcome;
  outcome.ok = EnsureDeviceRegistered(base, outcome.token, deviceId);
  return outcome;
}

bool Upload(const std::wstring& base = kBase) {
  return EnsureWgKeyUploaded(base, L"token", L"my-pc", "public+key/=");
}

std::wstring DefaultHost() {
  ParsedBaseUrl parsed;
  ParseHttpsBaseUrl(kDefaultCpBaseUrl, parsed);
  return parsed.host;
}

// The log without the line of each PUT.
Lines LogOfUpload() {
  Lines lines;
  for (const std::string& line : sim::LogLines()) {
    if (line != "[CP REQUEST] access_len=5") lines.push_back(line);
  }
  return lines;
}

constexpr char kRegister401[] =
    "EnsureDeviceRegistered: HTTP 401 (token invalid/expired); re-login and retry once";
constexpr char kUpload401[] =
    "EnsureWgKeyUploaded: HTTP 401 (token invalid/expired); re-login and retry once";
constexpr char kNoSession[] = "Auth: no session; waiting for GUI login";

TEST(EnsureDeviceRegistered, PostsTheIdAsIdAndName) {
  sim::Machine machine;
  AnswerInTurn({Answer(200)});
  EXPECT_TRUE(Register(L"https://plane.test:9443/", L"my \"pc\u00E9").ok);
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  const sim::HttpRequest& request = sim::HttpRequests()[0];
  EXPECT_EQ(request.verb, "POST");
  EXPECT_EQ(request.host, L"plane.test");
  EXPECT_EQ(request.path, L"/v1/devices");
  EXPECT_EQ(request.headers,
            L"Accept: application/json\r\nContent-Type: application/json\r\nAuthorization: Bearer token\r\n");
  EXPECT_EQ(request.body,
            "{\"device_id\":\"my \\\"pc\xC3\xA9\",\"name\":\"my \\\"pc\xC3\xA9\",\"platform\":\"windows\"}");
}

TEST(EnsureDeviceRegistered, Takes200And201) {
  for (const char* status : {"200", "201"}) {
    sim::Machine machine;
    AnswerInTurn({Answer(static_cast<uint32_t>(std::stoi(status)))});
    const Outcome outcome = Register();
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.token, L"token");
    EXPECT_EQ(sim::LogLines(), Lines({"EnsureDeviceRegistered: ok (" + std::string(status) + ")"}));
  }
}

TEST(EnsureDeviceRegistered, FailsOnAnyOtherStatus) {
  const struct {
    sim::HttpResponse answer;
    const char* line;
  } cases[] = {
      {Answer(204), "EnsureDeviceRegistered: HTTP 204 head="},
      {Answer(409, "{\"error\":\"taken\"}"), "EnsureDeviceRegistered: HTTP 409 head={\"error\":\"taken\"}"},
      {Answer(500, "bad \xFF"), "EnsureDeviceRegistered: HTTP 500 head="},
      {BrokenAnswer(200, "part"), "EnsureDeviceRegistered: HTTP 200 head=part"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.line);
    sim::Machine machine;
    AnswerInTurn({one.answer});
    EXPECT_FALSE(Register().ok);
    EXPECT_EQ(sim::LogLines(), Lines({one.line}));
  }
}

TEST(EnsureDeviceRegistered, ShowsTheFirst200Bytes) {
  sim::Machine machine;
  AnswerInTurn({Answer(500, std::string(200, 'a') + "b")});
  EXPECT_FALSE(Register().ok);
  EXPECT_EQ(sim::LogLines(), Lines({"EnsureDeviceRegistered: HTTP 500 head=" + std::string(200, 'a')}));
}

TEST(EnsureDeviceRegistered, FailsWithoutAResponse) {
  sim::Machine machine;
  AnswerInTurn({NoAnswer()});
  EXPECT_FALSE(Register().ok);
  ASSERT_EQ(sim::LogLines().size(), 2U);
  EXPECT_EQ(sim::LogLines()[1], "EnsureDeviceRegistered: failed (transport)");
}

TEST(EnsureDeviceRegistered, RetriesA401WithTheTokenOfTheSession) {
  for (const char* status : {"200", "201"}) {
    sim::Machine machine;
    StoreSession("file", 1000);
    AnswerInTurn({Answer(401), Answer(static_cast<uint32_t>(std::stoi(status)))});
    const Outcome outcome = Register();
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.token, L"file");
    EXPECT_EQ(SentBearers(), Lines({"token", "file"}));
    EXPECT_EQ(SentBodies()[0], SentBodies()[1]);
    EXPECT_EQ(sim::LogLines(), Lines({kRegister401, "EnsureDeviceRegistered: ok after re-login (" +
                                                        std::string(status) + ")"}));
  }
}

TEST(EnsureDeviceRegistered, TriesAtMostTwice) {
  const struct {
    sim::HttpResponse second;
    const char* line;
  } cases[] = {{Answer(401, "no"), "EnsureDeviceRegistered: HTTP 401 head=no"},
               {Answer(409), "EnsureDeviceRegistered: HTTP 409 head="},
               {NoAnswer(), "EnsureDeviceRegistered: failed (transport)"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.line);
    sim::Machine machine;
    StoreSession("file", 1000);
    AnswerInTurn({Answer(401, "first"), one.second});
    EXPECT_FALSE(Register().ok);
    EXPECT_EQ(sim::LogLines().front(), kRegister401);
    EXPECT_EQ(sim::LogLines().back(), one.line);
    EXPECT_EQ(sim::LogCount("EnsureDeviceRegistered"), 2U);
    EXPECT_EQ(sim::CountCalls("Sleep"), 0U);
  }
}

TEST(EnsureDeviceRegistered, IsTrueWithoutASessionAfterA401) {
  sim::Machine machine;
  AnswerInTurn({Answer(401)});
  const Outcome outcome = Register();
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.token, L"token");
  EXPECT_EQ(sim::LogLines(), Lines({kRegister401, kNoSession}));
}

TEST(EnsureDeviceRegistered, RefreshesAtTheDefaultBaseUrl) {
  sim::Machine machine;
  gCpBaseUrl = L"https://elsewhere.test";
  StoreSession("file", 10);
  AnswerInTurn({Answer(401), Answer(200, R"({"access_token":"new","expires_at":1900000000})"), Answer(200)});
  EXPECT_EQ(Register().token, L"new");
  EXPECT_EQ(Sent(), Lines({"POST /v1/devices", "POST /v1/auth/refresh", "POST /v1/devices"}));
  ASSERT_EQ(sim::HttpRequests().size(), 3U);
  EXPECT_EQ(sim::HttpRequests()[1].host, DefaultHost());
  EXPECT_EQ(sim::HttpRequests()[2].host, L"plane.test");
  EXPECT_EQ(SentBearers(), Lines({"token", "", "new"}));
}

TEST(EnsureWgKeyUploaded, PutsTheKeyOfTheDevice) {
  sim::Machine machine;
  AnswerInTurn({Answer(200)});
  EXPECT_TRUE(EnsureWgKeyUploaded(L"https://plane.test:9443/", L"token", L"my%pc", "k\"ey"));
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  const sim::HttpRequest& request = sim::HttpRequests()[0];
  EXPECT_EQ(request.verb, "PUT");
  EXPECT_EQ(request.host, L"plane.test");
  EXPECT_EQ(request.path, L"/v1/devices/my%pc/wg-key");
  EXPECT_EQ(request.headers, L"Content-Type: application/json\r\nAuthorization: Bearer token\r\n");
  EXPECT_EQ(request.body, R"({"wg_public_key":"k\"ey"})");
  EXPECT_EQ(sim::LogLines(), Lines({"[CP REQUEST] access_len=5", "EnsureWgKeyUploaded: ok (200)"}));
}

TEST(EnsureWgKeyUploaded, FailsOnEveryStatusBut200) {
  const struct {
    sim::HttpResponse answer;
    const char* line;
  } cases[] = {{Answer(201), "EnsureWgKeyUploaded: HTTP 201 head="},
               {Answer(204), "EnsureWgKeyUploaded: HTTP 204 head="},
               {Answer(409, "taken"), "EnsureWgKeyUploaded: HTTP 409 head=taken"},
               {NoAnswer(), "EnsureWgKeyUploaded: failed (transport)"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.line);
    sim::Machine machine;
    AnswerInTurn({one.answer});
    EXPECT_FALSE(Upload());
    EXPECT_EQ(LogOfUpload(), Lines({one.line}));
  }
}

TEST(EnsureWgKeyUploaded, ShowsTheFirst200Bytes) {
  sim::Machine machine;
  AnswerInTurn({Answer(500, std::string(200, 'a') + "b")});
  EXPECT_FALSE(Upload());
  EXPECT_EQ(LogOfUpload(), Lines({"EnsureWgKeyUploaded: HTTP 500 head=" + std::string(200, 'a')}));
}

// The new token goes unused; that is wanted.
TEST(EnsureWgKeyUploaded, RetriesA401WithTheSameToken) {
  sim::Machine machine;
  StoreSession("file", 1000);
  AnswerInTurn({Answer(401), Answer(200)});
  EXPECT_TRUE(Upload());
  EXPECT_EQ(SentBearers(), Lines({"token", "token"}));
  EXPECT_EQ(LogOfUpload(), Lines({kUpload401, "EnsureWgKeyUploaded: ok after re-login (200)"}));
}

TEST(EnsureWgKeyUploaded, TriesAtMostTwice) {
  const struct {
    sim::HttpResponse second;
    const char* line;
  } cases[] = {{Answer(401, "no"), "EnsureWgKeyUploaded: HTTP 401 head=no"},
               {Answer(201), "EnsureWgKeyUploaded: HTTP 201 head="},
               {NoAnswer(), "EnsureWgKeyUploaded: failed (transport)"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.line);
    sim::Machine machine;
    StoreSession("file", 1000);
    AnswerInTurn({Answer(401, "first"), one.second});
    EXPECT_FALSE(Upload());
    EXPECT_EQ(LogOfUpload(), Lines({kUpload401, one.line}));
    EXPECT_EQ(sim::CountCalls("Sleep"), 0U);
  }
}

TEST(EnsureWgKeyUploaded, IsTrueWithoutASessionAfterA401) {
  sim::Machine machine;
  AnswerInTurn({Answer(401)});
  EXPECT_TRUE(Upload());
  EXPECT_EQ(LogOfUpload(), Lines({kUpload401, kNoSession}));
}

TEST(EnsureWgKeyUploaded, RefreshesAtTheDefaultBaseUrl) {
  sim::Machine machine;
  gCpBaseUrl = L"https://elsewhere.test";
  StoreSession("file", 10);
  AnswerInTurn({Answer(401), Answer(200, R"({"access_token":"new","expires_at":1900000000})"), Answer(200)});
  EXPECT_TRUE(Upload());
  EXPECT_EQ(Sent(),
            Lines({"PUT /v1/devices/my-pc/wg-key", "POST /v1/auth/refresh", "PUT /v1/devices/my-pc/wg-key"}));
  ASSERT_EQ(sim::HttpRequests().size(), 3U);
  EXPECT_EQ(sim::HttpRequests()[1].host, DefaultHost());
  EXPECT_EQ(SentBearers(), Lines({"token", "", "token"}));
  EXPECT_EQ(gCachedAccessToken, L"new");
}

}  // namespace
