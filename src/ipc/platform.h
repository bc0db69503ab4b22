// The Windows operations that the pipe channel needs beyond service/platform.h: named pipes, their security
// descriptor, and the conversion of broken-down UTC time. See service/platform.h for the rules.
#pragma once

#include <cstdint>
#include <string>

#include "service/platform.h"

namespace platform {

inline constexpr uint32_t kErrorPipeConnected = 535;
inline constexpr uint32_t kSddlRevision1 = 1;
inline constexpr uint32_t kPipeAccessDuplex = 3;

// The descriptor is allocated by the system.
bool ConvertStringSecurityDescriptorToSecurityDescriptorW(const wchar_t* text, uint32_t revision,
                                                          void*& descriptor);

struct NamedPipeParameters {
  uint32_t openMode;
  uint32_t pipeMode;
  uint32_t maxInstances;
  uint32_t outBufferSize;
  uint32_t inBufferSize;
  uint32_t defaultTimeout;   // milliseconds
  void* securityDescriptor;  // in a SECURITY_ATTRIBUTES with bInheritHandle false
};
Handle CreateNamedPipeW(const wchar_t* name,
                        const NamedPipeParameters& parameters);  // InvalidHandle() on failure
bool ConnectNamedPipe(Handle pipe);                              // no overlapped structure
bool DisconnectNamedPipe(Handle pipe);

// struct tm as _mkgmtime64 takes it: `year` counts from 1900, `month` from 0. Fields out of range are
// normalised.
struct BrokenDownTime {
  int year, month, day, hour, minute, second;
};
int64_t MkGmTime64(const BrokenDownTime& time);  // seconds since 1970-01-01 UTC, -1 on failure

}  // namespace platform
