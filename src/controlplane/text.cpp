#include "controlplane/text.h"

#include <cstdint>
#include <string_view>

#include "service/platform.h"

namespace {

template <class Char>
std::basic_string<Char> Trim(std::basic_string_view<Char> text) {
  constexpr Char kBlanks[] = {' ', '\t', '\n', '\r', 0};
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == text.npos) return {};
  return std::basic_string<Char>(text.substr(first, text.find_last_not_of(kBlanks) - first + 1));
}

std::wstring Widen(const std::string& text, uint32_t flags) {
  if (text.empty()) return {};
  const int size = static_cast<int>(text.size());
  const int length =
      platform::MultiByteToWideChar(platform::kCodePageUtf8, flags, text.data(), size, nullptr, 0);
  if (length <= 0) return {};
  std::wstring wide(static_cast<size_t>(length), L'\0');
  const int written =
      platform::MultiByteToWideChar(platform::kCodePageUtf8, flags, text.data(), size, wide.data(), length);
  if (written <= 0) return {};
  return wide;
}

}  // namespace

std::wstring Utf8ToWide(const std::string& text) {
  return Widen(text, platform::kMbErrInvalidChars);
}

std::wstring Utf8ToWideLenient(const std::string& text) {
  return Widen(text, 0);
}

std::string WideToUtf8(const std::wstring& text) {
  if (text.empty()) return {};
  const int size = static_cast<int>(text.size());
  const int length = platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, text.data(), size, nullptr, 0);
  if (length <= 0) return {};
  std::string narrow(static_cast<size_t>(length), '\0');
  const int written =
      platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, text.data(), size, narrow.data(), length);
  if (written <= 0) return {};
  return narrow;
}

std::string TrimAscii(const std::string& text) {
  return Trim<char>(text);
}

std::wstring TrimWide(std::wstring text) {
  text = Trim<wchar_t>(text);
  return text;
}
