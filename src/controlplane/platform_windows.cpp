// The Windows side of controlplane/platform.h.
#include "controlplane/platform.h"

// clang-format off
#include <windows.h>
#include <winhttp.h>
// clang-format on

namespace platform {

static_assert(sizeof(URL_COMPONENTS) == 104 && kInternetSchemeHttps == INTERNET_SCHEME_HTTPS);
static_assert(kWinHttpAccessTypeDefaultProxy == WINHTTP_ACCESS_TYPE_DEFAULT_PROXY);
static_assert(kWinHttpAccessTypeNoProxy == WINHTTP_ACCESS_TYPE_NO_PROXY);
static_assert(kWinHttpFlagSecure == WINHTTP_FLAG_SECURE);
static_assert(kWinHttpAddReqFlagAddReplace == (WINHTTP_ADDREQ_FLAG_ADD | WINHTTP_ADDREQ_FLAG_REPLACE));
static_assert(kWinHttpQueryStatusCodeNumber == (WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER));

namespace {

// WinHTTP's length argument for a text that ends in a zero.
constexpr DWORD kWholeText = static_cast<DWORD>(-1);

}  // namespace

bool WinHttpCrackUrl(const std::wstring& url, UrlComponents& components) {
  std::wstring host(components.hostCapacity, L'\0');
  std::wstring path(components.pathCapacity, L'\0');
  URL_COMPONENTS parts{};
  parts.dwStructSize = sizeof(parts);
  parts.lpszHostName = host.data();
  parts.dwHostNameLength = components.hostCapacity;
  parts.lpszUrlPath = path.data();
  parts.dwUrlPathLength = components.pathCapacity;
  if (!::WinHttpCrackUrl(url.c_str(), 0, 0, &parts)) return false;
  components.scheme = parts.nScheme;
  components.port = parts.nPort;
  components.host.assign(host, 0, parts.dwHostNameLength);
  components.path.assign(path, 0, parts.dwUrlPathLength);
  return true;
}

Handle WinHttpOpen(const wchar_t* userAgent, uint32_t accessType, uint32_t flags) {
  return ::WinHttpOpen(userAgent, accessType, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, flags);
}

Handle WinHttpConnect(Handle session, const std::wstring& host, uint16_t port) {
  return ::WinHttpConnect(session, host.c_str(), port, 0);
}

Handle WinHttpOpenRequest(Handle connection, const wchar_t* verb, const std::wstring& path, uint32_t flags) {
  return ::WinHttpOpenRequest(connection, verb, path.c_str(), nullptr, WINHTTP_NO_REFERER,
                              WINHTTP_DEFAULT_ACCEPT_TYPES, flags);
}

bool WinHttpAddRequestHeaders(Handle request, const std::wstring& headers, uint32_t modifiers) {
  return ::WinHttpAddRequestHeaders(request, headers.c_str(), kWholeText, modifiers) != 0;
}

bool WinHttpSendRequest(Handle request, const wchar_t* headers, const void* optional, uint32_t optionalLength,
                        uint32_t totalLength) {
  return ::WinHttpSendRequest(request, headers, headers == nullptr ? 0 : kWholeText,
                              const_cast<void*>(optional), optionalLength, totalLength, 0) != 0;
}

bool WinHttpWriteData(Handle request, const void* bytes, uint32_t size, uint32_t& written) {
  DWORD count = 0;
  bool ok = ::WinHttpWriteData(request, bytes, size, &count) != 0;
  written = count;
  return ok;
}

bool WinHttpReceiveResponse(Handle request) {
  return ::WinHttpReceiveResponse(request, nullptr) != 0;
}

bool WinHttpQueryHeaders(Handle request, uint32_t infoLevel, uint32_t& value) {
  DWORD number = 0;
  DWORD size = sizeof(number);
  bool ok = ::WinHttpQueryHeaders(request, infoLevel, WINHTTP_HEADER_NAME_BY_INDEX, &number, &size,
                                  WINHTTP_NO_HEADER_INDEX) != 0;
  value = number;
  return ok;
}

bool WinHttpQueryDataAvailable(Handle request, uint32_t& available) {
  DWORD count = 0;
  bool ok = ::WinHttpQueryDataAvailable(request, &count) != 0;
  available = count;
  return ok;
}

bool WinHttpReadData(Handle request, void* buffer, uint32_t size, uint32_t& read) {
  DWORD count = 0;
  bool ok = ::WinHttpReadData(request, buffer, size, &count) != 0;
  read = count;
  return ok;
}

bool WinHttpCloseHandle(Handle handle) {
  return ::WinHttpCloseHandle(handle) != 0;
}

bool GetComputerNameW(wchar_t* buffer, uint32_t& size) {
  DWORD length = size;
  bool ok = ::GetComputerNameW(buffer, &length) != 0;
  size = length;
  return ok;
}

}  // namespace platform
