// What is HttpPostUtf8's and HttpPut's own: headers, how the body goes out, booleans, logs.
#include "controlplane/http_transport.h"
#include "controlplane_fixture.h"

namespace {

constexpr wchar_t kUrl[] = L"https://plane.test:9443/v1/thing";

bool Post(uint32_t& status, std::string& body) {
  return HttpPostUtf8(kUrl, L"secret", "{\"a\":1}", L"application/json", status, body);
}

bool Post() {
  uint32_t status = 0;
  std::string body;
  return Post(status, body);
}

bool Put(const std::string& requestBody = "{\"a\":1}") {
  uint32_t status = 0;
  std::string body;
  return HttpPut(kUrl, L"secret", requestBody, L"application/json", status, body);
}

// The log without the line that a PUT writes before it sends.
Lines LogOfFailure() {
  Lines lines;
  for (const std::string& line : sim::LogLines()) {
    if (line != "[CP REQUEST] access_len=6") lines.push_back(line);
  }
  return lines;
}

TEST(HttpPostUtf8, SendsHeadersAndBodyInOneCallWithoutAProxy) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  EXPECT_TRUE(Post());
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  EXPECT_EQ(
      sim::HttpRequests()[0].headers,
      L"Accept: application/json\r\nContent-Type: application/json\r\nAuthorization: Bearer secret\r\n");
  EXPECT_EQ(sim::HttpRequests()[0].accessType, 1U);
  EXPECT_EQ(sim::HttpRequests()[0].body, "{\"a\":1}");
  EXPECT_EQ(sim::CountCalls("WinHttpAddRequestHeaders"), 0U);
  EXPECT_EQ(sim::CountCalls("WinHttpWriteData"), 0U);
  EXPECT_EQ(sim::CountCalls("WinHttpSendRequest", "totalLength=7"), 1U);
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(HttpPostUtf8, LeavesOutHeadersWithoutAValue) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  uint32_t status = 0;
  std::string body;
  EXPECT_TRUE(HttpPostUtf8(kUrl, L"", "", L"", status, body));
  EXPECT_TRUE(HttpPostUtf8(kUrl, L"t", "", L"", status, body));
  EXPECT_TRUE(HttpPostUtf8(kUrl, L"", "", L"text/plain", status, body));
  ASSERT_EQ(sim::HttpRequests().size(), 3U);
  EXPECT_EQ(sim::HttpRequests()[0].headers, L"Accept: application/json\r\n");
  EXPECT_EQ(sim::HttpRequests()[1].headers, L"Accept: application/json\r\nAuthorization: Bearer t\r\n");
  EXPECT_EQ(sim::HttpRequests()[2].headers, L"Accept: application/json\r\nContent-Type: text/plain\r\n");
  EXPECT_EQ(sim::HttpRequests()[0].body, "");
}

TEST(HttpPostUtf8, IsTrueForEveryStatus) {
  for (const uint32_t code : {200U, 201U, 204U, 401U, 500U}) {
    SCOPED_TRACE(code);
    sim::Machine machine;
    AnswerAlways(Answer(code, "text"));
    uint32_t status = 0;
    std::string body;
    EXPECT_TRUE(Post(status, body));
    EXPECT_EQ(status, code);
    EXPECT_EQ(body, "text");
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

TEST(HttpPostUtf8, LogsNothingForAFailureBeforeSending) {
  for (const char* step : {"WinHttpCrackUrl", "WinHttpOpen", "WinHttpConnect", "WinHttpOpenRequest"}) {
    SCOPED_TRACE(step);
    sim::Machine machine;
    AnswerAlways(Answer(200));
    sim::Fail({.operation = step});
    EXPECT_FALSE(Post());
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

TEST(HttpPostUtf8, LogsAFailedSend) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  sim::Fail({.operation = "WinHttpSendRequest", .code = 54321});
  EXPECT_FALSE(Post());
  EXPECT_EQ(sim::LogLines(), Lines({"HttpPostUtf8 transport failure failed: 54321 (no message available)"}));
}

// The prefix of the first line is odd and wanted.
TEST(HttpPostUtf8, LogsAMissingResponseAsAProfileAndAsATransportFailure) {
  sim::Machine machine;
  AnswerAlways(Answer(200, "body"));
  sim::Fail({.operation = "WinHttpReceiveResponse", .code = 54321});
  EXPECT_FALSE(Post());
  EXPECT_EQ(sim::LogLines(), Lines({"Bootstrap: wg-profile HTTP 0 body-head=",
                                    "HttpPostUtf8 transport failure failed: 54321 (no message available)"}));
}

TEST(HttpPostUtf8, LogsNothingWhenTheBodyBreaksOff) {
  for (const char* step : {"WinHttpQueryDataAvailable", "WinHttpReadData"}) {
    SCOPED_TRACE(step);
    sim::Machine machine;
    AnswerAlways(Answer(200, "body"));
    sim::Fail({.operation = step});
    EXPECT_FALSE(Post());
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

TEST(HttpPostUtf8, IsTrueWhenTheStatusCannotBeRead) {
  sim::Machine machine;
  AnswerAlways(Answer(200, "body"));
  sim::Fail({.operation = "WinHttpQueryHeaders"});
  uint32_t status = 99;
  std::string body;
  EXPECT_TRUE(Post(status, body));
  EXPECT_EQ(status, 0U);
  EXPECT_EQ(body, "body");
}

TEST(HttpPut, AddsItsHeadersAndWritesTheBodyApart) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  EXPECT_TRUE(Put());
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  EXPECT_EQ(sim::HttpRequests()[0].headers,
            L"Content-Type: application/json\r\nAuthorization: Bearer secret\r\n");
  EXPECT_EQ(sim::HttpRequests()[0].accessType, 0U);
  EXPECT_EQ(sim::HttpRequests()[0].body, "{\"a\":1}");
  EXPECT_EQ(sim::CountCalls("WinHttpAddRequestHeaders"), 1U);
  EXPECT_EQ(sim::CountCalls("WinHttpAddRequestHeaders", "modifiers=0xa0000000"), 1U);
  EXPECT_EQ(sim::CountCalls("WinHttpSendRequest", "headers=null"), 1U);
  EXPECT_EQ(sim::CountCalls("WinHttpSendRequest", "optionalLength=0 totalLength=7"), 1U);
  EXPECT_EQ(sim::CountCalls("WinHttpWriteData"), 1U);
  EXPECT_EQ(sim::CountCalls("WinHttpWriteData", "size=7"), 1U);
}

TEST(HttpPut, SendsAnEmptyBodyWithoutWritingData) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  EXPECT_TRUE(Put(""));
  EXPECT_EQ(sim::CountCalls("WinHttpSendRequest", "totalLength=0"), 1U);
  EXPECT_EQ(sim::CountCalls("WinHttpWriteData"), 0U);
}

TEST(HttpPut, SendsAContentTypeAlwaysAndAuthorizationForATokenOnly) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  uint32_t status = 0;
  std::string body;
  EXPECT_TRUE(HttpPut(kUrl, L"", "x", L"", status, body));
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  EXPECT_EQ(sim::HttpRequests()[0].headers, L"Content-Type: \r\n");
}

TEST(HttpPut, LogsTheTokensLengthBeforeItSends) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  sim::Before("WinHttpSendRequest", [] { EXPECT_EQ(sim::LogLines(), Lines({"[CP REQUEST] access_len=6"})); });
  EXPECT_TRUE(Put());
  EXPECT_EQ(sim::CountCalls("WinHttpSendRequest"), 1U);
  EXPECT_EQ(sim::LogLines(), Lines({"[CP REQUEST] access_len=6"}));
}

TEST(HttpPut, CountsTheTokenInWideCharacters) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  uint32_t status = 0;
  std::string body;
  HttpPut(kUrl, L"\u00E9\u4E2D", "x", L"text/plain", status, body);
  HttpPut(kUrl, L"", "x", L"text/plain", status, body);
  EXPECT_EQ(sim::LogLines(), Lines({"[CP REQUEST] access_len=2", "[CP REQUEST] access_len=0"}));
}

TEST(HttpPut, IsTrueForEveryStatus) {
  for (const uint32_t code : {200U, 201U, 204U, 401U, 500U}) {
    SCOPED_TRACE(code);
    sim::Machine machine;
    AnswerAlways(Answer(code));
    EXPECT_TRUE(Put());
  }
}

TEST(HttpPut, FailsSilentlyUpToTheResponse) {
  for (const char* step :
       {"WinHttpCrackUrl", "WinHttpOpen", "WinHttpConnect", "WinHttpOpenRequest", "WinHttpAddRequestHeaders",
        "WinHttpSendRequest", "WinHttpWriteData", "WinHttpReceiveResponse"}) {
    SCOPED_TRACE(step);
    sim::Machine machine;
    AnswerAlways(Answer(200, "body"));
    sim::Fail({.operation = step});
    EXPECT_FALSE(Put());
    EXPECT_EQ(LogOfFailure(), Lines());
    EXPECT_EQ(sim::OpenHandles(), 0U);
  }
}

TEST(HttpPut, AShortWriteIsAFailure) {
  sim::Machine machine;
  AnswerAlways(Answer(200));
  sim::Shorten("WinHttpWriteData", 6);
  uint32_t status = 99;
  std::string body;
  EXPECT_FALSE(HttpPut(kUrl, L"secret", "{\"a\":1}", L"application/json", status, body));
  EXPECT_EQ(status, 0U);
  EXPECT_EQ(sim::CountCalls("WinHttpReceiveResponse"), 0U);
  EXPECT_EQ(LogOfFailure(), Lines());
}

TEST(HttpPut, TakesABodyThatBreaksOffAsItsEnd) {
  for (const char* step : {"WinHttpQueryDataAvailable", "WinHttpReadData"}) {
    SCOPED_TRACE(step);
    sim::Machine machine;
    AnswerAlways(Answer(200, "body"));
    sim::Fail({.operation = step});
    EXPECT_TRUE(Put());
    EXPECT_EQ(LogOfFailure(), Lines());
  }
}

}  // namespace
