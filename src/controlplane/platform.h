// The Windows operations that the control-plane client needs beyond service/platform.h: WinHTTP and the
// computer's name. See service/platform.h for the rules.
#pragma once

#include <cstdint>
#include <string>

#include "service/platform.h"

namespace platform {

inline constexpr int kInternetSchemeHttps = 2;

// URL_COMPONENTS (104 bytes) with a host and a path buffer of the given capacities in wide characters, all
// other component pointers null: no extra-info component is asked for, so the query stays in the path.
struct UrlComponents {
  uint32_t hostCapacity = 0;
  uint32_t pathCapacity = 0;
  int scheme = 0;
  uint16_t port = 0;
  std::wstring host;
  std::wstring path;
};
bool WinHttpCrackUrl(const std::wstring& url, UrlComponents& components);

inline constexpr uint32_t kWinHttpAccessTypeDefaultProxy = 0;
inline constexpr uint32_t kWinHttpAccessTypeNoProxy = 1;
inline constexpr uint32_t kWinHttpFlagSecure = 0x00800000;
inline constexpr uint32_t kWinHttpAddReqFlagAddReplace = 0xA0000000;
inline constexpr uint32_t kWinHttpQueryStatusCodeNumber = 0x20000013;

// No proxy name, no bypass list. Null on failure, as for the next two.
Handle WinHttpOpen(const wchar_t* userAgent, uint32_t accessType, uint32_t flags);
Handle WinHttpConnect(Handle session, const std::wstring& host, uint16_t port);
// No version, referrer or accept types of its own.
Handle WinHttpOpenRequest(Handle connection, const wchar_t* verb, const std::wstring& path, uint32_t flags);
// Length -1: the whole text.
bool WinHttpAddRequestHeaders(Handle request, const std::wstring& headers, uint32_t modifiers);
// A null `headers` sends none of its own (else length -1); a null `optional` sends no data with the call.
bool WinHttpSendRequest(Handle request, const wchar_t* headers, const void* optional, uint32_t optionalLength,
                        uint32_t totalLength);
bool WinHttpWriteData(Handle request, const void* bytes, uint32_t size, uint32_t& written);
bool WinHttpReceiveResponse(Handle request);
// Into a 32-bit value of size 4, no header name, no index.
bool WinHttpQueryHeaders(Handle request, uint32_t infoLevel, uint32_t& value);
bool WinHttpQueryDataAvailable(Handle request, uint32_t& available);
bool WinHttpReadData(Handle request, void* buffer, uint32_t size, uint32_t& read);
bool WinHttpCloseHandle(Handle handle);

// `size` is the buffer's size in characters on entry and the name's length on success.
bool GetComputerNameW(wchar_t* buffer, uint32_t& size);

}  // namespace platform
