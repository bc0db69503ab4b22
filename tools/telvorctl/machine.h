// What telvorctl looks at on the machine itself: files, services, versions, adapters, routes.
// Translated by machine_windows.cpp without a decision in it; the tests put a scripted machine in its place.
// All texts and paths are UTF-8; an error is Windows' code, 0 (ERROR_SUCCESS) if there was none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace telvorctl::platform {

// winerror.h
inline constexpr uint32_t kErrorPathNotFound = 3;
inline constexpr uint32_t kErrorFileExists = 80;
inline constexpr uint32_t kErrorServiceDoesNotExist = 1060;
inline constexpr uint32_t kErrorNotFound = 1168;
// MIB_IPPROTO_NETMGMT: set by an administrator or a program, not by a protocol.
inline constexpr uint32_t kMadeByHand = 3;

struct Time {
  uint16_t year = 0;
  uint16_t month = 0;
  uint16_t day = 0;
  uint16_t hour = 0;
  uint16_t minute = 0;
  uint16_t second = 0;
};

Time LocalTime();
Time UtcTime();

struct FolderEntry {
  std::string name;
  bool isFolder = false;
  bool isLink = false;  // a reparse point: what lies behind it belongs elsewhere
  uint64_t size = 0;    // bytes
  Time written;         // local
};

struct Folder {
  uint32_t error = 0;  // of opening it
  std::vector<FolderEntry> entries;
};

// All but "." and "..", in the file system's order.
Folder ListFolder(const std::string& path);

struct FileBytes {
  uint32_t error = 0;
  uint64_t size = 0;  // of the whole file
  std::string bytes;
};

// The last `most` bytes of the file, all of them if it has no more. Others may go on writing to it.
FileBytes ReadFileEnd(const std::string& path, size_t most);

// Gives all of the file, piece by piece, as it was when it was opened or longer. Others may go on writing to
// it.
uint32_t ReadFileInPieces(const std::string& path, const std::function<void(std::string_view)>& take);

// Makes the file with these bytes, or leaves none. kErrorFileExists if there is one of that name.
uint32_t WriteNewFile(const std::string& path, const std::string& bytes);

// Of the file's version resource: "1.2.3.4". Empty if there is none, or no such file.
std::string FileVersion(const std::string& path);

// Empty if there is no such variable.
std::string EnvironmentVariable(const std::string& name);

struct WindowsFacts {
  uint32_t major = 0;
  uint32_t minor = 0;
  uint32_t build = 0;
  uint32_t codePage = 0;  // the system's, of programs that do not know Unicode
  std::string language;   // the user's: "en-GB"
};

WindowsFacts DescribeWindows();

struct ServiceFacts {
  uint32_t error = 0;      // of the service manager; kErrorServiceDoesNotExist if it knows none of that name
  uint32_t state = 0;      // SERVICE_STATUS_PROCESS.dwCurrentState
  uint32_t exitCode = 0;   // dwWin32ExitCode
  uint32_t startType = 0;  // QUERY_SERVICE_CONFIGW.dwStartType
  std::string account;
  std::string commandLine;
};

ServiceFacts QueryService(const std::string& name);

// IPv4 addresses are in the order of their bytes on the wire.
struct Adapter {
  uint32_t index = 0;
  std::string name;
  bool isUp = false;
  std::vector<uint32_t> addresses;  // IPv4
};

std::vector<Adapter> ListAdapters();

struct Route {
  uint32_t destination = 0;
  uint8_t prefixLength = 0;
  uint32_t nextHop = 0;
  uint32_t adapterIndex = 0;
  uint32_t metric = 0;
  uint32_t protocol = 0;
};

struct RouteTable {
  uint32_t error = 0;
  std::vector<Route> routes;
};

// Of IPv4.
RouteTable ListRoutes();

// By destination, next hop and adapter. kErrorNotFound if it is gone already.
uint32_t RemoveRoute(const Route& route);

}  // namespace telvorctl::platform
