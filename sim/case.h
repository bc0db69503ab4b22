// Names without regard to case, as Windows compares those of files, services, adapters and hosts.
#pragma once

#include <cwctype>
#include <string>

namespace sim {

inline wchar_t LowerCase(wchar_t unit) {
  constexpr wchar_t kFirstBeyondAscii = 0x80;
  if (unit >= L'A' && unit <= L'Z') return static_cast<wchar_t>(unit + (L'a' - L'A'));
  if (unit < kFirstBeyondAscii) return unit;
  return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(unit)));
}

inline std::wstring LowerCase(std::wstring text) {
  for (wchar_t& unit : text) unit = LowerCase(unit);
  return text;
}

}  // namespace sim
