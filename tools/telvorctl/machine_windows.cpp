// The order matters: iphlpapi.h declares the newer calls only behind the sockets' headers.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <windows.h>

#include <iphlpapi.h>
#include <netioapi.h>

#include <memory>

#include "telvorctl/machine.h"
#include "telvorctl/windows_text.h"

namespace telvorctl::platform {

namespace {

struct HandleCloser {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, HandleCloser>;

struct ServiceCloser {
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using OwnedService = std::unique_ptr<SC_HANDLE__, ServiceCloser>;

struct ModuleFreer {
  void operator()(HMODULE module) const { FreeLibrary(module); }
};
using OwnedModule = std::unique_ptr<HINSTANCE__, ModuleFreer>;

// Windows gives no text at all where there is none.
std::string ToUtf8(const wchar_t* wide) {
  return wide == nullptr ? std::string() : WideToUtf8(wide);
}

Time TimeOf(const SYSTEMTIME& time) {
  return {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond};
}

Time LocalTimeOf(const FILETIME& time) {
  SYSTEMTIME utc = {};
  SYSTEMTIME local = {};
  FileTimeToSystemTime(&time, &utc);
  SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
  return TimeOf(local);
}

FolderEntry EntryOf(const WIN32_FIND_DATAW& found) {
  return {ToUtf8(found.cFileName), (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0,
          (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0,
          (uint64_t{found.nFileSizeHigh} << 32) | found.nFileSizeLow, LocalTimeOf(found.ftLastWriteTime)};
}

// INVALID_HANDLE_VALUE as CreateFileW.
HANDLE OpenToRead(const std::string& path) {
  constexpr DWORD kShared = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  return CreateFileW(Utf8ToWide(path).c_str(), GENERIC_READ, kShared, nullptr, OPEN_EXISTING,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

DWORD ReadAll(HANDLE file, std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    DWORD count = 0;
    if (!ReadFile(file, bytes.data() + done, static_cast<DWORD>(bytes.size() - done), &count, nullptr))
      return GetLastError();
    if (count == 0) break;
    done += count;
  }
  bytes.resize(done);
  return ERROR_SUCCESS;
}

void TakeConfiguration(SC_HANDLE service, ServiceFacts& facts) {
  DWORD size = 0;
  QueryServiceConfigW(service, nullptr, 0, &size);
  const auto buffer = std::make_unique<std::byte[]>(size);
  auto* const config = static_cast<QUERY_SERVICE_CONFIGW*>(static_cast<void*>(buffer.get()));
  if (!QueryServiceConfigW(service, config, size, &size)) {
    facts.error = GetLastError();
    return;
  }
  facts.startType = config->dwStartType;
  facts.account = ToUtf8(config->lpServiceStartName);
  facts.commandLine = ToUtf8(config->lpBinaryPathName);
}

Adapter AdapterOf(const IP_ADAPTER_ADDRESSES& found) {
  Adapter adapter{found.IfIndex, ToUtf8(found.FriendlyName), found.OperStatus == IfOperStatusUp, {}};
  for (const auto* unicast = found.FirstUnicastAddress; unicast != nullptr; unicast = unicast->Next) {
    const auto* const address =
        static_cast<const sockaddr_in*>(static_cast<const void*>(unicast->Address.lpSockaddr));
    adapter.addresses.push_back(address->sin_addr.s_addr);
  }
  return adapter;
}

}  // namespace

static_assert(kErrorPathNotFound == ERROR_PATH_NOT_FOUND && kErrorFileExists == ERROR_FILE_EXISTS &&
              kErrorServiceDoesNotExist == ERROR_SERVICE_DOES_NOT_EXIST &&
              kErrorNotFound == ERROR_NOT_FOUND && int{kMadeByHand} == MIB_IPPROTO_NETMGMT);

Time LocalTime() {
  SYSTEMTIME now;
  ::GetLocalTime(&now);
  return TimeOf(now);
}

Time UtcTime() {
  SYSTEMTIME now;
  ::GetSystemTime(&now);
  return TimeOf(now);
}

Folder ListFolder(const std::string& path) {
  Folder folder;
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((Utf8ToWide(path) + L"\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    folder.error = GetLastError();
    return folder;
  }
  do {
    FolderEntry entry = EntryOf(found);
    if (entry.name != "." && entry.name != "..") folder.entries.push_back(std::move(entry));
  } while (FindNextFileW(search, &found));
  FindClose(search);
  return folder;
}

FileBytes ReadFileEnd(const std::string& path, size_t most) {
  FileBytes file;
  const HANDLE opened = OpenToRead(path);
  if (opened == INVALID_HANDLE_VALUE) {
    file.error = GetLastError();
    return file;
  }
  const OwnedHandle owner(opened);
  LARGE_INTEGER size = {};
  GetFileSizeEx(opened, &size);
  file.size = static_cast<uint64_t>(size.QuadPart);
  file.bytes.resize(file.size < most ? static_cast<size_t>(file.size) : most);
  LARGE_INTEGER begin = {};
  begin.QuadPart = static_cast<LONGLONG>(file.size - file.bytes.size());
  SetFilePointerEx(opened, begin, nullptr, FILE_BEGIN);
  file.error = ReadAll(opened, file.bytes);
  return file;
}

uint32_t ReadFileInPieces(const std::string& path, const std::function<void(std::string_view)>& take) {
  constexpr size_t kPiece = size_t{1} << 20;
  const HANDLE opened = OpenToRead(path);
  if (opened == INVALID_HANDLE_VALUE) return GetLastError();
  const OwnedHandle owner(opened);
  std::string bytes;
  do {
    bytes.resize(kPiece);
    const DWORD error = ReadAll(opened, bytes);
    if (error != ERROR_SUCCESS) return error;
    take(bytes);
  } while (bytes.size() == kPiece);
  return ERROR_SUCCESS;
}

uint32_t WriteNewFile(const std::string& path, const std::string& bytes) {
  const HANDLE opened = CreateFileW(Utf8ToWide(path).c_str(), GENERIC_WRITE | DELETE, 0, nullptr, CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) return GetLastError();
  const OwnedHandle owner(opened);
  DWORD count = 0;
  const BOOL written = WriteFile(opened, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr);
  if (written && count == bytes.size()) return ERROR_SUCCESS;
  const DWORD error = written ? ERROR_DISK_FULL : GetLastError();
  FILE_DISPOSITION_INFO removed = {TRUE};
  SetFileInformationByHandle(opened, FileDispositionInfo, &removed, sizeof removed);
  return error;
}

std::string FileVersion(const std::string& path) {
  constexpr DWORD kAsData = LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE;
  const OwnedModule module(LoadLibraryExW(Utf8ToWide(path).c_str(), nullptr, kAsData));
  if (!module) return {};
  const HRSRC found = FindResourceW(module.get(), MAKEINTRESOURCEW(VS_VERSION_INFO), RT_VERSION);
  if (found == nullptr) return {};
  // VS_VERSIONINFO: three words, its key in UTF-16, padding to four bytes, then the fixed part.
  constexpr size_t kFixedPart = 40;
  if (SizeofResource(module.get(), found) < kFixedPart + sizeof(VS_FIXEDFILEINFO)) return {};
  const auto* const block = static_cast<const std::byte*>(LockResource(LoadResource(module.get(), found)));
  const auto* const fixed =
      static_cast<const VS_FIXEDFILEINFO*>(static_cast<const void*>(block + kFixedPart));
  if (fixed->dwSignature != VS_FFI_SIGNATURE) return {};
  return std::to_string(HIWORD(fixed->dwFileVersionMS)) + "." +
         std::to_string(LOWORD(fixed->dwFileVersionMS)) + "." +
         std::to_string(HIWORD(fixed->dwFileVersionLS)) + "." +
         std::to_string(LOWORD(fixed->dwFileVersionLS));
}

std::string EnvironmentVariable(const std::string& name) {
  const std::wstring wide = Utf8ToWide(name);
  std::wstring value(GetEnvironmentVariableW(wide.c_str(), nullptr, 0), L'\0');
  value.resize(GetEnvironmentVariableW(wide.c_str(), value.data(), static_cast<DWORD>(value.size())));
  return ToUtf8(value.c_str());
}

WindowsFacts DescribeWindows() {
  // GetVersionEx tells a program without a manifest of an older Windows than it runs on.
  using RtlGetVersionCall = LONG(WINAPI*)(OSVERSIONINFOW*);
  const FARPROC found = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion");
  const auto call = reinterpret_cast<RtlGetVersionCall>(reinterpret_cast<void*>(found));
  OSVERSIONINFOW version = {};
  version.dwOSVersionInfoSize = sizeof version;
  if (call != nullptr) call(&version);
  wchar_t language[LOCALE_NAME_MAX_LENGTH] = {};
  GetUserDefaultLocaleName(language, LOCALE_NAME_MAX_LENGTH);
  return {version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber, GetACP(), ToUtf8(language)};
}

ServiceFacts QueryService(const std::string& name) {
  ServiceFacts facts;
  const OwnedService manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const OwnedService service(manager ? OpenServiceW(manager.get(), Utf8ToWide(name).c_str(),
                                                    SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG)
                                     : nullptr);
  SERVICE_STATUS_PROCESS status = {};
  DWORD size = 0;
  if (!service ||
      !QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                            static_cast<BYTE*>(static_cast<void*>(&status)), sizeof status, &size)) {
    facts.error = GetLastError();
    return facts;
  }
  facts.state = status.dwCurrentState;
  facts.exitCode = status.dwWin32ExitCode;
  TakeConfiguration(service.get(), facts);
  return facts;
}

std::vector<Adapter> ListAdapters() {
  constexpr ULONG kFlags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
  ULONG size = 0;
  GetAdaptersAddresses(AF_INET, kFlags, nullptr, nullptr, &size);
  const auto buffer = std::make_unique<std::byte[]>(size);
  auto* first = static_cast<IP_ADAPTER_ADDRESSES*>(static_cast<void*>(buffer.get()));
  if (size == 0 || GetAdaptersAddresses(AF_INET, kFlags, nullptr, first, &size) != NO_ERROR) return {};
  std::vector<Adapter> adapters;
  for (; first != nullptr; first = first->Next) adapters.push_back(AdapterOf(*first));
  return adapters;
}

RouteTable ListRoutes() {
  MIB_IPFORWARD_TABLE2* table = nullptr;
  RouteTable found{GetIpForwardTable2(AF_INET, &table), {}};
  if (found.error != NO_ERROR) return found;
  for (ULONG i = 0; i < table->NumEntries; ++i) {
    const MIB_IPFORWARD_ROW2& row = table->Table[i];
    found.routes.push_back({row.DestinationPrefix.Prefix.Ipv4.sin_addr.s_addr,
                            row.DestinationPrefix.PrefixLength, row.NextHop.Ipv4.sin_addr.s_addr,
                            row.InterfaceIndex, row.Metric, static_cast<uint32_t>(row.Protocol)});
  }
  FreeMibTable(table);
  return found;
}

uint32_t RemoveRoute(const Route& route) {
  MIB_IPFORWARD_ROW2 row = {};
  row.InterfaceIndex = route.adapterIndex;
  row.DestinationPrefix.Prefix.si_family = AF_INET;
  row.DestinationPrefix.Prefix.Ipv4.sin_addr.s_addr = route.destination;
  row.DestinationPrefix.PrefixLength = route.prefixLength;
  row.NextHop.si_family = AF_INET;
  row.NextHop.Ipv4.sin_addr.s_addr = route.nextHop;
  return DeleteIpForwardEntry2(&row);
}

}  // namespace telvorctl::platform
