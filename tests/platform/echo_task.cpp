#include "platform/echo_task.h"

#include <sstream>

namespace {

// Two hexadecimal digits a byte, behind a sign that keeps an empty text visible.
std::wstring ToHex(const std::string& bytes) {
  constexpr wchar_t kDigits[] = L"0123456789abcdef";
  std::wstring text = L"=";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string FromHex(const std::wstring& text) {
  std::string bytes;
  for (size_t i = 1; i + 1 < text.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

}  // namespace

std::wstring EchoArguments(const EchoTask& task) {
  return ToHex(task.standardOutput) + L" " + ToHex(task.standardError) + L" " +
         std::to_wstring(task.exitCode);
}

EchoTask ParseEchoArguments(const std::wstring& arguments) {
  std::wistringstream words(arguments);
  std::wstring output;
  std::wstring error;
  EchoTask task;
  words >> output >> error >> task.exitCode;
  task.standardOutput = FromHex(output);
  task.standardError = FromHex(error);
  return task;
}
