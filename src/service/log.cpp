#include "service/log.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

#include "controlplane/text.h"
#include "service/platform.h"

namespace {

constexpr wchar_t kLogFileName[] = L"vpnservice.log";
constexpr wchar_t kLogFolder[] = L"\\sorvanik-vpn";
constexpr uint32_t kEnvironmentBuffer = 260;  // wide characters, the terminator included
constexpr size_t kStampCapacity = sizeof("[65535-05-04 03:02:01] ") - 1;
constexpr size_t kUsualLine = 512;           // bytes
constexpr uint32_t kNeutralLanguage = 1024;  // neutral language, default sub-language

// Writes "[YYYY-MM-DD HH:MM:SS] " in local time and returns its end. The main writer does not pad the year,
// the firewall's does.
char* PutTimeStamp(char* to, ptrdiff_t yearDigits) {
  const platform::SystemTime now = platform::GetLocalTime();
  char year[std::numeric_limits<uint16_t>::digits10 + 1];
  const char* const yearEnd = std::to_chars(year, std::end(year), now.year).ptr;
  *to++ = '[';
  to = std::fill_n(to, std::max<ptrdiff_t>(yearDigits - (yearEnd - year), 0), '0');
  to = std::copy<const char*>(year, yearEnd, to);
  const std::pair<char, uint32_t> parts[] = {
      {'-', now.month}, {'-', now.day}, {' ', now.hour}, {':', now.minute}, {':', now.second}};
  for (const auto& [before, number] : parts) {
    *to++ = before;
    *to++ = static_cast<char>('0' + number / 10);
    *to++ = static_cast<char>('0' + number % 10);
  }
  *to++ = ']';
  *to++ = ' ';
  return to;
}

// Writes the line's code units as bytes, with a carriage return before each line feed, and the end of the
// line; returns its end. Wanted: a character without a one-byte form takes the rest of the line and its end
// with it.
char* PutNarrowLine(char* to, std::wstring_view units) {
  for (const wchar_t unit : units) {
    if (unit > 0xFF) return to;
    if (unit == L'\n') *to++ = '\r';
    *to++ = static_cast<char>(unit);
  }
  *to++ = '\r';
  *to++ = '\n';
  return to;
}

// One append by a handle of its own: no lock is needed, and a log that was moved away is simply made again.
void AppendToLog(std::string_view bytes, uint32_t share) {
  platform::Handle file = platform::CreateFileW(GetLogFilePath(), platform::kFileAppendData, share,
                                                platform::kOpenAlways, platform::kFileAttributeNormal);
  if (file == platform::InvalidHandle()) return;
  uint32_t written = 0;
  platform::WriteFile(file, bytes.data(), static_cast<uint32_t>(bytes.size()), written);
  platform::CloseHandle(file);
}

// The system's message for `code`, without the trailing characters `dropped`, or `missing`.
std::wstring SystemMessage(uint32_t code, std::wstring_view dropped, const wchar_t* missing) {
  std::wstring message;
  if (!platform::FormatMessageW(platform::kFormatMessageFlags, code, kNeutralLanguage, message))
    return missing;
  message.erase(message.find_last_not_of(dropped) + 1);
  return message;
}

}  // namespace

std::wstring GetLogFilePath() {
  wchar_t value[kEnvironmentBuffer];
  const uint32_t length = platform::GetEnvironmentVariableW(L"ProgramData", value, kEnvironmentBuffer);
  if (length == 0 || length >= kEnvironmentBuffer) return kLogFileName;
  std::wstring path;
  path.reserve(length + std::size(kLogFolder) + std::size(kLogFileName));
  path.append(value, length).append(kLogFolder);
  platform::CreateDirectoryW(path);
  return path.append(L"\\").append(kLogFileName);
}

void LogLine(const std::wstring& text) {
  const size_t capacity = kStampCapacity + 2 * text.size() + 2;
  char usual[kUsualLine];
  const std::unique_ptr<char[]> larger(capacity > sizeof(usual) ? new char[capacity] : nullptr);
  char* const begin = larger ? larger.get() : usual;
  const char* const end = PutNarrowLine(PutTimeStamp(begin, 1), text);
  AppendToLog({begin, end}, platform::kFileShareRead | platform::kFileShareWrite);
}

void LogLineUnlessEmpty(const wchar_t* label, const std::wstring& text) {
  if (!text.empty()) LogLine(label + text);
}

void WfpLogLine(const std::wstring& text) {
  char stamp[kStampCapacity];
  char* const end = PutTimeStamp(stamp, 4);
  const std::string bytes = WideToUtf8(std::wstring(&stamp[0], end) + text + L"\r\n");
  if (bytes.empty()) return;
  AppendToLog(bytes, platform::kFileShareRead | platform::kFileShareWrite | platform::kFileShareDelete);
}

void LogWin32Error(const std::wstring& what, uint32_t code) {
  LogLine(what + L" failed: " + std::to_wstring(code) + L" (" +
          SystemMessage(code, L"\r\n ", L"no message available") + L")");
}

void WfpLogError(const wchar_t* what, uint32_t code) {
  WfpLogLine(std::wstring(L"WFP: ") + (what ? what : L"(null)") + L" failed: " + std::to_wstring(code) +
             L" (" + SystemMessage(code, L"\r\n", L"no system message") + L")");
}
