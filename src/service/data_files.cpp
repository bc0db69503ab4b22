#include "service/data_files.h"

#include <algorithm>
#include <utility>

#include "controlplane/text.h"
#include "service/platform.h"

namespace {

constexpr int64_t kLongestTextFile = int64_t{10} * 1024 * 1024;  // bytes
constexpr uint32_t kLargestRead = 1u << 30;                      // bytes of one ReadFile
constexpr size_t kFirstRoom = 16384;                             // bytes

// EXPLICIT_ACCESS_W values (accctrl.h).
constexpr uint32_t kModifyRights = 0x001301BF;  // read, write, execute and delete
constexpr uint32_t kGrantAccess = 1;
constexpr uint32_t kInheritedByFilesAndFolders = 3;
constexpr uint32_t kTrusteeIsName = 1;
constexpr uint32_t kTrusteeIsGroup = 2;

// Opens as a stream for reading does: others may read and write.
platform::Handle OpenForReading(const std::wstring& path) {
  return platform::CreateFileW(path, platform::kGenericRead,
                               platform::kFileShareRead | platform::kFileShareWrite, platform::kOpenExisting,
                               platform::kFileAttributeNormal);
}

// Makes room for `capacity` bytes and keeps those that are there.
void Grow(FileContent& bytes, size_t capacity) {
  auto larger = std::make_unique_for_overwrite<char[]>(capacity);
  std::copy_n(bytes.data.get(), bytes.size, larger.get());
  bytes.data = std::move(larger);
}

// Only a file that fills its first room, which hardly any does, is asked for its size.
size_t NextCapacity(platform::Handle file, size_t capacity) {
  int64_t size = 0;
  platform::GetFileSizeEx(file, size);  // a hint: the file may grow meanwhile
  return std::max(static_cast<size_t>(size) + 1, capacity * 2);
}

void ReadToEnd(platform::Handle file, FileContent& bytes) {
  size_t capacity = 0;
  uint32_t read = 0;
  do {
    if (bytes.size == capacity) {
      capacity = capacity == 0 ? kFirstRoom : NextCapacity(file, capacity);
      Grow(bytes, capacity);
    }
    const auto room = static_cast<uint32_t>(std::min<size_t>(capacity - bytes.size, kLargestRead));
    if (!platform::ReadFile(file, bytes.data.get() + bytes.size, room, read)) return;
    bytes.size += read;
  } while (read > 0);
}

}  // namespace

bool EnsureDirectory(const std::wstring& directory) {
  const auto made = [&directory] {
    if (directory.starts_with(kDataRoot)) ApplyDataDirAcl(kDataRoot);
    return true;
  };
  if (platform::CreateDirectoryW(directory)) return made();
  const uint32_t error = platform::GetLastError();
  if (error != platform::kErrorPathNotFound) return error == platform::kErrorAlreadyExists;
  platform::CreateDirectoryW(kDataRoot);
  if (platform::CreateDirectoryW(directory)) return made();
  return platform::GetLastError() == platform::kErrorAlreadyExists;
}

bool EnsureParentDirForFile(const std::wstring& path) {
  const size_t separator = path.find_last_of(L"\\/");
  if (separator == std::wstring::npos || separator == 0) return false;
  return EnsureDirectory(path.substr(0, separator));
}

void ApplyDataDirAcl(const std::wstring& path) {
  void* dacl = nullptr;
  void* descriptor = nullptr;
  if (platform::GetNamedSecurityInfoW(path, platform::kSeFileObject, platform::kDaclSecurityInformation, dacl,
                                      descriptor) != platform::kErrorSuccess) {
    return;
  }
  // Wanted: the English group name, not the well-known SID.
  const platform::ExplicitAccess entry{kModifyRights,  kGrantAccess,    kInheritedByFilesAndFolders,
                                       kTrusteeIsName, kTrusteeIsGroup, L"Users"};
  void* newDacl = nullptr;
  if (platform::SetEntriesInAclW(entry, dacl, newDacl) == platform::kErrorSuccess) {
    platform::SetNamedSecurityInfoW(path, platform::kSeFileObject, platform::kDaclSecurityInformation,
                                    newDacl);
    platform::LocalFree(newDacl);
  }
  platform::LocalFree(descriptor);
}

void ApplyDataDirAclRecursive(const std::wstring& directory) {
  ApplyDataDirAcl(directory);
  platform::FindData entry;
  platform::Handle search = platform::FindFirstFileW(directory + L"\\*", entry);
  if (search == platform::InvalidHandle()) return;
  do {
    if (entry.name == L"." || entry.name == L"..") continue;
    const std::wstring path = directory + L"\\" + entry.name;
    ApplyDataDirAcl(path);
    if (entry.attributes & platform::kFileAttributeDirectory) ApplyDataDirAclRecursive(path);
  } while (platform::FindNextFileW(search, entry));
  platform::FindClose(search);
}

WriteResult WriteNewFile(const std::wstring& path, const std::string& bytes, uint32_t share, bool flush) {
  platform::Handle file = platform::CreateFileW(path, platform::kGenericWrite, share, platform::kCreateAlways,
                                                platform::kFileAttributeNormal);
  if (file == platform::InvalidHandle()) return WriteResult::kNotOpened;
  uint32_t written = 0;
  const bool ok = platform::WriteFile(file, bytes.data(), static_cast<uint32_t>(bytes.size()), written);
  if (flush) platform::FlushFileBuffers(file);
  platform::CloseHandle(file);
  return ok && written == bytes.size() ? WriteResult::kWritten : WriteResult::kFailed;
}

bool WriteFileAtomic(const std::wstring& path, const std::string& bytes) {
  const std::wstring temporary = path + L".tmp";
  const WriteResult result = WriteNewFile(temporary, bytes, platform::kFileShareNone, true);
  if (result == WriteResult::kNotOpened) return false;
  if (result == WriteResult::kWritten &&
      platform::MoveFileExW(temporary, path,
                            platform::kMoveFileReplaceExisting | platform::kMoveFileWriteThrough)) {
    return true;
  }
  platform::DeleteFileW(temporary);
  return false;
}

bool WriteTextFile(const std::wstring& path, const std::wstring& text) {
  return WriteNewFile(path, WideToUtf8(text), platform::kFileShareNone, true) == WriteResult::kWritten;
}

bool ReadTextFileTrimmed(const std::wstring& path, std::wstring& text) {
  text.clear();
  platform::Handle file = platform::CreateFileW(path, platform::kGenericRead, platform::kFileShareRead,
                                                platform::kOpenExisting, platform::kFileAttributeNormal);
  if (file == platform::InvalidHandle()) return false;
  int64_t size = 0;
  std::string bytes;
  bool whole = platform::GetFileSizeEx(file, size) && size >= 1 && size <= kLongestTextFile;
  if (whole) {
    bytes.resize(static_cast<size_t>(size));
    uint32_t read = 0;
    whole = platform::ReadFile(file, bytes.data(), static_cast<uint32_t>(size), read) && read == bytes.size();
  }
  platform::CloseHandle(file);
  if (!whole) return false;
  text = TrimWide(Utf8ToWide(bytes));
  return !text.empty();
}

bool ReadWholeFile(const std::wstring& path, FileContent& bytes) {
  bytes = FileContent{};
  platform::Handle file = OpenForReading(path);
  if (file == platform::InvalidHandle()) return false;
  ReadToEnd(file, bytes);
  platform::CloseHandle(file);
  return true;
}

bool ReadWholeFile(const std::wstring& path, std::string& bytes) {
  FileContent read;
  const bool opened = ReadWholeFile(path, read);
  bytes = read.Text();
  return opened;
}

bool ProtectToFile(const std::wstring& path, const std::string& bytes) {
  std::string blob;
  if (!platform::CryptProtectData(bytes, nullptr, platform::kCryptProtectLocalMachine, blob)) return false;
  if (!EnsureParentDirForFile(path)) return false;
  return WriteNewFile(path, blob, platform::kFileShareRead | platform::kFileShareWrite, false) ==
         WriteResult::kWritten;
}

bool UnprotectFromFile(const std::wstring& path, std::string& bytes) {
  bytes.clear();
  std::string blob;
  if (!ReadWholeFile(path, blob) || blob.empty()) return false;
  return platform::CryptUnprotectData(blob, 0, bytes);
}
