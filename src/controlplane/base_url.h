// The control plane's base URL and the look-up of its host.
#pragma once

#include <string>
#include <vector>

#include "engine/operations.h"

// The built-in default: an https URL without a path.
extern const wchar_t kDefaultCpBaseUrl[];

// The base URL of the account calls. Starts as the default; read without a lock.
extern std::wstring gCpBaseUrl;

// False unless the URL begins with "https://" and has a host and, if any, a port of 1 to 65535. A path is
// dropped.
bool ParseHttpsBaseUrl(const std::wstring& url, ParsedBaseUrl& parsed);

// Dotted IPv4 addresses of the host, sorted ascending as text, without duplicates. Empty on failure.
std::vector<std::wstring> ResolveHostIpV4(const std::wstring& host);

// Sets gCpBaseUrl to the default URL in normal form: no path, no default port.
void InitCpBaseUrl();

// Removes one trailing slash, if there is one.
void NormalizeBaseUrl(std::wstring& url);

// NormalizeBaseUrl of a copy of `base`, and `path` behind it.
std::wstring CpUrl(std::wstring base, const std::wstring& path);
