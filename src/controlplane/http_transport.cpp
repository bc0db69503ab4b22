#include "controlplane/http_transport.h"

#include "controlplane/platform.h"
#include "controlplane/text.h"
#include "service/log.h"

namespace {

constexpr wchar_t kUserAgent[] = L"TELVOR/1.0";
constexpr wchar_t kAcceptHeader[] = L"Accept: application/json\r\n";
constexpr wchar_t kPostFailure[] = L"HttpPostUtf8 transport failure";
constexpr uint32_t kHostCapacity = 256;
constexpr uint32_t kPathCapacity = 2048;
constexpr size_t kLoggedHeadBytes = 400;

// One request with all that it stands on; closed from the inside out.
struct OpenedRequest {
  platform::UrlComponents url;
  platform::Handle session = nullptr;
  platform::Handle connection = nullptr;
  platform::Handle request = nullptr;

  OpenedRequest() = default;
  OpenedRequest(const OpenedRequest&) = delete;
  OpenedRequest& operator=(const OpenedRequest&) = delete;
  ~OpenedRequest() {
    for (const platform::Handle handle : {request, connection, session})
      if (handle != nullptr) platform::WinHttpCloseHandle(handle);
  }
};

// Empty when the request is open, else the name of the step that failed and what it was given.
std::wstring OpenRequest(const std::wstring& url, const wchar_t* verb, uint32_t accessType,
                         OpenedRequest& opened) {
  opened.url.hostCapacity = kHostCapacity;
  opened.url.pathCapacity = kPathCapacity;
  if (!platform::WinHttpCrackUrl(url, opened.url)) return L"CrackUrl: " + url;
  opened.session = platform::WinHttpOpen(kUserAgent, accessType, 0);
  if (opened.session == nullptr) return L"WinHttpOpen: " + url;
  opened.connection = platform::WinHttpConnect(opened.session, opened.url.host, opened.url.port);
  if (opened.connection == nullptr) return L"WinHttpConnect: " + opened.url.host;
  const bool secure = opened.url.scheme == platform::kInternetSchemeHttps;
  opened.request = platform::WinHttpOpenRequest(opened.connection, verb, opened.url.path,
                                                secure ? platform::kWinHttpFlagSecure : 0);
  if (opened.request == nullptr) return L"WinHttpOpenRequest: " + opened.url.path;
  return {};
}

// No header at all without a token.
std::wstring AuthorizationHeader(const std::wstring& bearerToken, const std::wstring& shown) {
  return bearerToken.empty() ? std::wstring() : L"Authorization: Bearer " + shown + L"\r\n";
}

std::wstring ContentTypeHeader(const std::wstring& contentType) {
  return L"Content-Type: " + contentType + L"\r\n";
}

void QueryStatus(platform::Handle request, uint32_t& status) {
  uint32_t value = 0;
  if (platform::WinHttpQueryHeaders(request, platform::kWinHttpQueryStatusCodeNumber, value)) status = value;
}

// False if a step failed; what had been read before it stays in `body`.
bool ReadBody(platform::Handle request, bool emptyReadEndsBody, std::string& body) {
  while (true) {
    uint32_t available = 0;
    if (!platform::WinHttpQueryDataAvailable(request, available)) return false;
    if (available == 0) return true;
    const size_t before = body.size();
    body.resize(before + available);
    uint32_t read = 0;
    const bool ok = platform::WinHttpReadData(request, body.data() + before, available, read);
    body.resize(before + (ok ? read : 0));
    if (!ok) return false;
    if (read == 0 && emptyReadEndsBody) return true;
  }
}

bool SendPut(platform::Handle request, const std::wstring& headers, const std::wstring& bearerToken,
             const std::string& requestBody) {
  if (!platform::WinHttpAddRequestHeaders(request, headers, platform::kWinHttpAddReqFlagAddReplace))
    return false;
  LogLine(L"[CP REQUEST] access_len=" + std::to_wstring(bearerToken.size()));
  const uint32_t size = static_cast<uint32_t>(requestBody.size());
  if (!platform::WinHttpSendRequest(request, nullptr, nullptr, 0, size)) return false;
  if (size == 0) return true;
  uint32_t written = 0;
  return platform::WinHttpWriteData(request, requestBody.data(), size, written) && written == size;
}

}  // namespace

bool HttpGet(const std::wstring& url, const std::wstring& bearerToken, uint32_t& status, std::string& body) {
  status = 0;
  body.clear();
  OpenedRequest opened;
  const std::wstring failure = OpenRequest(url, L"GET", platform::kWinHttpAccessTypeDefaultProxy, opened);
  if (!failure.empty()) {
    LogLine(failure);
    return false;
  }
  const std::wstring headers = kAcceptHeader + AuthorizationHeader(bearerToken, bearerToken);
  if (!platform::WinHttpSendRequest(opened.request, headers.c_str(), nullptr, 0, 0)) {
    const uint32_t code = platform::GetLastError();
    LogLine(L"WinHttpSendRequest FAILED gle=" + std::to_wstring(code) + L" host=" + opened.url.host +
            L" port=" + std::to_wstring(opened.url.port) + L" path=" + opened.url.path + L" headers=" +
            kAcceptHeader + AuthorizationHeader(bearerToken, L"<redacted>"));
    return false;
  }
  if (!platform::WinHttpReceiveResponse(opened.request)) {
    const uint32_t code = platform::GetLastError();
    LogLine(L"WinHttpReceiveResponse failed GLE=" + std::to_wstring(code));
    return false;
  }
  QueryStatus(opened.request, status);
  if (!ReadBody(opened.request, false, body)) return false;
  LogLine(L"HTTP GET status=" + std::to_wstring(status) + L" body-head=" + BodyHead(body, kLoggedHeadBytes));
  return status == 200;
}

bool HttpPostUtf8(const std::wstring& url, const std::wstring& bearerToken, const std::string& requestBody,
                  const std::wstring& contentType, uint32_t& status, std::string& body) {
  status = 0;
  body.clear();
  OpenedRequest opened;
  // No proxy here, while the other two take the default one: wanted.
  if (!OpenRequest(url, L"POST", platform::kWinHttpAccessTypeNoProxy, opened).empty()) return false;
  std::wstring headers = kAcceptHeader;
  if (!contentType.empty()) headers += ContentTypeHeader(contentType);
  headers += AuthorizationHeader(bearerToken, bearerToken);
  const uint32_t size = static_cast<uint32_t>(requestBody.size());
  if (!platform::WinHttpSendRequest(opened.request, headers.c_str(), requestBody.data(), size, size)) {
    const uint32_t code = platform::GetLastError();
    LogWin32Error(kPostFailure, code);
    return false;
  }
  if (!platform::WinHttpReceiveResponse(opened.request)) {
    const uint32_t code = platform::GetLastError();
    // The prefix speaks of a profile whatever the request was; wanted.
    LogLine(L"Bootstrap: wg-profile HTTP " + std::to_wstring(status) + L" body-head=" + BodyHead(body));
    LogWin32Error(kPostFailure, code);
    return false;
  }
  QueryStatus(opened.request, status);
  return ReadBody(opened.request, false, body);
}

bool HttpPut(const std::wstring& url, const std::wstring& bearerToken, const std::string& requestBody,
             const std::wstring& contentType, uint32_t& status, std::string& body) {
  status = 0;
  body.clear();
  OpenedRequest opened;
  if (!OpenRequest(url, L"PUT", platform::kWinHttpAccessTypeDefaultProxy, opened).empty()) return false;
  const std::wstring headers = ContentTypeHeader(contentType) + AuthorizationHeader(bearerToken, bearerToken);
  if (!SendPut(opened.request, headers, bearerToken, requestBody)) return false;
  if (!platform::WinHttpReceiveResponse(opened.request)) return false;
  QueryStatus(opened.request, status);
  // A body that breaks off counts as complete here; wanted.
  ReadBody(opened.request, true, body);
  return true;
}

std::wstring BodyHead(const std::string& body, size_t bytes) {
  return Utf8ToWide(body.substr(0, bytes));
}
