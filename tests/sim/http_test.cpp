#include "sim/http.h"

#include "controlplane/platform.h"
#include "sim_fixture.h"

namespace {

// One exchange by the calls of WinHTTP, its handles closed with the scope.
struct Exchange {
  explicit Exchange(const wchar_t* verb = L"GET")
      : session(platform::WinHttpOpen(L"agent", platform::kWinHttpAccessTypeNoProxy, 0)),
        connection(platform::WinHttpConnect(session, L"host.example", 8443)),
        request(platform::WinHttpOpenRequest(connection, verb, L"/path?q=1", platform::kWinHttpFlagSecure)) {}
  ~Exchange() {
    platform::WinHttpCloseHandle(request);
    platform::WinHttpCloseHandle(connection);
    platform::WinHttpCloseHandle(session);
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  bool Send() const { return platform::WinHttpSendRequest(request, nullptr, nullptr, 0, 0); }
  bool Receive() const { return Send() && platform::WinHttpReceiveResponse(request); }

  platform::Handle session;
  platform::Handle connection;
  platform::Handle request;
};

void AnswerWith(const sim::HttpResponse& response) {
  sim::SetHttpHandler([response](const sim::HttpRequest&) { return response; });
}

TEST(Http, WithoutAnEndpointNothingConnects) {
  sim::Machine machine;
  Exchange exchange;
  EXPECT_FALSE(exchange.Send());
  EXPECT_EQ(platform::GetLastError(), 12029u);
  EXPECT_TRUE(sim::HttpRequests().empty());
}

TEST(Http, TheEndpointSeesTheRequestAsItWasGiven) {
  sim::Machine machine;
  AnswerWith({});
  Exchange exchange(L"POST");
  const std::wstring headers = L"Accept: application/json\r\nAuthorization: Bearer abc\r\n";
  EXPECT_TRUE(platform::WinHttpSendRequest(exchange.request, headers.c_str(), "body", 4, 4));
  ASSERT_EQ(sim::HttpRequests().size(), 1u);
  const sim::HttpRequest& request = sim::HttpRequests()[0];
  EXPECT_EQ(request.verb, "POST");
  EXPECT_EQ(request.host, L"host.example");
  EXPECT_EQ(request.port, 8443);
  EXPECT_TRUE(request.secure);
  EXPECT_EQ(request.path8, "/path?q=1");
  EXPECT_EQ(request.headers, headers);
  EXPECT_EQ(request.bearer, "abc");
  EXPECT_EQ(request.body, "body");
  EXPECT_EQ(request.userAgent, L"agent");
  EXPECT_EQ(request.accessType, 1u);
}

TEST(Http, ABodyWrittenAfterwardsCompletesTheRequest) {
  sim::Machine machine;
  AnswerWith({});
  Exchange exchange(L"PUT");
  EXPECT_TRUE(platform::WinHttpSendRequest(exchange.request, nullptr, nullptr, 0, 4));
  EXPECT_TRUE(sim::HttpRequests().empty());
  uint32_t written = 0;
  EXPECT_TRUE(platform::WinHttpWriteData(exchange.request, "body", 4, written));
  EXPECT_EQ(written, 4u);
  ASSERT_EQ(sim::HttpRequests().size(), 1u);
  EXPECT_EQ(sim::HttpRequests()[0].body, "body");
  EXPECT_TRUE(platform::WinHttpReceiveResponse(exchange.request));
}

TEST(Http, TheResponseArrivesAfterItsTimeOrNotAtAll) {
  sim::Machine machine;
  sim::HttpResponse response;
  response.milliseconds = 30'000;
  AnswerWith(response);
  EXPECT_TRUE(Exchange().Receive());
  EXPECT_EQ(sim::Now(), 1'030'000u);
  response.milliseconds = 30'001;
  AnswerWith(response);
  EXPECT_FALSE(Exchange().Receive());
  EXPECT_EQ(platform::GetLastError(), 12002u);
  EXPECT_EQ(sim::Now(), 1'060'000u);
}

TEST(Http, FailuresComeWhereTheResponseSaysSo) {
  sim::Machine machine;
  sim::HttpResponse response;
  response.failSend = 12175;
  AnswerWith(response);
  EXPECT_FALSE(Exchange().Send());
  EXPECT_EQ(platform::GetLastError(), 12175u);
  response.failSend = 0;
  response.failReceive = 12152;
  AnswerWith(response);
  EXPECT_FALSE(Exchange().Receive());
  EXPECT_EQ(platform::GetLastError(), 12152u);
}

TEST(Http, TheBodyComesInChunksAndMayBreakOff) {
  sim::Machine machine;
  sim::HttpResponse response;
  response.body = "0123456789";
  response.chunks = {3, 20};
  response.failReadAfter = 10;
  AnswerWith(response);
  Exchange exchange;
  ASSERT_TRUE(exchange.Receive());
  uint32_t status = 0;
  EXPECT_TRUE(
      platform::WinHttpQueryHeaders(exchange.request, platform::kWinHttpQueryStatusCodeNumber, status));
  EXPECT_EQ(status, 200u);
  char buffer[32];
  uint32_t count = 0;
  EXPECT_TRUE(platform::WinHttpQueryDataAvailable(exchange.request, count));
  EXPECT_EQ(count, 3u);
  EXPECT_TRUE(platform::WinHttpReadData(exchange.request, buffer, 3, count));
  EXPECT_EQ(count, 3u);
  EXPECT_TRUE(platform::WinHttpQueryDataAvailable(exchange.request, count));
  EXPECT_EQ(count, 20u);
  EXPECT_TRUE(platform::WinHttpReadData(exchange.request, buffer, 20, count));
  EXPECT_EQ(std::string(buffer, count), "3456789");
  EXPECT_FALSE(platform::WinHttpQueryDataAvailable(exchange.request, count));
  EXPECT_EQ(platform::GetLastError(), 12030u);
}

// ---- Cracking URLs ----

platform::UrlComponents Crack(const std::wstring& url, bool expected) {
  platform::UrlComponents components;
  components.hostCapacity = 256;
  components.pathCapacity = 2048;
  EXPECT_EQ(platform::WinHttpCrackUrl(url, components), expected) << sim::Narrow(url);
  return components;
}

TEST(CrackUrl, SplitsHostPortAndPathWithItsQuery) {
  sim::Machine machine;
  const platform::UrlComponents components = Crack(L"https://cp.telvor.test:8443/v1/a?b=c#d", true);
  EXPECT_EQ(components.scheme, platform::kInternetSchemeHttps);
  EXPECT_EQ(components.host, L"cp.telvor.test");
  EXPECT_EQ(components.port, 8443);
  EXPECT_EQ(components.path, L"/v1/a?b=c#d");
  EXPECT_EQ(Crack(L"https://host", true).port, 443);
  EXPECT_EQ(Crack(L"http://host/", true).port, 80);
}

TEST(CrackUrl, RefusesWhatIsNoUrlAndWhatDoesNotFit) {
  sim::Machine machine;
  Crack(L"ftp://host/", false);
  EXPECT_EQ(platform::GetLastError(), 12006u);
  Crack(L"https:///path", false);
  Crack(L"https://host:65536/", false);
  Crack(L"https://host:x/", false);
  EXPECT_EQ(platform::GetLastError(), 12005u);
  Crack(L"https://" + std::wstring(255, L'h'), true);
  Crack(L"https://" + std::wstring(256, L'h'), false);
  EXPECT_EQ(platform::GetLastError(), 122u);
  Crack(L"https://host/" + std::wstring(2047, L'p'), false);
}

// ---- The control plane ----

TEST(ControlPlane, WantsItsTokenAndAnswersUnknownPathsWith404) {
  sim::Machine machine;
  sim::UseControlPlane().overrides.push_back({"GET /path", {.status = 418}});
  const auto statusOf = [](const wchar_t* verb, const std::wstring& path, const wchar_t* headers) {
    Exchange exchange;
    const platform::Handle request = platform::WinHttpOpenRequest(exchange.connection, verb, path, 0);
    EXPECT_TRUE(platform::WinHttpSendRequest(request, headers, nullptr, 0, 0));
    EXPECT_TRUE(platform::WinHttpReceiveResponse(request));
    uint32_t status = 0;
    platform::WinHttpQueryHeaders(request, platform::kWinHttpQueryStatusCodeNumber, status);
    platform::WinHttpCloseHandle(request);
    return status;
  };
  const wchar_t* token = L"Authorization: Bearer access-1\r\n";
  EXPECT_EQ(statusOf(L"GET", L"/v1/servers/locations", nullptr), 401u);
  EXPECT_EQ(statusOf(L"GET", L"/v1/servers/locations", token), 200u);
  EXPECT_EQ(statusOf(L"PUT", L"/v1/devices/d/wg-server", token), 200u);
  EXPECT_EQ(statusOf(L"GET", L"/v1/elsewhere", token), 404u);
  EXPECT_EQ(statusOf(L"GET", L"/path", nullptr), 418u);
}

TEST(ControlPlane, AnswersFromAnotherHandlerAsFromItsOwn) {
  sim::Machine machine;
  sim::UseControlPlane();
  sim::HttpRequest request;
  request.verb = "GET";
  request.path8 = "/v1/servers/locations";
  EXPECT_EQ(sim::ControlPlaneAnswer(request).status, 401u);
  request.bearer = "access-1";
  EXPECT_EQ(sim::ControlPlaneAnswer(request).status, 200u);
}

}  // namespace
