// Wide text as several subsystems compare, sort and clean it. Pure functions that log nothing.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cwctype>
#include <string>
#include <string_view>
#include <vector>

// _wcsicmp in the "C" locale, which the process never leaves: only A to Z have another case.
inline bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right) {
  const auto lower = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c | 0x20) : c; };
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [lower](wchar_t a, wchar_t b) { return lower(a) == lower(b); });
}

// Ascending by UTF-16 code unit, so that 10.0.0.1 stands before 9.0.0.1; exact duplicates go.
inline void SortAndRemoveDuplicates(std::vector<std::wstring>& texts) {
  const auto isOutOfPlace = [](const std::wstring& text, const std::wstring& next) { return next <= text; };
  if (std::adjacent_find(texts.begin(), texts.end(), isOutOfPlace) == texts.end()) return;
  std::sort(texts.begin(), texts.end());
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
}

// The code units of the text as bytes, low byte first; no byte-order mark, no terminator.
inline std::string Utf16LittleEndian(std::wstring_view text) {
  std::string bytes;
  bytes.reserve(text.size() * 2);
  for (const wchar_t unit : text) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>((unit >> 8) & 0xFF);
  }
  return bytes;
}

// The reverse; an odd last byte is dropped.
inline std::wstring FromUtf16LittleEndian(std::string_view bytes) {
  std::wstring text(bytes.size() / 2, L'\0');
  for (size_t i = 0; i < text.size(); ++i) {
    const auto low = static_cast<uint8_t>(bytes[2 * i]);
    const auto high = static_cast<uint8_t>(bytes[2 * i + 1]);
    text[i] = static_cast<wchar_t>(low | (high << 8));
  }
  return text;
}

// Texts that a list of addresses may hold and that stand for no address.
inline bool IsNoAddress(std::wstring_view address) {
  return address.empty() || address == L"0.0.0.0";
}

// The clean form of an IPv4 bypass entry: cut at the first '/', without white space (iswspace) at both ends.
inline std::wstring CleanBypassAddress(std::wstring_view entry) {
  const auto isSpace = [](wchar_t c) { return std::iswspace(static_cast<std::wint_t>(c)) != 0; };
  std::wstring_view clean = entry.substr(0, entry.find(L'/'));
  while (!clean.empty() && isSpace(clean.front())) clean.remove_prefix(1);
  while (!clean.empty() && isSpace(clean.back())) clean.remove_suffix(1);
  return std::wstring(clean);
}
