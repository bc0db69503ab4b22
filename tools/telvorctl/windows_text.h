// Between the program's texts and those of Windows: UTF-8 and UTF-16. Defined by platform_windows.cpp.
#pragma once

#include <string>

namespace telvorctl::platform {

std::wstring Utf8ToWide(const std::string& text);
std::string WideToUtf8(const std::wstring& wide);

}  // namespace telvorctl::platform
