// HTTP over WinHTTP: three blocking calls that open a session, a connection and a request and close them
// again. They differ in proxy mode, headers, what their boolean means and what they log, and the differences
// are wanted. `status` is 0 when no response arrived; `body` is the response's body as received. Tokens are
// never logged.
#pragma once

#include <cstdint>
#include <string>

inline constexpr wchar_t kJsonContentType[] = L"application/json";

// True only if the status is exactly 200; status and body count after a false return too. Logs every
// response.
bool HttpGet(const std::wstring& url, const std::wstring& bearerToken, uint32_t& status, std::string& body);

// True if the exchange finished, whatever the status.
bool HttpPostUtf8(const std::wstring& url, const std::wstring& bearerToken, const std::string& requestBody,
                  const std::wstring& contentType, uint32_t& status, std::string& body);

// True if the exchange finished, whatever the status. Logs the token's length.
bool HttpPut(const std::wstring& url, const std::wstring& bearerToken, const std::string& requestBody,
             const std::wstring& contentType, uint32_t& status, std::string& body);

// The first `bytes` bytes of a body as text for the log; empty if they are not valid UTF-8.
std::wstring BodyHead(const std::string& body, size_t bytes = 200);

inline bool Is2xx(uint32_t status) {
  return status >= 200 && status <= 299;
}
