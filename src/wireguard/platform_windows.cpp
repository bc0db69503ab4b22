// The Windows side of wireguard/platform.h.
#include "wireguard/platform.h"

#include <memory>

// clang-format off
#include <windows.h>
#include <bcrypt.h>
#include <wincrypt.h>
// clang-format on

namespace platform {

static_assert(kBcryptUseSystemPreferredRng == BCRYPT_USE_SYSTEM_PREFERRED_RNG);
static_assert(kCryptStringBase64 == CRYPT_STRING_BASE64);
static_assert(kCryptStringBase64NoCrLf == (CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF));
static_assert(kScEnumProcessInfo == SC_ENUM_PROCESS_INFO && kServiceWin32 == SERVICE_WIN32);
static_assert(kServiceStateAll == SERVICE_STATE_ALL && kHandleFlagInherit == HANDLE_FLAG_INHERIT);
static_assert(kStdInputHandle == STD_INPUT_HANDLE && kCreateNoWindow == CREATE_NO_WINDOW);

// ---- Random bytes and Base64 ----

int32_t BCryptGenRandom(void* buffer, uint32_t size, uint32_t flags) {
  return ::BCryptGenRandom(nullptr, static_cast<PUCHAR>(buffer), size, flags);
}

bool CryptStringToBinaryA(const std::string& text, uint32_t flags, uint8_t* buffer, uint32_t& size) {
  DWORD count = size;
  bool ok = ::CryptStringToBinaryA(text.c_str(), 0, flags, buffer, &count, nullptr, nullptr) != 0;
  size = count;
  return ok;
}

bool CryptBinaryToStringA(const uint8_t* bytes, uint32_t length, uint32_t flags, char* buffer,
                          uint32_t& size) {
  DWORD count = size;
  bool ok = ::CryptBinaryToStringA(bytes, length, flags, buffer, &count) != 0;
  size = count;
  return ok;
}

// ---- Service control manager ----

bool StartServiceW(Handle service) {
  return ::StartServiceW(static_cast<SC_HANDLE>(service), 0, nullptr) != 0;
}

bool EnumServicesStatusExW(Handle manager, uint32_t level, uint32_t type, uint32_t state, uint32_t bufferSize,
                           uint32_t& bytesNeeded, std::vector<ServiceEntry>& entries) {
  std::unique_ptr<BYTE[]> buffer(bufferSize == 0 ? nullptr : new BYTE[bufferSize]);
  DWORD needed = 0;
  DWORD count = 0;
  bool ok = ::EnumServicesStatusExW(static_cast<SC_HANDLE>(manager), static_cast<SC_ENUM_TYPE>(level), type,
                                    state, buffer.get(), bufferSize, &needed, &count, nullptr, nullptr) != 0;
  bytesNeeded = needed;
  entries.clear();
  const auto* services = reinterpret_cast<const ENUM_SERVICE_STATUS_PROCESSW*>(buffer.get());
  for (DWORD i = 0; i < count; ++i) {
    const wchar_t* name = services[i].lpServiceName ? services[i].lpServiceName : L"";
    entries.push_back({name, services[i].ServiceStatusProcess.dwCurrentState});
  }
  return ok;
}

// ---- Processes ----

bool CreatePipe(Handle& readEnd, Handle& writeEnd) {
  SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
  return ::CreatePipe(&readEnd, &writeEnd, &inheritable, 0) != 0;
}

bool SetHandleInformation(Handle handle, uint32_t mask, uint32_t flags) {
  return ::SetHandleInformation(handle, mask, flags) != 0;
}

Handle GetStdHandle(uint32_t which) {
  return ::GetStdHandle(which);
}

bool CreateProcessW(const std::wstring& commandLine, uint32_t flags, const StartupHandles& startup,
                    ProcessHandles& handles) {
  STARTUPINFOW info{};
  info.cb = sizeof(info);
  info.dwFlags = STARTF_USESTDHANDLES;
  info.hStdInput = startup.standardInput;
  info.hStdOutput = startup.standardOutput;
  info.hStdError = startup.standardError;
  PROCESS_INFORMATION process{};
  // The function may write into the command line.
  std::wstring writable = commandLine;
  bool ok = ::CreateProcessW(nullptr, writable.data(), nullptr, nullptr, TRUE, flags, nullptr, nullptr, &info,
                             &process) != 0;
  handles = {process.hProcess, process.hThread};
  return ok;
}

bool GetExitCodeProcess(Handle process, uint32_t& exitCode) {
  DWORD code = 0;
  bool ok = ::GetExitCodeProcess(process, &code) != 0;
  exitCode = code;
  return ok;
}

}  // namespace platform
