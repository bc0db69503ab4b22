// Names without regard to case, as Windows compares those of files, services, adapters and hosts.
#pragma once

#include <cwctype>
#include <string>

namespace sim {

inline std::wstring LowerCase(std::wstring text) {
  for (wchar_t& unit : text) unit = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(unit)));
  return text;
}

}  // namespace sim
