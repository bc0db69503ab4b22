#include "service/log.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <string_view>
#include <utility>

#include "controlplane/text.h"
#include "service/platform.h"

namespace {

constexpr wchar_t kLogFileName[] = L"vpnservice.log";
constexpr wchar_t kLogFolder[] = L"\\sorvanik-vpn";
constexpr uint32_t kEnvironmentBuffer = 260;  // wide characters, the terminator included
constexpr size_t kStampSize = sizeof("[2026-05-04 03:02:01] ") - 1;
constexpr uint32_t kNeutralLanguage = 1024;  // neutral language, default sub-language

// Appends the number in decimal, with zeros in front up to so many digits.
void AppendPadded(uint32_t number, size_t digits, std::string& text) {
  char decimal[std::numeric_limits<uint32_t>::digits10 + 1];
  const auto count = static_cast<size_t>(std::to_chars(decimal, std::end(decimal), number).ptr - decimal);
  if (count < digits) text.append(digits - count, '0');
  text.append(decimal, count);
}

// "[YYYY-MM-DD HH:MM:SS] " in local time. The main writer does not pad the year, the firewall's does.
void AppendTimeStamp(size_t yearDigits, std::string& text) {
  const platform::SystemTime now = platform::GetLocalTime();
  const std::pair<uint32_t, char> parts[] = {
      {now.month, '-'}, {now.day, ' '}, {now.hour, ':'}, {now.minute, ':'}, {now.second, ']'}};
  text += '[';
  AppendPadded(now.year, yearDigits, text);
  text += '-';
  for (const auto& [number, behind] : parts) {
    AppendPadded(number, 2, text);
    text += behind;
  }
  text += ' ';
}

// Each code unit becomes a byte; a carriage return is put before each line feed.
void AppendNarrow(std::wstring_view units, std::string& text) {
  const size_t before = text.size();
  text.resize(before + 2 * units.size());
  char* to = text.data() + before;
  for (const wchar_t unit : units) {
    if (unit == L'\n') *to++ = '\r';
    *to++ = static_cast<char>(unit);
  }
  text.resize(static_cast<size_t>(to - text.data()));
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

bool HasNoByte(wchar_t unit) {
  return unit > 0xFF;
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
  std::string bytes;
  bytes.reserve(kStampSize + 2 * text.size() + 2);
  AppendTimeStamp(1, bytes);
  // Wanted: a character without a one-byte form takes the rest of the line and its end with it.
  const auto cut = std::find_if(text.begin(), text.end(), HasNoByte);
  AppendNarrow({text.begin(), cut}, bytes);
  if (cut == text.end()) bytes += "\r\n";
  AppendToLog(bytes, platform::kFileShareRead | platform::kFileShareWrite);
}

void LogLineUnlessEmpty(const wchar_t* label, const std::wstring& text) {
  if (!text.empty()) LogLine(label + text);
}

void WfpLogLine(const std::wstring& text) {
  std::string stamp;
  AppendTimeStamp(4, stamp);
  const std::string bytes = WideToUtf8(std::wstring(stamp.begin(), stamp.end()) + text + L"\r\n");
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
