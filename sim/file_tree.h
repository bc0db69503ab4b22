// The tree of folders and files behind the simulated file system: paths, nodes, and sharing rules.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sim {

inline constexpr uint32_t kErrorFileNotFound = 2;
inline constexpr uint32_t kErrorPathNotFound = 3;
inline constexpr uint32_t kErrorSharingViolation = 32;
inline constexpr uint32_t kErrorInvalidName = 123;

// What an open handle does, and lets others do meanwhile: bits of FILE_SHARE_READ, _WRITE and _DELETE.
struct OpenMode {
  uint32_t uses = 0;
  uint32_t shares = 0;
};

struct FileNode {
  std::wstring path;  // full, as it was made
  bool folder = false;
  std::string bytes;
  uint64_t number = 0;    // unique
  uint64_t rewrites = 0;  // changes other than appending
  std::vector<OpenMode> opens;
};
using FileNodePointer = std::shared_ptr<FileNode>;

// By full path in lower case.
extern std::map<std::wstring, FileNodePointer> gFileTree;

// Absolute, backslashes only, none doubled, none at the end; relative paths lie in C:\windows.
std::wstring FullPath(const std::wstring& path);
std::wstring ParentPath(const std::wstring& fullPath);
std::wstring BaseName(const std::wstring& fullPath);

FileNodePointer FindNode(const std::wstring& path);  // null if there is none
FileNodePointer AddNode(const std::wstring& fullPath, bool folder);
void RemoveNode(const std::wstring& fullPath);
// Why nothing can be made or found at this path, apart from its last part: 0, 3 or 123.
uint32_t PathError(const std::wstring& fullPath);
// Whether somebody holds the path, or has the file open in a way that excludes `mode`.
bool SharingForbids(const FileNode* node, const std::wstring& fullPath, OpenMode mode);
bool Held(const std::wstring& fullPath);

}  // namespace sim
