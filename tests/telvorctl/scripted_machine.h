// The machine that telvorctl looks at, as a test wants it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "telvorctl/machine.h"

namespace telvorctl_test {

struct ScriptedMachine {
  std::map<std::string, std::string> files;     // path and bytes; their folders are there too
  std::map<std::string, uint32_t> unreadable;   // path of a file or folder and the error it gives
  std::map<std::string, std::string> versions;  // path and version
  std::map<std::string, telvorctl::platform::ServiceFacts> services;
  std::vector<telvorctl::platform::Adapter> adapters;
  std::vector<telvorctl::platform::Route> routes;
  uint32_t routesError = 0;   // of listing them
  uint32_t removalError = 0;  // of removing one
  std::string link;           // a folder that is only a link to another
  telvorctl::platform::WindowsFacts windows{10, 0, 19045, 1252, "de-DE"};
};

inline ScriptedMachine gMachine;

// In little-endian bytes; `text` is ASCII.
std::string Utf16(const std::string& text);

}  // namespace telvorctl_test
