// What HttpGet, HttpPostUtf8 and HttpPut have in common.
#include "controlplane/http_transport.h"

#include "controlplane/platform.h"
#include "controlplane_fixture.h"

namespace {

struct Method {
  const char* verb;
  bool (*send)(const std::wstring& url, uint32_t& status, std::string& body);
};

const Method kMethods[] = {{"GET", [](const std::wstring& url, uint32_t& status,
                                      std::string& body) { return HttpGet(url, L"token", status, body); }},
                           {"POST",
                            [](const std::wstring& url, uint32_t& status, std::string& body) {
                              return HttpPostUtf8(url, L"token", "{}", kJsonContentType, status, body);
                            }},
                           {"PUT", [](const std::wstring& url, uint32_t& status, std::string& body) {
                              return HttpPut(url, L"token", "{}", kJsonContentType, status, body);
                            }}};

constexpr wchar_t kUrl[] = L"https://plane.test:9443/v1/thing";

// The handles in the order in which WinHttpCloseHandle got them, as the trace shows them.
Lines ClosedHandles() {
  Lines handles;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == "WinHttpCloseHandle") handles.push_back(entry.arguments);
  }
  return handles;
}

// What the operations of that name gave back.
std::string ResultOf(const std::string& operation) {
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == operation) return entry.result;
  }
  return "(not called)";
}

TEST(HttpTransport, GivesStatusAndBodyOfTheAnswer) {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.verb);
    sim::Machine machine;
    const std::string raw("\xFF\0raw", 5);
    AnswerAlways(Answer(200, raw));
    uint32_t status = 99;
    std::string body = "stale";
    EXPECT_TRUE(method.send(kUrl, status, body));
    EXPECT_EQ(status, 200U);
    EXPECT_EQ(body, raw);
  }
}

TEST(HttpTransport, SendsTheVerbToTheHostOfTheUrl) {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.verb);
    sim::Machine machine;
    AnswerAlways(Answer(200));
    uint32_t status = 0;
    std::string body;
    method.send(L"https://plane.test:9443/v1/thing?email=a&b=c", status, body);
    ASSERT_EQ(sim::HttpRequests().size(), 1U);
    const sim::HttpRequest& request = sim::HttpRequests()[0];
    EXPECT_EQ(request.verb, method.verb);
    EXPECT_EQ(request.host, L"plane.test");
    EXPECT_EQ(request.port, 9443);
    EXPECT_TRUE(request.secure);
    EXPECT_EQ(request.path, L"/v1/thing?email=a&b=c");
    EXPECT_EQ(request.userAgent, L"TELVOR/1.0");
    EXPECT_EQ(sim::CountCalls("WinHttpOpenRequest", "flags=0x800000"), 1U);
  }
}

TEST(HttpTransport, SendsUnsecuredForAUrlThatIsNotHttps) {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.verb);
    sim::Machine machine;
    AnswerAlways(Answer(200));
    uint32_t status = 0;
    std::string body;
    EXPECT_TRUE(method.send(L"http://plane.test/v1/thing", status, body));
    ASSERT_EQ(sim::HttpRequests().size(), 1U);
    EXPECT_FALSE(sim::HttpRequests()[0].secure);
    EXPECT_EQ(sim::HttpRequests()[0].port, 80);
  }
}

TEST(HttpTransport, ClosesRequestConnectionAndSessionInThisOrder) {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.verb);
    sim::Machine machine;
    AnswerAlways(Answer(200, "body"));
    uint32_t status = 0;
    std::string body;
    method.send(kUrl, status, body);
    EXPECT_EQ(ClosedHandles(),
              Lines({ResultOf("WinHttpOpenRequest"), ResultOf("WinHttpConnect"), ResultOf("WinHttpOpen")}));
    EXPECT_EQ(sim::OpenHandles(), 0U);
  }
}

TEST(HttpTransport, ClosesWhatItOpenedWhateverFails) {
  const char* const steps[] = {"WinHttpOpen",        "WinHttpConnect",           "WinHttpOpenRequest",
                               "WinHttpSendRequest", "WinHttpReceiveResponse",   "WinHttpQueryHeaders",
                               "WinHttpReadData",    "WinHttpQueryDataAvailable"};
  for (const Method& method : kMethods) {
    for (const char* step : steps) {
      SCOPED_TRACE(std::string(method.verb) + " " + step);
      sim::Machine machine;
      AnswerAlways(Answer(200, "body"));
      sim::Fail({.operation = step});
      uint32_t status = 0;
      std::string body;
      method.send(kUrl, status, body);
      Lines opened;
      for (const char* operation : {"WinHttpOpenRequest", "WinHttpConnect", "WinHttpOpen"}) {
        const bool failed = operation == std::string(step);
        if (!failed && sim::CountCalls(operation) == 1) opened.push_back(ResultOf(operation));
      }
      EXPECT_EQ(ClosedHandles(), opened);
      EXPECT_EQ(sim::OpenHandles(), 0U);
    }
  }
}

TEST(HttpTransport, ClearsStatusAndBodyBeforeItFails) {
  const char* const steps[] = {"WinHttpCrackUrl",    "WinHttpOpen",        "WinHttpConnect",
                               "WinHttpOpenRequest", "WinHttpSendRequest", "WinHttpReceiveResponse"};
  for (const Method& method : kMethods) {
    for (const char* step : steps) {
      SCOPED_TRACE(std::string(method.verb) + " " + step);
      sim::Machine machine;
      AnswerAlways(Answer(200, "body"));
      sim::Fail({.operation = step});
      uint32_t status = 99;
      std::string body = "stale";
      EXPECT_FALSE(method.send(kUrl, status, body));
      EXPECT_EQ(status, 0U);
      EXPECT_EQ(body, "");
    }
  }
}

TEST(HttpTransport, LimitsHostAndPathToTheirBuffers) {
  const std::wstring url = L"https://";
  const struct {
    std::wstring url;
    bool fits;
  } cases[] = {{url + std::wstring(255, L'h') + L"/p", true},
               {url + std::wstring(256, L'h') + L"/p", false},
               {url + L"h/" + std::wstring(2046, L'p'), true},
               {url + L"h/" + std::wstring(2047, L'p'), false}};
  for (const Method& method : kMethods) {
    for (const auto& one : cases) {
      SCOPED_TRACE(std::string(method.verb) + " " + std::to_string(one.url.size()));
      sim::Machine machine;
      AnswerAlways(Answer(200));
      uint32_t status = 0;
      std::string body;
      EXPECT_EQ(method.send(one.url, status, body), one.fits);
      EXPECT_EQ(sim::CountCalls("WinHttpCrackUrl", "hostCapacity=256 pathCapacity=2048"), 1U);
    }
  }
}

TEST(HttpTransport, ReadsUntilNothingIsAvailable) {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.verb);
    sim::Machine machine;
    sim::HttpResponse response = Answer(200, "one two three");
    response.chunks = {3, 1, 9};
    AnswerAlways(response);
    uint32_t status = 0;
    std::string body;
    EXPECT_TRUE(method.send(kUrl, status, body));
    EXPECT_EQ(body, "one two three");
    EXPECT_EQ(sim::CountCalls("WinHttpReadData"), 3U);
    EXPECT_EQ(sim::CountCalls("WinHttpQueryDataAvailable"), 4U);
  }
}

TEST(HttpTransport, HoldsALargeBodyWhole) {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.verb);
    sim::Machine machine;
    std::string large;
    for (size_t i = 0; i < 3'000'000; ++i) large.push_back(static_cast<char>('a' + i % 23));
    AnswerAlways(Answer(200, large));
    uint32_t status = 0;
    std::string body;
    EXPECT_TRUE(method.send(kUrl, status, body));
    EXPECT_TRUE(body == large);
  }
}

TEST(HttpTransport, KeepsTheBodyReadBeforeAFailure) {
  for (const Method& method : kMethods) {
    for (const char* step : {"WinHttpReadData", "WinHttpQueryDataAvailable"}) {
      SCOPED_TRACE(std::string(method.verb) + " " + step);
      sim::Machine machine;
      sim::HttpResponse response = Answer(200, "one two three");
      response.chunks = {3, 10};
      AnswerAlways(response);
      sim::Fail({.operation = step, .skip = 1});
      uint32_t status = 0;
      std::string body;
      const bool isPut = method.verb == std::string("PUT");
      EXPECT_EQ(method.send(kUrl, status, body), isPut);
      EXPECT_EQ(status, 200U);
      EXPECT_EQ(body, "one");
    }
  }
}

TEST(HttpTransport, KeepsWhatAShortReadGaveAndGoesOn) {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.verb);
    sim::Machine machine;
    AnswerAlways(Answer(200, "one two three"));
    sim::Shorten("WinHttpReadData", 4);
    uint32_t status = 0;
    std::string body;
    EXPECT_TRUE(method.send(kUrl, status, body));
    EXPECT_EQ(body, "one two three");
  }
}

// For a PUT, and for it alone, a read of nothing is the end of the body.
TEST(HttpTransport, AReadOfNothingEndsTheBodyOfAPutOnly) {
  for (const Method& method : kMethods) {
    SCOPED_TRACE(method.verb);
    sim::Machine machine;
    sim::HttpResponse response = Answer(200, "one two three");
    response.chunks = {3, 10};
    AnswerAlways(response);
    sim::Shorten("WinHttpReadData", 0, "size=10");
    uint32_t status = 0;
    std::string body;
    const bool isPut = method.verb == std::string("PUT");
    EXPECT_TRUE(method.send(kUrl, status, body));
    EXPECT_EQ(body, isPut ? "one" : "one two three");
  }
}

TEST(HttpTransport, EachCallHasAConnectionOfItsOwn) {
  sim::Machine machine;
  AnswerAlways(Answer(500));
  uint32_t status = 0;
  std::string body;
  for (const Method& method : kMethods) method.send(kUrl, status, body);
  EXPECT_EQ(sim::CountCalls("WinHttpOpen"), 3U);
  EXPECT_EQ(sim::CountCalls("WinHttpConnect"), 3U);
  EXPECT_EQ(Sent(), Lines({"GET /v1/thing", "POST /v1/thing", "PUT /v1/thing"}));
}

TEST(HttpTransport, WritesNoTokenIntoTheLog) {
  for (const Method& method : kMethods) {
    for (const char* step : {"none", "WinHttpSendRequest", "WinHttpReceiveResponse", "WinHttpReadData"}) {
      SCOPED_TRACE(std::string(method.verb) + " " + step);
      sim::Machine machine;
      AnswerAlways(Answer(200, "body"));
      sim::Fail({.operation = step});
      uint32_t status = 0;
      std::string body;
      method.send(kUrl, status, body);
      EXPECT_EQ(sim::LogBytes().find("token"), std::string::npos);
    }
  }
}

TEST(BodyHead, CutsAtTheByteAndGivesNothingForASplitCharacter) {
  sim::Machine machine;
  EXPECT_EQ(BodyHead(""), L"");
  EXPECT_EQ(BodyHead(std::string(200, 'a')), std::wstring(200, L'a'));
  EXPECT_EQ(BodyHead(std::string(201, 'a')), std::wstring(200, L'a'));
  EXPECT_EQ(BodyHead(std::string(198, 'a') + "\xC3\xA9z"), std::wstring(198, L'a') + L"\u00E9");
  EXPECT_EQ(BodyHead(std::string(199, 'a') + "\xC3\xA9z"), L"");
  EXPECT_EQ(BodyHead("bad \xFF"), L"");
}

}  // namespace
