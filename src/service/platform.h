// The Windows operations that every subsystem needs, under their Windows names, in plain C++ types.
// Two implementations, chosen by the linker: platform_windows.cpp beside this file, a translation without any
// decision in it, and the simulated machine in sim/. Unless said otherwise a function means, returns and
// fails exactly as the Windows function of the same name, with the code left for GetLastError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace platform {

using Handle = void*;

// INVALID_HANDLE_VALUE, which Windows defines as a number.
inline Handle InvalidHandle() {
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  return reinterpret_cast<Handle>(static_cast<std::intptr_t>(-1));
}

// ---- Error codes (winerror.h) ----
inline constexpr uint32_t kErrorSuccess = 0;
inline constexpr uint32_t kErrorPathNotFound = 3;
inline constexpr uint32_t kErrorAlreadyExists = 183;
inline constexpr uint32_t kErrorMoreData = 234;
inline constexpr uint32_t kErrorServiceAlreadyRunning = 1056;
inline constexpr uint32_t kErrorServiceNotActive = 1062;
inline constexpr uint32_t kErrorFailedServiceControllerConnect = 1063;

uint32_t GetLastError();

// Looks a message up with FormatMessageW, allocated by the system, copied to `message` and freed with
// LocalFree. False if the system has none.
inline constexpr uint32_t kFormatMessageFlags = 4864;  // ALLOCATE_BUFFER | FROM_SYSTEM | IGNORE_INSERTS
bool FormatMessageW(uint32_t flags, uint32_t code, uint32_t language, std::wstring& message);

// ---- Threads, events, waits, clocks ----
using ThreadStart = uint32_t (*)(void* argument);

inline constexpr uint32_t kInfinite = 0xFFFFFFFF;
inline constexpr uint32_t kWaitObject0 = 0;
inline constexpr uint32_t kWaitTimeout = 258;
inline constexpr uint32_t kWaitFailed = 0xFFFFFFFF;

// Default security and stack, started at once. Null on failure.
Handle CreateThread(ThreadStart start, void* argument);
bool GetExitCodeThread(Handle thread, uint32_t& exitCode);
// No security attributes, no name. Null on failure.
Handle CreateEventW(bool manualReset, bool initiallySet);
bool SetEvent(Handle event);
uint32_t WaitForSingleObject(Handle handle, uint32_t milliseconds);
uint32_t WaitForMultipleObjects(uint32_t count, const Handle* handles, bool waitForAll,
                                uint32_t milliseconds);
bool CloseHandle(Handle handle);
void Sleep(uint32_t milliseconds);
// Milliseconds since the system started.
uint64_t GetTickCount64();
// _time64: seconds since 1970-01-01 UTC by the local clock.
int64_t Time64();

struct SystemTime {
  uint16_t year, month, day, hour, minute, second;
};
SystemTime GetLocalTime();

// A plain non-recursive mutex; constant-initialised, so that it may guard a process-wide variable. Works with
// std::lock_guard. lock() throws std::system_error when the lock fails.
class Mutex {
 public:
  void lock();
  void unlock();

 private:
  std::mutex native_;
};

// ---- Crash hooks and the end of the process ----
// SetUnhandledExceptionFilter; the result of `filter` is the filter's disposition (1 ends the process).
void SetUnhandledExceptionFilter(int32_t (*filter)());
void SetTerminate(void (*handler)());  // std::set_terminate
void AtExit(void (*handler)());        // std::atexit
[[noreturn]] void Abort();             // std::abort

// ---- Text ----
inline constexpr uint32_t kCodePageUtf8 = 65001;
inline constexpr uint32_t kMbErrInvalidChars = 8;
// A null `out` with size 0 asks for the length. 0 on failure.
int MultiByteToWideChar(uint32_t codePage, uint32_t flags, const char* text, int size, wchar_t* out,
                        int outSize);
int WideCharToMultiByte(uint32_t codePage, uint32_t flags, const wchar_t* text, int size, char* out,
                        int outSize);

// ---- Environment ----
uint32_t GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, uint32_t size);

// ---- Files ----
inline constexpr uint32_t kGenericRead = 0x80000000;
inline constexpr uint32_t kGenericWrite = 0x40000000;
inline constexpr uint32_t kFileAppendData = 4;
inline constexpr uint32_t kFileShareNone = 0;
inline constexpr uint32_t kFileShareRead = 1;
inline constexpr uint32_t kFileShareWrite = 2;
inline constexpr uint32_t kFileShareDelete = 4;
inline constexpr uint32_t kCreateAlways = 2;
inline constexpr uint32_t kOpenExisting = 3;
inline constexpr uint32_t kOpenAlways = 4;
inline constexpr uint32_t kFileAttributeDirectory = 16;
inline constexpr uint32_t kFileAttributeNormal = 128;
inline constexpr uint32_t kInvalidFileAttributes = 0xFFFFFFFF;
inline constexpr uint32_t kMoveFileReplaceExisting = 1;
inline constexpr uint32_t kMoveFileWriteThrough = 8;

// InvalidHandle() on failure. No security attributes, no template.
Handle CreateFileW(const std::wstring& path, uint32_t access, uint32_t share, uint32_t disposition,
                   uint32_t flagsAndAttributes);
bool ReadFile(Handle file, void* buffer, uint32_t size, uint32_t& read);
bool WriteFile(Handle file, const void* bytes, uint32_t size, uint32_t& written);
bool FlushFileBuffers(Handle file);
bool GetFileSizeEx(Handle file, int64_t& size);
bool CreateDirectoryW(const std::wstring& path);
bool DeleteFileW(const std::wstring& path);
bool MoveFileExW(const std::wstring& from, const std::wstring& to, uint32_t flags);
uint32_t GetFileAttributesW(const std::wstring& path);

struct FindData {
  uint32_t attributes;
  std::wstring name;
};
Handle FindFirstFileW(const std::wstring& pattern, FindData& data);  // InvalidHandle() on failure
bool FindNextFileW(Handle search, FindData& data);
bool FindClose(Handle search);

// ---- Rights of files ----
inline constexpr uint32_t kSeFileObject = 1;
inline constexpr uint32_t kDaclSecurityInformation = 4;

// EXPLICIT_ACCESS_W with a trustee given by name.
struct ExplicitAccess {
  uint32_t accessPermissions;
  uint32_t accessMode;
  uint32_t inheritance;
  uint32_t trusteeForm;
  uint32_t trusteeType;
  const wchar_t* trusteeName;
};
// These three return a Windows error code, 0 for success. `dacl` points into `descriptor`; the descriptor and
// a new list are freed with LocalFree.
uint32_t GetNamedSecurityInfoW(const std::wstring& path, uint32_t objectType, uint32_t information,
                               void*& dacl, void*& descriptor);
uint32_t SetEntriesInAclW(const ExplicitAccess& entry, void* oldAcl, void*& newAcl);
uint32_t SetNamedSecurityInfoW(const std::wstring& path, uint32_t objectType, uint32_t information,
                               void* dacl);
void LocalFree(void* memory);

// ---- Data protection ----
inline constexpr uint32_t kCryptProtectLocalMachine = 4;
// No entropy, no prompt; a null description is passed on as null. The system's output is copied to `blob` or
// `plain` and released with LocalFree.
bool CryptProtectData(const std::string& plain, const wchar_t* description, uint32_t flags,
                      std::string& blob);
bool CryptUnprotectData(const std::string& blob, uint32_t flags, std::string& plain);

// ---- Winsock: names and addresses ----
inline constexpr int kAfInet = 2;
inline constexpr int kSockStream = 1;
// Family and socket type are hints, all other hints are zero. Fills `addresses` with each entry's IPv4
// address in network byte order (as it lies in memory) and releases the system's list with FreeAddrInfoW. 0
// on success.
int GetAddrInfoW(const std::wstring& host, int family, int socketType, std::vector<uint32_t>& addresses);
// `address` is in network byte order. `capacity` counts characters, the terminator included. False on
// failure.
bool InetNtopW(int family, uint32_t address, uint32_t capacity, std::wstring& text);
// 1 if `text` is an address of the family, else 0 or -1.
int InetPtonW(int family, const std::wstring& text, uint32_t& address);

// ---- Service control manager, as a client ----
inline constexpr uint32_t kScManagerConnect = 1;
inline constexpr uint32_t kScManagerEnumerateService = 4;
inline constexpr uint32_t kServiceQueryStatus = 4;
inline constexpr uint32_t kServiceStart = 16;
inline constexpr uint32_t kServiceStop = 32;
inline constexpr uint32_t kServiceControlStop = 1;
inline constexpr uint32_t kServiceStopped = 1;
inline constexpr uint32_t kServiceStartPending = 2;
inline constexpr uint32_t kServiceStopPending = 3;
inline constexpr uint32_t kServiceRunning = 4;

Handle OpenSCManagerW(uint32_t access);  // local machine, default database; null on failure
Handle OpenServiceW(Handle manager, const std::wstring& name, uint32_t access);  // null on failure
bool ControlService(Handle service, uint32_t control);
// Level SC_STATUS_PROCESS_INFO; gives dwCurrentState.
bool QueryServiceStatusEx(Handle service, uint32_t& currentState);
bool CloseServiceHandle(Handle handle);

// ---- Service control manager, as a service ----
// SERVICE_STATUS, field by field.
struct ServiceStatus {
  uint32_t dwServiceType = 0;
  uint32_t dwCurrentState = 0;
  uint32_t dwControlsAccepted = 0;
  uint32_t dwWin32ExitCode = 0;
  uint32_t dwServiceSpecificExitCode = 0;
  uint32_t dwCheckPoint = 0;
  uint32_t dwWaitHint = 0;
};
using ServiceMainFunction = void (*)();
using ServiceCtrlHandlerFunction = uint32_t (*)(uint32_t control);

// One entry, then a null entry. Blocks until the service has stopped.
bool StartServiceCtrlDispatcherW(const wchar_t* serviceName, ServiceMainFunction serviceMain);
Handle RegisterServiceCtrlHandlerExW(const wchar_t* serviceName, ServiceCtrlHandlerFunction handler);
bool SetServiceStatus(Handle statusHandle, const ServiceStatus& status);

// ---- Console ----
bool SetConsoleCtrlHandler(bool (*handler)(uint32_t type));  // adds the handler

}  // namespace platform
