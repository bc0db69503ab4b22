// The Windows side of ipc/platform.h.
#include "ipc/platform.h"

#include <time.h>

// clang-format off
#include <windows.h>
#include <sddl.h>
// clang-format on

namespace platform {

static_assert(kErrorPipeConnected == ERROR_PIPE_CONNECTED && kSddlRevision1 == SDDL_REVISION_1);
static_assert(kPipeAccessDuplex == PIPE_ACCESS_DUPLEX);

bool ConvertStringSecurityDescriptorToSecurityDescriptorW(const wchar_t* text, uint32_t revision,
                                                          void*& descriptor) {
  return ::ConvertStringSecurityDescriptorToSecurityDescriptorW(text, revision, &descriptor, nullptr) != 0;
}

Handle CreateNamedPipeW(const wchar_t* name, const NamedPipeParameters& parameters) {
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), parameters.securityDescriptor, FALSE};
  return ::CreateNamedPipeW(name, parameters.openMode, parameters.pipeMode, parameters.maxInstances,
                            parameters.outBufferSize, parameters.inBufferSize, parameters.defaultTimeout,
                            &attributes);
}

bool ConnectNamedPipe(Handle pipe) {
  return ::ConnectNamedPipe(pipe, nullptr) != 0;
}

bool DisconnectNamedPipe(Handle pipe) {
  return ::DisconnectNamedPipe(pipe) != 0;
}

int64_t MkGmTime64(const BrokenDownTime& time) {
  tm fields{};
  fields.tm_year = time.year;
  fields.tm_mon = time.month;
  fields.tm_mday = time.day;
  fields.tm_hour = time.hour;
  fields.tm_min = time.minute;
  fields.tm_sec = time.second;
  return ::_mkgmtime64(&fields);
}

}  // namespace platform
