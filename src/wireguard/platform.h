// The Windows operations that the WireGuard integration needs beyond service/platform.h: random bytes,
// Base64, more of the service control manager, and processes. See service/platform.h for the rules.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/platform.h"

namespace platform {

// ---- Random bytes and Base64 ----
inline constexpr uint32_t kBcryptUseSystemPreferredRng = 2;
inline constexpr uint32_t kCryptStringBase64 = 1;
inline constexpr uint32_t kCryptStringBase64NoCrLf = 0x40000001;

// Null algorithm handle. An NTSTATUS, 0 on success.
int32_t BCryptGenRandom(void* buffer, uint32_t size, uint32_t flags);
// Zero-terminated input (length 0). A null buffer asks for the size in bytes.
bool CryptStringToBinaryA(const std::string& text, uint32_t flags, uint8_t* buffer, uint32_t& size);
// A null buffer asks for the size in characters, the terminating NUL included.
bool CryptBinaryToStringA(const uint8_t* bytes, uint32_t length, uint32_t flags, char* buffer,
                          uint32_t& size);

// ---- Service control manager ----
inline constexpr uint32_t kScEnumProcessInfo = 0;
inline constexpr uint32_t kServiceWin32 = 0x30;
inline constexpr uint32_t kServiceStateAll = 3;

struct ServiceEntry {
  std::wstring name;
  uint32_t currentState;
};
bool StartServiceW(Handle service);  // no arguments
// `bufferSize` 0 passes no buffer and asks for the size in bytes; otherwise a buffer of that size is used and
// its entries are copied to `entries`. No group, no resume point.
bool EnumServicesStatusExW(Handle manager, uint32_t level, uint32_t type, uint32_t state, uint32_t bufferSize,
                           uint32_t& bytesNeeded, std::vector<ServiceEntry>& entries);

// ---- Processes ----
inline constexpr uint32_t kHandleFlagInherit = 1;
inline constexpr uint32_t kStdInputHandle = 0xFFFFFFF6;
inline constexpr uint32_t kCreateNoWindow = 0x08000000;

bool CreatePipe(Handle& readEnd, Handle& writeEnd);  // inheritable, default size
bool SetHandleInformation(Handle handle, uint32_t mask, uint32_t flags);
Handle GetStdHandle(uint32_t which);

// STARTUPINFOW with STARTF_USESTDHANDLES and these handles.
struct StartupHandles {
  Handle standardInput;
  Handle standardOutput;
  Handle standardError;
};
struct ProcessHandles {
  Handle process = nullptr;
  Handle thread = nullptr;
};
// No application name, handles inherited, the parent's environment and working directory.
bool CreateProcessW(const std::wstring& commandLine, uint32_t flags, const StartupHandles& startup,
                    ProcessHandles& handles);
bool GetExitCodeProcess(Handle process, uint32_t& exitCode);

}  // namespace platform
