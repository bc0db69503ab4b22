#include "tests/telvorctl/scripted_machine.h"

#include <algorithm>

#include "telvorctl/platform.h"

using telvorctl_test::gMachine;

namespace telvorctl_test {

std::string Utf16(const std::string& text) {
  std::string bytes;
  for (const char byte : text) bytes += {byte, '\0'};
  return bytes;
}

}  // namespace telvorctl_test

namespace telvorctl::platform {

namespace {

constexpr size_t kPiece = 7;  // so small that it parts everything somewhere
constexpr Time kWritten = {2026, 1, 2, 3, 4, 5};

bool IsIn(const std::vector<FolderEntry>& entries, const std::string& name) {
  return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) { return entry.name == name; });
}

}  // namespace

Time LocalTime() {
  return {2026, 11, 22, 9, 30, 0};
}

Time UtcTime() {
  return {2026, 11, 22, 8, 30, 0};
}

Folder ListFolder(const std::string& path) {
  if (const auto found = gMachine.unreadable.find(path); found != gMachine.unreadable.end())
    return {found->second, {}};
  Folder folder;
  for (const auto& [file, bytes] : gMachine.files) {
    if (!file.starts_with(path + "\\")) continue;
    const std::string below = file.substr(path.size() + 1);
    const std::string name = below.substr(0, below.find('\\'));
    const bool isFolder = name != below;
    if (IsIn(folder.entries, name)) continue;
    const bool isLink = path + "\\" + name == gMachine.link;
    folder.entries.push_back({name, isFolder, isLink, isFolder ? 0 : bytes.size(), kWritten});
  }
  if (folder.entries.empty()) folder.error = kErrorPathNotFound;
  std::reverse(folder.entries.begin(), folder.entries.end());  // no order is promised
  return folder;
}

FileBytes ReadFileEnd(const std::string& path, size_t most) {
  if (const auto found = gMachine.unreadable.find(path); found != gMachine.unreadable.end())
    return {found->second, 0, {}};
  const auto file = gMachine.files.find(path);
  if (file == gMachine.files.end()) return {kErrorFileNotFound, 0, {}};
  const std::string& bytes = file->second;
  return {kErrorSuccess, bytes.size(), bytes.substr(bytes.size() - std::min(most, bytes.size()))};
}

uint32_t ReadFileInPieces(const std::string& path, const std::function<void(std::string_view)>& take) {
  const FileBytes file = ReadFileEnd(path, SIZE_MAX);
  for (size_t at = 0; at < file.bytes.size(); at += kPiece)
    take(std::string_view(file.bytes).substr(at, kPiece));
  return file.error;
}

uint32_t WriteNewFile(const std::string& path, const std::string& bytes) {
  if (const auto found = gMachine.unreadable.find(path); found != gMachine.unreadable.end())
    return found->second;
  return gMachine.files.emplace(path, bytes).second ? kErrorSuccess : kErrorFileExists;
}

std::string FileVersion(const std::string& path) {
  const auto found = gMachine.versions.find(path);
  return found == gMachine.versions.end() ? std::string() : found->second;
}

std::string EnvironmentVariable(const std::string& name) {
  return name == "ProgramData" ? "C:\\ProgramData" : "";
}

WindowsFacts DescribeWindows() {
  return gMachine.windows;
}

ServiceFacts QueryService(const std::string& name) {
  const auto found = gMachine.services.find(name);
  if (found != gMachine.services.end()) return found->second;
  return {kErrorServiceDoesNotExist, 0, 0, 0, {}, {}};
}

std::vector<Adapter> ListAdapters() {
  return gMachine.adapters;
}

RouteTable ListRoutes() {
  if (gMachine.routesError != kErrorSuccess) return {gMachine.routesError, {}};
  return {kErrorSuccess, gMachine.routes};
}

uint32_t RemoveRoute(const Route& route) {
  if (gMachine.removalError != kErrorSuccess) return gMachine.removalError;
  const size_t removed = std::erase_if(gMachine.routes, [&](const Route& each) {
    return each.destination == route.destination && each.prefixLength == route.prefixLength &&
           each.nextHop == route.nextHop && each.adapterIndex == route.adapterIndex;
  });
  return removed > 0 ? kErrorSuccess : kErrorNotFound;
}

}  // namespace telvorctl::platform
