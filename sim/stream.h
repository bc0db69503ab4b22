// What ReadFile, WriteFile and FlushFileBuffers work on: files and the ends of pipes.
#pragma once

#include <cstdint>

#include "device.h"

namespace sim {

inline constexpr uint32_t kErrorAccessDenied = 5;

struct Stream : Object {
  using Object::Object;
  // `read` and `written` are 0 on entry. On failure the call's error is set.
  virtual bool Read(Call& call, char*, uint32_t, uint32_t&) { return call.Fail(kErrorAccessDenied); }
  virtual bool Write(Call& call, const char*, uint32_t, uint32_t&) { return call.Fail(kErrorAccessDenied); }
  virtual bool Flush(Call& call) { return call.Fail(kErrorAccessDenied); }
};

}  // namespace sim
