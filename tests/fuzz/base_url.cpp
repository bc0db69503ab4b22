// Base URLs, and the URLs that requests are sent to.
#include "controlplane/base_url.h"

#include <algorithm>

#include "controlplane/http_transport.h"
#include "fuzz/target.h"
#include "sim/http.h"
#include "sim/kernel.h"

namespace fuzz {
namespace {

// The number at the front of the text as _wtoi reads it.
int64_t NaivePort(const std::wstring& text) {
  size_t at = 0;
  while (at < text.size() && (text[at] == L' ' || (text[at] >= 9 && text[at] <= 13))) ++at;
  const bool minus = at < text.size() && text[at] == L'-';
  if (at < text.size() && (minus || text[at] == L'+')) ++at;
  int64_t port = 0;
  for (; at < text.size() && text[at] >= L'0' && text[at] <= L'9'; ++at)
    port = std::min<int64_t>(port * 10 + (text[at] - L'0'), 4'000'000'000);
  return minus ? -port : port;
}

// Whether the URL is usable, and then its host and port.
bool NaiveParse(const std::wstring& url, std::wstring& host, int64_t& port) {
  if (url.substr(0, 8) != L"https://") return false;
  host.clear();
  for (size_t at = 8; at < url.size() && url[at] != L'/'; ++at) host += url[at];
  port = 443;
  for (size_t at = host.size(); at-- > 0;) {
    if (host[at] != L':') continue;
    port = at + 1 == host.size() ? 0 : NaivePort(host.substr(at + 1));
    host = host.substr(0, at);
    break;
  }
  return !host.empty() && port >= 1 && port <= 65535;
}

void HoldParse(const std::wstring& url) {
  ParsedBaseUrl parsed{L"left", L"over", 7};
  std::wstring host;
  int64_t port = 0;
  const bool usable = NaiveParse(url, host, port);
  Require(ParseHttpsBaseUrl(url, parsed) == usable, "ParseHttpsBaseUrl says what is usable");
  if (!usable) return;
  Require(parsed.scheme == L"https" && parsed.host == host && parsed.port == port, "ParseHttpsBaseUrl");
  ParsedBaseUrl again;
  const std::wstring normal = L"https://" + parsed.host + L":" + std::to_wstring(parsed.port);
  Require(ParseHttpsBaseUrl(normal, again) && again.host == parsed.host && again.port == parsed.port,
          "a base URL put together again is the same");
}

void HoldPath(const std::wstring& base) {
  std::wstring normal = base;
  NormalizeBaseUrl(normal);
  const bool slash = !base.empty() && base.back() == L'/';
  Require(normal == base.substr(0, base.size() - (slash ? 1 : 0)), "NormalizeBaseUrl drops one slash");
  Require(CpUrl(base, L"/v1") == normal + L"/v1", "CpUrl");
}

// Whatever the URL, at most one request is sent, and all that was opened for it is closed.
void HoldRequest(const std::wstring& url) {
  const sim::Machine machine;
  sim::SetHttpHandler([](const sim::HttpRequest&) { return sim::HttpResponse{.body = "x"}; });
  uint32_t status = 99;
  std::string body = "left over";
  const bool answered = HttpGet(url, L"", status, body);
  const auto& requests = sim::HttpRequests();
  Require(answered == (requests.size() == 1) && status == (answered ? 200u : 0u), "HttpGet tells the truth");
  Require(body == (answered ? "x" : ""), "HttpGet gives the body");
  Require(requests.empty() || (requests[0].host.size() < 256 && requests[0].path.size() < 2048),
          "host and path keep their limits");
  Require(sim::OpenHandles("http") == 0, "every handle is closed");
}

}  // namespace

void RunBaseUrl(const std::string& bytes) {
  std::wstring url = sim::Widen(bytes);
  HoldParse(url);
  HoldPath(url);
  HoldRequest(url);
}

}  // namespace fuzz
