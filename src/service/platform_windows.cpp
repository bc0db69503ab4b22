// The Windows side of service/platform.h: every function hands its arguments to the Windows function of its
// name and hands the results back.
#include "service/platform.h"

#include <time.h>

#include <cstdlib>
#include <exception>
#include <memory>

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <aclapi.h>
#include <dpapi.h>
// clang-format on

namespace platform {

static_assert(kErrorPathNotFound == ERROR_PATH_NOT_FOUND && kErrorAlreadyExists == ERROR_ALREADY_EXISTS);
static_assert(kErrorMoreData == ERROR_MORE_DATA && kErrorServiceNotActive == ERROR_SERVICE_NOT_ACTIVE);
static_assert(kErrorServiceAlreadyRunning == ERROR_SERVICE_ALREADY_RUNNING);
static_assert(kErrorFailedServiceControllerConnect == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
static_assert(kFormatMessageFlags ==
              (FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS));
static_assert(kInfinite == INFINITE && kWaitObject0 == WAIT_OBJECT_0);
static_assert(kWaitTimeout == WAIT_TIMEOUT && kWaitFailed == WAIT_FAILED);
static_assert(kCodePageUtf8 == CP_UTF8 && kMbErrInvalidChars == MB_ERR_INVALID_CHARS);
static_assert(kGenericRead == GENERIC_READ && kGenericWrite == GENERIC_WRITE);
static_assert(kFileAppendData == FILE_APPEND_DATA && kFileShareRead == FILE_SHARE_READ);
static_assert(kFileShareWrite == FILE_SHARE_WRITE && kFileShareDelete == FILE_SHARE_DELETE);
static_assert(kCreateAlways == CREATE_ALWAYS && kOpenExisting == OPEN_EXISTING && kOpenAlways == OPEN_ALWAYS);
static_assert(kFileAttributeDirectory == FILE_ATTRIBUTE_DIRECTORY);
static_assert(kFileAttributeNormal == FILE_ATTRIBUTE_NORMAL);
static_assert(kInvalidFileAttributes == INVALID_FILE_ATTRIBUTES);
static_assert(kMoveFileReplaceExisting == MOVEFILE_REPLACE_EXISTING);
static_assert(kMoveFileWriteThrough == MOVEFILE_WRITE_THROUGH);
static_assert(kSeFileObject == SE_FILE_OBJECT && kDaclSecurityInformation == DACL_SECURITY_INFORMATION);
static_assert(kCryptProtectLocalMachine == CRYPTPROTECT_LOCAL_MACHINE);
static_assert(kAfInet == AF_INET && kSockStream == SOCK_STREAM);
static_assert(kScManagerConnect == SC_MANAGER_CONNECT);
static_assert(kScManagerEnumerateService == SC_MANAGER_ENUMERATE_SERVICE);
static_assert(kServiceQueryStatus == SERVICE_QUERY_STATUS && kServiceStart == SERVICE_START);
static_assert(kServiceStop == SERVICE_STOP && kServiceControlStop == SERVICE_CONTROL_STOP);
static_assert(kServiceStopped == SERVICE_STOPPED && kServiceStartPending == SERVICE_START_PENDING);
static_assert(kServiceStopPending == SERVICE_STOP_PENDING && kServiceRunning == SERVICE_RUNNING);

uint32_t GetLastError() {
  return ::GetLastError();
}

bool FormatMessageW(uint32_t flags, uint32_t code, uint32_t language, std::wstring& message) {
  wchar_t* text = nullptr;
  DWORD length =
      ::FormatMessageW(flags, nullptr, code, language, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
  if (length == 0) return false;
  message.assign(text, length);
  ::LocalFree(text);
  return true;
}

// ---- Threads, events, waits, clocks ----

namespace {

struct ThreadStartAndArgument {
  ThreadStart start;
  void* argument;
};

DWORD WINAPI ThreadTrampoline(void* parameter) {
  ThreadStartAndArgument thread = *static_cast<ThreadStartAndArgument*>(parameter);
  delete static_cast<ThreadStartAndArgument*>(parameter);
  return thread.start(thread.argument);
}

}  // namespace

Handle CreateThread(ThreadStart start, void* argument) {
  auto parameter = std::make_unique<ThreadStartAndArgument>(ThreadStartAndArgument{start, argument});
  HANDLE thread = ::CreateThread(nullptr, 0, ThreadTrampoline, parameter.get(), 0, nullptr);
  if (thread != nullptr) static_cast<void>(parameter.release());
  return thread;
}

bool GetExitCodeThread(Handle thread, uint32_t& exitCode) {
  DWORD code = 0;
  bool ok = ::GetExitCodeThread(thread, &code) != 0;
  exitCode = code;
  return ok;
}

Handle CreateEventW(bool manualReset, bool initiallySet) {
  return ::CreateEventW(nullptr, manualReset, initiallySet, nullptr);
}

bool SetEvent(Handle event) {
  return ::SetEvent(event) != 0;
}

uint32_t WaitForSingleObject(Handle handle, uint32_t milliseconds) {
  return ::WaitForSingleObject(handle, milliseconds);
}

uint32_t WaitForMultipleObjects(uint32_t count, const Handle* handles, bool waitForAll,
                                uint32_t milliseconds) {
  return ::WaitForMultipleObjects(count, handles, waitForAll, milliseconds);
}

bool CloseHandle(Handle handle) {
  return ::CloseHandle(handle) != 0;
}

void Sleep(uint32_t milliseconds) {
  ::Sleep(milliseconds);
}

uint64_t GetTickCount64() {
  return ::GetTickCount64();
}

int64_t Time64() {
  return ::_time64(nullptr);
}

SystemTime GetLocalTime() {
  SYSTEMTIME now;
  ::GetLocalTime(&now);
  return {now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond};
}

void Mutex::lock() {
  native_.lock();
}

void Mutex::unlock() {
  native_.unlock();
}

// ---- Crash hooks and the end of the process ----

namespace {

int32_t (*gUnhandledExceptionFilter)() = nullptr;

// What GCC's runtime raises for a C++ exception. Going on in the throw leads to std::terminate where nobody
// catches it: the work of the runtime's own filter, which the trampoline replaces.
constexpr DWORD kGccThrow = 0x20474343;

LONG WINAPI UnhandledExceptionTrampoline(EXCEPTION_POINTERS* pointers) {
  if (pointers->ExceptionRecord->ExceptionCode == kGccThrow) return EXCEPTION_CONTINUE_EXECUTION;
  return gUnhandledExceptionFilter();
}

}  // namespace

void SetUnhandledExceptionFilter(int32_t (*filter)()) {
  gUnhandledExceptionFilter = filter;
  ::SetUnhandledExceptionFilter(UnhandledExceptionTrampoline);
}

void SetTerminate(void (*handler)()) {
  std::set_terminate(handler);
}

void AtExit(void (*handler)()) {
  std::atexit(handler);
}

void Abort() {
  std::abort();
}

// ---- Text ----

int MultiByteToWideChar(uint32_t codePage, uint32_t flags, const char* text, int size, wchar_t* out,
                        int outSize) {
  return ::MultiByteToWideChar(codePage, flags, text, size, out, outSize);
}

int WideCharToMultiByte(uint32_t codePage, uint32_t flags, const wchar_t* text, int size, char* out,
                        int outSize) {
  return ::WideCharToMultiByte(codePage, flags, text, size, out, outSize, nullptr, nullptr);
}

// ---- Environment ----

uint32_t GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, uint32_t size) {
  return ::GetEnvironmentVariableW(name, buffer, size);
}

// ---- Files ----

Handle CreateFileW(const std::wstring& path, uint32_t access, uint32_t share, uint32_t disposition,
                   uint32_t flagsAndAttributes) {
  return ::CreateFileW(path.c_str(), access, share, nullptr, disposition, flagsAndAttributes, nullptr);
}

bool ReadFile(Handle file, void* buffer, uint32_t size, uint32_t& read) {
  DWORD count = 0;
  bool ok = ::ReadFile(file, buffer, size, &count, nullptr) != 0;
  read = count;
  return ok;
}

bool WriteFile(Handle file, const void* bytes, uint32_t size, uint32_t& written) {
  DWORD count = 0;
  bool ok = ::WriteFile(file, bytes, size, &count, nullptr) != 0;
  written = count;
  return ok;
}

bool FlushFileBuffers(Handle file) {
  return ::FlushFileBuffers(file) != 0;
}

bool GetFileSizeEx(Handle file, int64_t& size) {
  LARGE_INTEGER value{};
  bool ok = ::GetFileSizeEx(file, &value) != 0;
  size = value.QuadPart;
  return ok;
}

bool CreateDirectoryW(const std::wstring& path) {
  return ::CreateDirectoryW(path.c_str(), nullptr) != 0;
}

bool DeleteFileW(const std::wstring& path) {
  return ::DeleteFileW(path.c_str()) != 0;
}

bool MoveFileExW(const std::wstring& from, const std::wstring& to, uint32_t flags) {
  return ::MoveFileExW(from.c_str(), to.c_str(), flags) != 0;
}

uint32_t GetFileAttributesW(const std::wstring& path) {
  return ::GetFileAttributesW(path.c_str());
}

Handle FindFirstFileW(const std::wstring& pattern, FindData& data) {
  WIN32_FIND_DATAW found{};
  HANDLE search = ::FindFirstFileW(pattern.c_str(), &found);
  data = {found.dwFileAttributes, found.cFileName};
  return search;
}

bool FindNextFileW(Handle search, FindData& data) {
  WIN32_FIND_DATAW found{};
  bool ok = ::FindNextFileW(search, &found) != 0;
  data = {found.dwFileAttributes, found.cFileName};
  return ok;
}

bool FindClose(Handle search) {
  return ::FindClose(search) != 0;
}

// ---- Rights of files ----

uint32_t GetNamedSecurityInfoW(const std::wstring& path, uint32_t objectType, uint32_t information,
                               void*& dacl, void*& descriptor) {
  PACL acl = nullptr;
  uint32_t code =
      ::GetNamedSecurityInfoW(const_cast<wchar_t*>(path.c_str()), static_cast<SE_OBJECT_TYPE>(objectType),
                              information, nullptr, nullptr, &acl, nullptr, &descriptor);
  dacl = acl;
  return code;
}

uint32_t SetEntriesInAclW(const ExplicitAccess& entry, void* oldAcl, void*& newAcl) {
  EXPLICIT_ACCESS_W access{};
  access.grfAccessPermissions = entry.accessPermissions;
  access.grfAccessMode = static_cast<ACCESS_MODE>(entry.accessMode);
  access.grfInheritance = entry.inheritance;
  access.Trustee.TrusteeForm = static_cast<TRUSTEE_FORM>(entry.trusteeForm);
  access.Trustee.TrusteeType = static_cast<TRUSTEE_TYPE>(entry.trusteeType);
  access.Trustee.ptstrName = const_cast<wchar_t*>(entry.trusteeName);
  PACL acl = nullptr;
  uint32_t code = ::SetEntriesInAclW(1, &access, static_cast<PACL>(oldAcl), &acl);
  newAcl = acl;
  return code;
}

uint32_t SetNamedSecurityInfoW(const std::wstring& path, uint32_t objectType, uint32_t information,
                               void* dacl) {
  return ::SetNamedSecurityInfoW(const_cast<wchar_t*>(path.c_str()), static_cast<SE_OBJECT_TYPE>(objectType),
                                 information, nullptr, nullptr, static_cast<PACL>(dacl), nullptr);
}

void LocalFree(void* memory) {
  ::LocalFree(memory);
}

// ---- Data protection ----

namespace {

DATA_BLOB BlobOf(const std::string& bytes) {
  return {static_cast<DWORD>(bytes.size()), reinterpret_cast<BYTE*>(const_cast<char*>(bytes.data()))};
}

void TakeBlob(const DATA_BLOB& blob, std::string& bytes) {
  bytes.assign(reinterpret_cast<const char*>(blob.pbData), blob.cbData);
  ::LocalFree(blob.pbData);
}

}  // namespace

bool CryptProtectData(const std::string& plain, const wchar_t* description, uint32_t flags,
                      std::string& blob) {
  DATA_BLOB input = BlobOf(plain);
  DATA_BLOB output{};
  if (!::CryptProtectData(&input, description, nullptr, nullptr, nullptr, flags, &output)) return false;
  TakeBlob(output, blob);
  return true;
}

bool CryptUnprotectData(const std::string& blob, uint32_t flags, std::string& plain) {
  DATA_BLOB input = BlobOf(blob);
  DATA_BLOB output{};
  if (!::CryptUnprotectData(&input, nullptr, nullptr, nullptr, nullptr, flags, &output)) return false;
  TakeBlob(output, plain);
  return true;
}

// ---- Winsock: names and addresses ----

int GetAddrInfoW(const std::wstring& host, int family, int socketType, std::vector<uint32_t>& addresses) {
  ADDRINFOW hints{};
  hints.ai_family = family;
  hints.ai_socktype = socketType;
  ADDRINFOW* list = nullptr;
  addresses.clear();
  int code = ::GetAddrInfoW(host.c_str(), nullptr, &hints, &list);
  if (code != 0) return code;
  for (const ADDRINFOW* entry = list; entry != nullptr; entry = entry->ai_next) {
    addresses.push_back(reinterpret_cast<const sockaddr_in*>(entry->ai_addr)->sin_addr.s_addr);
  }
  ::FreeAddrInfoW(list);
  return 0;
}

bool InetNtopW(int family, uint32_t address, uint32_t capacity, std::wstring& text) {
  std::wstring buffer(capacity, L'\0');
  if (::InetNtopW(family, &address, buffer.data(), capacity) == nullptr) return false;
  text = buffer.c_str();
  return true;
}

int InetPtonW(int family, const std::wstring& text, uint32_t& address) {
  return ::InetPtonW(family, text.c_str(), &address);
}

// ---- Service control manager, as a client ----

Handle OpenSCManagerW(uint32_t access) {
  return ::OpenSCManagerW(nullptr, nullptr, access);
}

Handle OpenServiceW(Handle manager, const std::wstring& name, uint32_t access) {
  return ::OpenServiceW(static_cast<SC_HANDLE>(manager), name.c_str(), access);
}

bool ControlService(Handle service, uint32_t control) {
  SERVICE_STATUS status{};
  return ::ControlService(static_cast<SC_HANDLE>(service), control, &status) != 0;
}

bool QueryServiceStatusEx(Handle service, uint32_t& currentState) {
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  bool ok = ::QueryServiceStatusEx(static_cast<SC_HANDLE>(service), SC_STATUS_PROCESS_INFO,
                                   reinterpret_cast<BYTE*>(&status), sizeof(status), &needed) != 0;
  currentState = status.dwCurrentState;
  return ok;
}

bool CloseServiceHandle(Handle handle) {
  return ::CloseServiceHandle(static_cast<SC_HANDLE>(handle)) != 0;
}

// ---- Service control manager, as a service ----

namespace {

ServiceMainFunction gServiceMain = nullptr;
ServiceCtrlHandlerFunction gServiceCtrlHandler = nullptr;

VOID WINAPI ServiceMainTrampoline(DWORD, LPWSTR*) {
  gServiceMain();
}

DWORD WINAPI ServiceCtrlHandlerTrampoline(DWORD control, DWORD, void*, void*) {
  return gServiceCtrlHandler(control);
}

}  // namespace

bool StartServiceCtrlDispatcherW(const wchar_t* serviceName, ServiceMainFunction serviceMain) {
  gServiceMain = serviceMain;
  const SERVICE_TABLE_ENTRYW table[] = {{const_cast<wchar_t*>(serviceName), ServiceMainTrampoline},
                                        {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherW(table) != 0;
}

Handle RegisterServiceCtrlHandlerExW(const wchar_t* serviceName, ServiceCtrlHandlerFunction handler) {
  gServiceCtrlHandler = handler;
  return ::RegisterServiceCtrlHandlerExW(serviceName, ServiceCtrlHandlerTrampoline, nullptr);
}

bool SetServiceStatus(Handle statusHandle, const ServiceStatus& status) {
  SERVICE_STATUS record{status.dwServiceType,
                        status.dwCurrentState,
                        status.dwControlsAccepted,
                        status.dwWin32ExitCode,
                        status.dwServiceSpecificExitCode,
                        status.dwCheckPoint,
                        status.dwWaitHint};
  return ::SetServiceStatus(static_cast<SERVICE_STATUS_HANDLE>(statusHandle), &record) != 0;
}

// ---- Console ----

namespace {

bool (*gConsoleCtrlHandler)(uint32_t type) = nullptr;

BOOL WINAPI ConsoleCtrlTrampoline(DWORD type) {
  return gConsoleCtrlHandler(type);
}

}  // namespace

bool SetConsoleCtrlHandler(bool (*handler)(uint32_t type)) {
  gConsoleCtrlHandler = handler;
  return ::SetConsoleCtrlHandler(ConsoleCtrlTrampoline, TRUE) != 0;
}

}  // namespace platform
