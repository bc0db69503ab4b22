#include "file_tree.h"

#include <algorithm>
#include <set>
#include <string_view>

#include "case.h"
#include "device.h"
#include "files.h"

namespace sim {

std::map<std::wstring, FileNodePointer> gFileTree;

namespace {

constexpr wchar_t kDrive[] = L"C:";
constexpr wchar_t kWorkingFolder[] = L"C:\\windows\\";
constexpr wchar_t kForbiddenInNames[] = L"<>\"|?*";

std::set<std::wstring> gHeld;  // full paths in lower case
uint64_t gNextNode = 1;

void Boot() {
  gFileTree.clear();
  gHeld.clear();
  AddNode(kDrive, true);
  for (const wchar_t* folder : {L"C:\\ProgramData", L"C:\\VPN\\stage", L"C:\\Program Files\\TELVOR\\data",
                                L"C:\\Program Files\\WireGuard", L"C:\\windows"}) {
    MakeFolder(folder);
  }
  PutFile(L"C:\\Program Files\\WireGuard\\wireguard.exe", "program");
  PutFile(L"C:\\Program Files\\WireGuard\\wg.exe", "program");
  PutFile(L"C:\\Program Files\\TELVOR\\telvor.exe", "program");
}

const Device kDevice("file tree", &Boot);

std::wstring Absolute(std::wstring path) {
  std::replace(path.begin(), path.end(), L'/', L'\\');
  if (path.size() > 1 && path[1] == L':') return path;
  if (!path.empty() && path[0] == L'\\') return kDrive + path;
  return kWorkingFolder + path;
}

// Every path below the folder, itself excluded.
std::vector<std::wstring> KeysBelow(const std::wstring& folder) {
  const std::wstring prefix = LowerCase(folder) + L'\\';
  std::vector<std::wstring> keys;
  for (auto place = gFileTree.lower_bound(prefix); place != gFileTree.end(); ++place) {
    if (place->first.compare(0, prefix.size(), prefix) != 0) break;
    keys.push_back(place->first);
  }
  return keys;
}

}  // namespace

std::wstring FullPath(const std::wstring& path) {
  const std::wstring absolute = Absolute(path);
  std::wstring full;
  full.reserve(absolute.size());
  for (size_t from = 0; from <= absolute.size();) {
    const size_t to = std::min(absolute.find(L'\\', from), absolute.size());
    const std::wstring_view part = std::wstring_view(absolute).substr(from, to - from);
    from = to + 1;
    if (part.empty() || part == L".") continue;
    if (part == L"..") {
      full.erase(std::min(full.rfind(L'\\'), full.size()));
      continue;
    }
    if (!full.empty()) full += L'\\';
    full += part;
  }
  return full;
}

std::wstring ParentPath(const std::wstring& fullPath) {
  return fullPath.substr(0, std::min(fullPath.rfind(L'\\'), fullPath.size()));
}

std::wstring BaseName(const std::wstring& fullPath) {
  return fullPath.substr(fullPath.rfind(L'\\') + 1);
}

FileNodePointer FindNode(const std::wstring& path) {
  const auto found = gFileTree.find(LowerCase(FullPath(path)));
  return found == gFileTree.end() ? nullptr : found->second;
}

FileNodePointer AddNode(const std::wstring& fullPath, bool folder) {
  auto node = std::make_shared<FileNode>();
  node->path = fullPath;
  node->folder = folder;
  node->number = gNextNode++;
  gFileTree[LowerCase(fullPath)] = node;
  return node;
}

void RemoveNode(const std::wstring& fullPath) {
  gFileTree.erase(LowerCase(fullPath));
}

uint32_t PathError(const std::wstring& fullPath) {
  if (fullPath.find_first_of(kForbiddenInNames) != std::wstring::npos) return kErrorInvalidName;
  const FileNodePointer parent = FindNode(ParentPath(fullPath));
  return parent && parent->folder ? 0 : kErrorPathNotFound;
}

bool Held(const std::wstring& fullPath) {
  return gHeld.count(LowerCase(fullPath)) > 0;
}

bool SharingForbids(const FileNode* node, const std::wstring& fullPath, OpenMode mode) {
  if (Held(fullPath)) return true;
  if (!node) return false;
  return std::any_of(node->opens.begin(), node->opens.end(), [mode](OpenMode open) {
    return (mode.uses & ~open.shares) != 0 || (open.uses & ~mode.shares) != 0;
  });
}

// ---- Controls ----

void MakeFolder(const std::wstring& path) {
  Guard guard;
  const std::wstring full = FullPath(path);
  if (FindNode(full)) return;
  MakeFolder(ParentPath(full));
  AddNode(full, true);
}

void PutFile(const std::wstring& path, const std::string& bytes) {
  Guard guard;
  const std::wstring full = FullPath(path);
  MakeFolder(ParentPath(full));
  FileNodePointer node = FindNode(full);
  if (!node) node = AddNode(full, false);
  node->bytes = bytes;
  ++node->rewrites;
}

std::optional<std::string> FileBytes(const std::wstring& path) {
  Guard guard;
  const FileNodePointer node = FindNode(path);
  if (!node || node->folder) return std::nullopt;
  return node->bytes;
}

bool FileExists(const std::wstring& path) {
  Guard guard;
  const FileNodePointer node = FindNode(path);
  return node && !node->folder;
}

bool FolderExists(const std::wstring& path) {
  Guard guard;
  const FileNodePointer node = FindNode(path);
  return node && node->folder;
}

void RemoveFile(const std::wstring& path) {
  Guard guard;
  RemoveNode(FullPath(path));
}

void RemoveFolder(const std::wstring& path) {
  Guard guard;
  const std::wstring full = FullPath(path);
  for (const std::wstring& key : KeysBelow(full)) gFileTree.erase(key);
  RemoveNode(full);
}

std::vector<std::wstring> AllFiles() {
  Guard guard;
  std::vector<std::wstring> paths;
  for (const auto& [key, node] : gFileTree) {
    if (!node->folder) paths.push_back(node->path);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

void HoldFile(const std::wstring& path) {
  Guard guard;
  gHeld.insert(LowerCase(FullPath(path)));
}

void ReleaseFile(const std::wstring& path) {
  Guard guard;
  gHeld.erase(LowerCase(FullPath(path)));
}

}  // namespace sim
