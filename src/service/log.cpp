#include "service/log.h"

#include <string_view>

#include "controlplane/text.h"
#include "service/platform.h"

namespace {

constexpr wchar_t kLogFileName[] = L"vpnservice.log";
constexpr wchar_t kLogFolder[] = L"\\sorvanik-vpn";
constexpr uint32_t kEnvironmentBuffer = 260;  // wide characters, the terminator included
constexpr uint32_t kNeutralLanguage = 1024;   // neutral language, default sub-language

std::wstring Padded(uint32_t number, size_t digits) {
  std::wstring text = std::to_wstring(number);
  return text.size() < digits ? std::wstring(digits - text.size(), L'0') + text : text;
}

// "[YYYY-MM-DD HH:MM:SS] " in local time. The main writer does not pad the year, the firewall's does.
std::wstring TimeStamp(size_t yearDigits) {
  const platform::SystemTime now = platform::GetLocalTime();
  return L"[" + Padded(now.year, yearDigits) + L"-" + Padded(now.month, 2) + L"-" + Padded(now.day, 2) +
         L" " + Padded(now.hour, 2) + L":" + Padded(now.minute, 2) + L":" + Padded(now.second, 2) + L"] ";
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
  const std::wstring folder = std::wstring(value, length) + kLogFolder;
  platform::CreateDirectoryW(folder);
  return folder + L"\\" + kLogFileName;
}

void LogLine(const std::wstring& text) {
  std::string bytes;
  for (const wchar_t unit : TimeStamp(1) + text + L"\n") {
    // Wanted: a character without a one-byte form takes the rest of the line and its end with it.
    if (unit > 0xFF) break;
    if (unit == L'\n') bytes += '\r';
    bytes += static_cast<char>(unit);
  }
  AppendToLog(bytes, platform::kFileShareRead | platform::kFileShareWrite);
}

void LogLineUnlessEmpty(const wchar_t* label, const std::wstring& text) {
  if (!text.empty()) LogLine(label + text);
}

void WfpLogLine(const std::wstring& text) {
  const std::string bytes = WideToUtf8(TimeStamp(4) + text + L"\r\n");
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
