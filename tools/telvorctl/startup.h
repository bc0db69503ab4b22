// What only the program itself does before anything else.
#pragma once

#include <string>
#include <vector>

namespace telvorctl::platform {

// Takes Ctrl+C over, and gives the arguments behind the program's name in UTF-8.
std::vector<std::string> StartUp(int count, wchar_t** arguments);

}  // namespace telvorctl::platform
