// What a command was told on the command line.
#pragma once

#include <cstdint>
#include <string>

namespace telvorctl {

inline constexpr uint32_t kMostLogLines = 2000;  // the service gives no more

struct Options {
  bool json = false;
  bool brief = false;
  bool noWait = false;
  bool passwordFromInput = false;
  bool recent = false;
  bool follow = false;
  bool remove = false;
  uint32_t timeoutSeconds = 60;
  uint32_t intervalSeconds = 2;
  uint32_t lines = 0;  // 0: as many as the service gives unless it is told
  std::string email;
  std::string requestId;
  std::string place;
  std::string line;
  std::string file;
};

}  // namespace telvorctl
