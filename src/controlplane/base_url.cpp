#include "controlplane/base_url.h"

#include <algorithm>
#include <cwchar>
#include <limits>
#include <string_view>

#include "service/platform.h"
#include "service/wide_text.h"

const wchar_t kDefaultCpBaseUrl[] = TELVOR_CP_BASE_URL;

std::wstring gCpBaseUrl = kDefaultCpBaseUrl;

namespace {

constexpr std::wstring_view kHttpsPrefix = L"https://";
constexpr int32_t kHttpsPort = 443;
constexpr uint32_t kAddressTextCapacity = 22;

// _wtoi: leading white space, a sign, digits; saturates at 32 bits and ignores what follows.
int32_t WideToInt(const std::wstring& text) {
  const long long number = std::wcstoll(text.c_str(), nullptr, 10);
  return static_cast<int32_t>(std::clamp<long long>(number, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

std::wstring NormalFormOfDefault() {
  ParsedBaseUrl parsed;
  if (!ParseHttpsBaseUrl(kDefaultCpBaseUrl, parsed)) return kDefaultCpBaseUrl;
  std::wstring url = std::wstring(kHttpsPrefix) + parsed.host;
  if (parsed.port >= 1 && parsed.port != kHttpsPort) url += L":" + std::to_wstring(parsed.port);
  return url;
}

}  // namespace

bool ParseHttpsBaseUrl(const std::wstring& url, ParsedBaseUrl& parsed) {
  parsed = ParsedBaseUrl();
  if (!url.starts_with(kHttpsPrefix)) return false;
  parsed.scheme = L"https";
  std::wstring rest = url.substr(kHttpsPrefix.size());
  rest.resize(std::min(rest.find(L'/'), rest.size()));
  if (rest.empty()) return false;
  const size_t colon = rest.rfind(L':');
  if (colon == std::wstring::npos) {
    parsed.host = rest;
    parsed.port = kHttpsPort;
    return true;
  }
  const std::wstring portText = rest.substr(colon + 1);
  if (colon == 0 || portText.empty()) return false;
  parsed.host = rest.substr(0, colon);
  parsed.port = WideToInt(portText);
  return parsed.port >= 1 && parsed.port <= 65535;
}

std::vector<std::wstring> ResolveHostIpV4(const std::wstring& host) {
  std::vector<uint32_t> addresses;
  std::vector<std::wstring> texts;
  if (platform::GetAddrInfoW(host, platform::kAfInet, platform::kSockStream, addresses) != 0) return texts;
  for (const uint32_t address : addresses) {
    std::wstring text;
    if (platform::InetNtopW(platform::kAfInet, address, kAddressTextCapacity, text)) texts.push_back(text);
  }
  SortAndRemoveDuplicates(texts);
  return texts;
}

void InitCpBaseUrl() {
  const std::wstring url = NormalFormOfDefault();
  // Other threads read gCpBaseUrl without a lock, so a value that stands already must not be written again.
  if (gCpBaseUrl != url) gCpBaseUrl = url;
}

void NormalizeBaseUrl(std::wstring& url) {
  // One slash only: of two the other stays, which is wanted.
  if (url.ends_with(L'/')) url.pop_back();
}

std::wstring CpUrl(std::wstring base, const std::wstring& path) {
  NormalizeBaseUrl(base);
  return base + path;
}
