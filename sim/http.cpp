// WinHTTP: sessions, connections and requests, the cracking of URLs, and the one endpoint behind them.
#include "http.h"

#include <algorithm>

#include "case.h"
#include "controlplane/platform.h"
#include "device.h"

namespace sim {
namespace {

constexpr uint32_t kErrorInsufficientBuffer = 122;
constexpr uint32_t kWinHttpTimeout = 12002;
constexpr uint32_t kWinHttpInvalidUrl = 12005;
constexpr uint32_t kWinHttpUnrecognizedScheme = 12006;
constexpr uint32_t kWinHttpIncorrectHandleState = 12019;
constexpr uint32_t kWinHttpCannotConnect = 12029;
constexpr uint32_t kWinHttpConnectionError = 12030;
constexpr uint32_t kWinHttpHeaderNotFound = 12150;
constexpr uint32_t kReceiveTimeout = 30'000;  // milliseconds, WinHTTP's default
constexpr uint32_t kDefaultChunk = 8192;
constexpr int kSchemeHttp = 1;

struct HttpObject : Object {
  HttpObject() : Object("http") {}
};

struct Session : HttpObject {
  std::wstring userAgent;
  uint32_t accessType = 0;
};

struct Connection : HttpObject {
  std::shared_ptr<Session> session;
  std::wstring host;
  uint16_t port = 0;
};

struct Exchange : HttpObject {
  HttpRequest request;
  bool sent = false;
  uint32_t bodySize = 0;  // as announced
  bool answered = false;  // the handler has been called
  bool received = false;
  HttpResponse response;
  uint64_t arrival = 0;
  size_t taken = 0;  // bytes of the response's body
  size_t chunk = 0;  // the next of response.chunks
};

HttpHandler gHandler;
std::vector<HttpRequest> gRequests;

const Device kDevice("http", [] {
  gHandler = nullptr;
  gRequests.clear();
});

std::string BearerIn(const std::wstring& headers) {
  const std::wstring mark = L"Authorization: Bearer ";
  const size_t at = headers.find(mark);
  if (at == std::wstring::npos) return "";
  const size_t from = at + mark.size();
  return Narrow(headers.substr(from, headers.find(L'\r', from) - from));
}

// The request is complete: asks the endpoint. Fails the call if the exchange fails on the way there.
bool Deliver(Call& call, Exchange& exchange) {
  if (!gHandler) return call.Fail(kWinHttpCannotConnect);
  exchange.request.bearer = BearerIn(exchange.request.headers);
  gRequests.push_back(exchange.request);
  // A copy: the handler may install another.
  const HttpHandler handler = gHandler;
  exchange.response = handler(exchange.request);
  exchange.answered = true;
  exchange.arrival = Now() + exchange.response.milliseconds;
  return exchange.response.failSend == 0 || call.Fail(exchange.response.failSend);
}

bool DeliverIfComplete(Call& call, Exchange& exchange) {
  return exchange.request.body.size() < exchange.bodySize || Deliver(call, exchange);
}

size_t BodyLeft(const Exchange& exchange) {
  return exchange.response.body.size() - exchange.taken;
}

uint32_t NextChunk(const Exchange& exchange) {
  const auto left = static_cast<uint32_t>(BodyLeft(exchange));
  const std::vector<uint32_t>& chunks = exchange.response.chunks;
  if (left == 0) return 0;
  if (chunks.empty()) return std::min(left, kDefaultChunk);
  return exchange.chunk < chunks.size() ? chunks[exchange.chunk] : left;
}

// ---- URLs ----

struct SplitUrl {
  int scheme = 0;
  std::wstring host;
  std::wstring port;
  std::wstring path;
};

uint32_t Split(const std::wstring& url, SplitUrl& split) {
  const size_t mark = url.find(L"://");
  if (mark == std::wstring::npos) return kWinHttpUnrecognizedScheme;
  const std::wstring scheme = LowerCase(url.substr(0, mark));
  if (scheme != L"http" && scheme != L"https") return kWinHttpUnrecognizedScheme;
  split.scheme = scheme == L"http" ? kSchemeHttp : platform::kInternetSchemeHttps;
  const std::wstring rest = url.substr(mark + 3);
  const size_t end = std::min(rest.find_first_of(L"/?#"), rest.size());
  std::wstring authority = rest.substr(0, end);
  split.path = rest.substr(end);
  authority.erase(0, authority.rfind(L'@') + 1);
  const size_t colon = authority.rfind(L':');
  const bool literal = !authority.empty() && authority.back() == L']';
  if (colon != std::wstring::npos && !literal) {
    split.port = authority.substr(colon + 1);
    authority.erase(colon);
  }
  split.host = authority;
  return split.host.empty() ? kWinHttpInvalidUrl : 0;
}

// An empty port is the scheme's own.
bool ParsePort(const SplitUrl& split, uint16_t& port) {
  constexpr uint32_t kHighestPort = 65535;
  uint32_t number = split.scheme == kSchemeHttp ? 80 : 443;
  if (!split.port.empty()) {
    number = 0;
    for (const wchar_t digit : split.port) {
      if (digit < L'0' || digit > L'9' || number > kHighestPort) return false;
      number = number * 10 + static_cast<uint32_t>(digit - L'0');
    }
  }
  port = static_cast<uint16_t>(number);
  return number <= kHighestPort;
}

template <class T>
platform::Handle Opened(Call& call, std::shared_ptr<T> object) {
  platform::Handle handle = OpenHandle(std::move(object));
  call.SetResult(Args("handle", handle));
  return handle;
}

platform::Handle NotOpened(Call& call, uint32_t code) {
  call.Fail(code);
  return nullptr;
}

// The exchange behind a handle, once its response has arrived; null fails the call.
std::shared_ptr<Exchange> Received(Call& call, std::string_view operation, platform::Handle request) {
  auto exchange = Use<Exchange>(operation, request);
  if (!exchange) {
    call.Fail(kErrorInvalidHandle);
  } else if (!exchange->received) {
    call.Fail(kWinHttpIncorrectHandleState);
    exchange = nullptr;
  }
  return exchange;
}

}  // namespace

void SetHttpHandler(HttpHandler handler) {
  Guard guard;
  gHandler = std::move(handler);
}

const std::vector<HttpRequest>& HttpRequests() {
  return gRequests;
}

void ClearHttpRequests() {
  Guard guard;
  gRequests.clear();
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

bool WinHttpCrackUrl(const std::wstring& url, UrlComponents& components) {
  Call call("WinHttpCrackUrl", Args("url", url, "hostCapacity", components.hostCapacity, "pathCapacity",
                                    components.pathCapacity));
  if (call.Faulted()) return false;
  sim::SplitUrl split;
  const std::wstring text = url.substr(0, url.find(L'\0'));  // all that a pointer to it tells
  if (const uint32_t error = sim::Split(text, split)) return call.Fail(error);
  uint16_t port = 0;
  if (!sim::ParsePort(split, port)) return call.Fail(sim::kWinHttpInvalidUrl);
  if (split.host.size() >= components.hostCapacity || split.path.size() >= components.pathCapacity) {
    return call.Fail(sim::kErrorInsufficientBuffer);
  }
  components.scheme = split.scheme;
  components.port = port;
  components.host = split.host;
  components.path = split.path;
  return true;
}

Handle WinHttpOpen(const wchar_t* userAgent, uint32_t accessType, uint32_t flags) {
  Call call("WinHttpOpen", Args("userAgent", userAgent, "accessType", accessType, "flags", flags));
  if (call.Faulted()) return nullptr;
  auto session = std::make_shared<sim::Session>();
  session->userAgent = userAgent ? userAgent : L"";
  session->accessType = accessType;
  return sim::Opened(call, session);
}

Handle WinHttpConnect(Handle session, const std::wstring& host, uint16_t port) {
  Call call("WinHttpConnect", Args("session", session, "host", host, "port", port));
  if (call.Faulted()) return nullptr;
  auto connection = std::make_shared<sim::Connection>();
  connection->session = sim::Use<sim::Session>("WinHttpConnect", session);
  if (!connection->session) return sim::NotOpened(call, sim::kErrorInvalidHandle);
  connection->host = host;
  connection->port = port;
  return sim::Opened(call, connection);
}

Handle WinHttpOpenRequest(Handle connection, const wchar_t* verb, const std::wstring& path, uint32_t flags) {
  Call call("WinHttpOpenRequest",
            Args("connection", connection, "verb", verb, "path", path, "flags", sim::Hex{flags}));
  if (call.Faulted()) return nullptr;
  const auto parent = sim::Use<sim::Connection>("WinHttpOpenRequest", connection);
  if (!parent) return sim::NotOpened(call, sim::kErrorInvalidHandle);
  auto exchange = std::make_shared<sim::Exchange>();
  sim::HttpRequest& request = exchange->request;
  request.verb = sim::Narrow(verb);
  request.host = parent->host;
  request.port = parent->port;
  request.secure = (flags & kWinHttpFlagSecure) != 0;
  request.path = path;
  request.path8 = sim::Narrow(path);
  request.userAgent = parent->session->userAgent;
  request.accessType = parent->session->accessType;
  return sim::Opened(call, exchange);
}

bool WinHttpAddRequestHeaders(Handle request, const std::wstring& headers, uint32_t modifiers) {
  Call call("WinHttpAddRequestHeaders",
            Args("request", request, "headers", headers, "modifiers", sim::Hex{modifiers}));
  if (call.Faulted()) return false;
  const auto exchange = sim::Use<sim::Exchange>("WinHttpAddRequestHeaders", request);
  if (!exchange) return call.Fail(sim::kErrorInvalidHandle);
  if (exchange->sent) return call.Fail(sim::kWinHttpIncorrectHandleState);
  exchange->request.headers += headers;
  return true;
}

bool WinHttpSendRequest(Handle request, const wchar_t* headers, const void* optional, uint32_t optionalLength,
                        uint32_t totalLength) {
  const std::string data = optional ? std::string(static_cast<const char*>(optional), optionalLength) : "";
  Call call("WinHttpSendRequest", Args("request", request, "headers", headers, "optional", data,
                                       "optionalLength", optionalLength, "totalLength", totalLength));
  if (call.Faulted()) return false;
  const auto exchange = sim::Use<sim::Exchange>("WinHttpSendRequest", request);
  if (!exchange) return call.Fail(sim::kErrorInvalidHandle);
  if (!sim::gHandler) return call.Fail(sim::kWinHttpCannotConnect);
  if (headers) exchange->request.headers += headers;
  exchange->sent = true;
  exchange->bodySize = totalLength;
  exchange->request.body = data;
  return sim::DeliverIfComplete(call, *exchange);
}

bool WinHttpWriteData(Handle request, const void* bytes, uint32_t size, uint32_t& written) {
  const std::string data(static_cast<const char*>(bytes), size);
  Call call("WinHttpWriteData", Args("request", request, "bytes", data, "size", size));
  written = 0;
  if (call.Faulted()) return false;
  const auto exchange = sim::Use<sim::Exchange>("WinHttpWriteData", request);
  if (!exchange) return call.Fail(sim::kErrorInvalidHandle);
  if (!exchange->sent || exchange->answered) return call.Fail(sim::kWinHttpIncorrectHandleState);
  const uint32_t taken = call.Shortened(size);
  exchange->request.body += data.substr(0, taken);
  if (!sim::DeliverIfComplete(call, *exchange)) return false;
  written = taken;
  call.SetResult(Args("written", written));
  return true;
}

bool WinHttpReceiveResponse(Handle request) {
  Call call("WinHttpReceiveResponse", Args("request", request));
  if (call.Faulted()) return false;
  const auto exchange = sim::Use<sim::Exchange>("WinHttpReceiveResponse", request);
  if (!exchange) return call.Fail(sim::kErrorInvalidHandle);
  if (!exchange->sent) return call.Fail(sim::kWinHttpIncorrectHandleState);
  // An endpoint that waits for the rest of a body never answers.
  const auto arrived = [&exchange] { return exchange->answered && sim::Now() >= exchange->arrival; };
  const uint64_t arrival = exchange->answered ? exchange->arrival : UINT64_MAX;
  const uint64_t wait = arrival - std::min(arrival, sim::Now());
  call.WaitFor(arrived, static_cast<uint32_t>(std::min<uint64_t>(wait, sim::kReceiveTimeout)));
  if (!arrived()) return call.Fail(sim::kWinHttpTimeout);
  if (exchange->response.failReceive != 0) return call.Fail(exchange->response.failReceive);
  exchange->received = true;
  call.SetResult(Args("status", exchange->response.status));
  return true;
}

bool WinHttpQueryHeaders(Handle request, uint32_t infoLevel, uint32_t& value) {
  Call call("WinHttpQueryHeaders", Args("request", request, "infoLevel", sim::Hex{infoLevel}));
  if (call.Faulted()) return false;
  const auto exchange = sim::Received(call, "WinHttpQueryHeaders", request);
  if (!exchange) return false;
  if (infoLevel != kWinHttpQueryStatusCodeNumber) return call.Fail(sim::kWinHttpHeaderNotFound);
  value = exchange->response.status;
  call.SetResult(Args("value", value));
  return true;
}

bool WinHttpQueryDataAvailable(Handle request, uint32_t& available) {
  Call call("WinHttpQueryDataAvailable", Args("request", request));
  if (call.Faulted()) return false;
  const auto exchange = sim::Received(call, "WinHttpQueryDataAvailable", request);
  if (!exchange) return false;
  if (exchange->taken >= exchange->response.failReadAfter) return call.Fail(sim::kWinHttpConnectionError);
  available = sim::NextChunk(*exchange);
  ++exchange->chunk;
  call.SetResult(Args("available", available));
  return true;
}

bool WinHttpReadData(Handle request, void* buffer, uint32_t size, uint32_t& read) {
  Call call("WinHttpReadData", Args("request", request, "size", size));
  read = 0;
  if (call.Faulted()) return false;
  const auto exchange = sim::Received(call, "WinHttpReadData", request);
  if (!exchange) return false;
  const size_t count = std::min<size_t>(call.Shortened(size), sim::BodyLeft(*exchange));
  exchange->response.body.copy(static_cast<char*>(buffer), count, exchange->taken);
  exchange->taken += count;
  read = static_cast<uint32_t>(count);
  call.SetResult(Args("read", read));
  return true;
}

bool WinHttpCloseHandle(Handle handle) {
  return sim::CloseAs<sim::HttpObject>("WinHttpCloseHandle", handle);
}

}  // namespace platform
