// The file operations of the platform over the simulated file tree.
#include "files.h"

#include <algorithm>
#include <optional>

#include "case.h"
#include "device.h"
#include "file_tree.h"
#include "service/platform.h"
#include "stream.h"

namespace sim {
namespace {

constexpr uint32_t kErrorNoMoreFiles = 18;
constexpr uint32_t kErrorFileExists = 80;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorAlreadyExists = 183;

constexpr uint32_t kFileWriteData = 2;
constexpr uint32_t kDelete = 0x00010000;
constexpr uint32_t kCreateNew = 1;
constexpr uint32_t kTruncateExisting = 5;
constexpr uint32_t kFileAttributeArchive = 32;

// A write that is not flushed yet, with what it covered.
struct Unflushed {
  size_t offset;
  size_t size;
  size_t previousSize;
  std::string previous;
};

std::optional<size_t> gTearAt;

struct OpenFile : Stream {
  OpenFile(FileNodePointer openedNode, uint32_t openAccess, OpenMode openMode)
      : Stream("file"), node(std::move(openedNode)), access(openAccess), mode(openMode) {
    node->opens.push_back(mode);
  }
  void Closed() override;
  bool Read(Call& call, char* buffer, uint32_t size, uint32_t& read) override;
  bool Write(Call& call, const char* bytes, uint32_t size, uint32_t& written) override;
  bool Flush(Call& call) override;
  void Tear(size_t keep);

  FileNodePointer node;
  uint32_t access;
  OpenMode mode;
  size_t position = 0;
  std::vector<Unflushed> unflushed;
};

void OpenFile::Closed() {
  const auto same = [this](OpenMode other) { return other.uses == mode.uses && other.shares == mode.shares; };
  const auto place = std::find_if(node->opens.begin(), node->opens.end(), same);
  if (place != node->opens.end()) node->opens.erase(place);
}

bool OpenFile::Read(Call& call, char* buffer, uint32_t size, uint32_t& read) {
  if (!(access & platform::kGenericRead)) return call.Fail(kErrorAccessDenied);
  const size_t from = std::min(position, node->bytes.size());
  const size_t count = std::min<size_t>(size, node->bytes.size() - from);
  std::copy_n(node->bytes.begin() + static_cast<std::ptrdiff_t>(from), count, buffer);
  position = from + count;
  read = static_cast<uint32_t>(count);
  return true;
}

bool OpenFile::Write(Call& call, const char* bytes, uint32_t size, uint32_t& written) {
  const bool anywhere = (access & (platform::kGenericWrite | kFileWriteData)) != 0;
  if (!anywhere && !(access & platform::kFileAppendData)) return call.Fail(kErrorAccessDenied);
  std::string& content = node->bytes;
  const size_t offset = anywhere ? position : content.size();
  if (offset < content.size()) ++node->rewrites;
  unflushed.push_back({offset, size, content.size(), content.substr(std::min(offset, content.size()), size)});
  if (offset + size > content.size()) content.resize(offset + size);
  std::copy_n(bytes, size, content.begin() + static_cast<std::ptrdiff_t>(offset));
  position = offset + size;
  written = size;
  return true;
}

bool OpenFile::Flush(Call& call) {
  if (!(access & (platform::kGenericWrite | kFileWriteData | platform::kFileAppendData))) {
    return call.Fail(kErrorAccessDenied);
  }
  unflushed.clear();
  return true;
}

// Takes back what lies behind the first `keep` bytes of each unflushed write.
void OpenFile::Tear(size_t keep) {
  std::string& content = node->bytes;
  for (; !unflushed.empty(); unflushed.pop_back()) {
    const Unflushed& write = unflushed.back();
    const size_t end = write.offset + write.size;
    if (write.size <= keep || end > content.size()) continue;
    const size_t from = write.offset + keep;
    std::string before = write.previous.substr(std::min(keep, write.previous.size()));
    before.resize(end - from);
    content.replace(from, end - from, before);
    if (end == content.size()) content.resize(std::max(from, write.previousSize));
    ++node->rewrites;
  }
}

void TearUnflushedWrites() {
  if (!gTearAt) return;
  ForEachOpenObject([](Object& object) {
    if (auto* file = dynamic_cast<OpenFile*>(&object)) file->Tear(*gTearAt);
  });
  gTearAt.reset();
}

const Device kDevice(
    "files", [] { gTearAt.reset(); }, &TearUnflushedWrites);

struct Search : Object {
  Search() : Object("find") {}
  std::vector<platform::FindData> found;
  size_t next = 0;
};

OpenMode ModeOf(uint32_t access, uint32_t share) {
  OpenMode mode;
  mode.shares = share;
  if (access & platform::kGenericRead) mode.uses |= platform::kFileShareRead;
  if (access & (platform::kGenericWrite | platform::kFileAppendData | kFileWriteData)) {
    mode.uses |= platform::kFileShareWrite;
  }
  if (access & kDelete) mode.uses |= platform::kFileShareDelete;
  return mode;
}

// What deleting and renaming ask of the other handles.
constexpr OpenMode kDeleteMode{platform::kFileShareDelete, platform::kFileShareRead |
                                                               platform::kFileShareWrite |
                                                               platform::kFileShareDelete};

// Why the file cannot be opened so; 0 if it can.
uint32_t OpenError(const FileNodePointer& node, const std::wstring& full, uint32_t disposition,
                   OpenMode mode) {
  if (disposition < kCreateNew || disposition > kTruncateExisting) return kErrorInvalidParameter;
  if (!node) {
    if (const uint32_t error = PathError(full)) return error;
    if (SharingForbids(nullptr, full, mode)) return kErrorSharingViolation;
    const bool mustExist = disposition == platform::kOpenExisting || disposition == kTruncateExisting;
    return mustExist ? kErrorFileNotFound : 0;
  }
  if (node->folder) return kErrorAccessDenied;
  if (disposition == kCreateNew) return kErrorFileExists;
  return SharingForbids(node.get(), full, mode) ? kErrorSharingViolation : 0;
}

uint32_t AttributesOf(const FileNode& node) {
  return node.folder ? platform::kFileAttributeDirectory : kFileAttributeArchive;
}

bool NameMatches(const wchar_t* pattern, const wchar_t* name) {
  if (*pattern == L'\0') return *name == L'\0';
  if (*pattern == L'*') {
    return NameMatches(pattern + 1, name) || (*name != L'\0' && NameMatches(pattern, name + 1));
  }
  return *name != L'\0' && (*pattern == L'?' || *pattern == *name) && NameMatches(pattern + 1, name + 1);
}

void FillSearch(Search& search, const std::wstring& folder, const std::wstring& pattern) {
  const auto consider = [&](const std::wstring& name, uint32_t attributes) {
    if (NameMatches(LowerCase(pattern).c_str(), LowerCase(name).c_str())) {
      search.found.push_back({attributes, name});
    }
  };
  consider(L".", platform::kFileAttributeDirectory);
  consider(L"..", platform::kFileAttributeDirectory);
  for (const auto& [key, node] : gFileTree) {
    if (key != LowerCase(folder) && ParentPath(key) == LowerCase(folder)) {
      consider(BaseName(node->path), AttributesOf(*node));
    }
  }
}

// Why a file cannot be deleted or renamed; 0 if it can.
uint32_t DeleteError(const FileNodePointer& node, const std::wstring& full) {
  if (!node) {
    const uint32_t error = PathError(full);
    return error ? error : kErrorFileNotFound;
  }
  if (node->folder) return kErrorAccessDenied;
  return SharingForbids(node.get(), full, kDeleteMode) ? kErrorSharingViolation : 0;
}

uint32_t MoveTargetError(const FileNodePointer& target, const std::wstring& full, uint32_t flags) {
  if (!target) return PathError(full);
  if (!(flags & platform::kMoveFileReplaceExisting)) return kErrorAlreadyExists;
  return target->folder || Held(full) || !target->opens.empty() ? kErrorAccessDenied : 0;
}

std::string Content(const void* bytes, uint32_t size) {
  return {static_cast<const char*>(bytes), size};
}

}  // namespace

void TearWritesAt(size_t bytes) {
  Guard guard;
  gTearAt = bytes;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

Handle CreateFileW(const std::wstring& path, uint32_t access, uint32_t share, uint32_t disposition,
                   uint32_t flagsAndAttributes) {
  Call call("CreateFileW", Args("path", path, "access", sim::Hex{access}, "share", share, "disposition",
                                disposition, "flags", sim::Hex{flagsAndAttributes}));
  if (call.Faulted()) return InvalidHandle();
  const std::wstring full = sim::FullPath(path);
  const sim::OpenMode mode = sim::ModeOf(access, share);
  sim::FileNodePointer node = sim::FindNode(full);
  if (const uint32_t error = sim::OpenError(node, full, disposition, mode)) {
    call.Fail(error);
    return InvalidHandle();
  }
  const bool existed = node != nullptr;
  if (!existed) node = sim::AddNode(full, false);
  if (existed && (disposition == kCreateAlways || disposition == sim::kTruncateExisting)) {
    node->bytes.clear();
    ++node->rewrites;
  }
  Handle handle = sim::OpenHandle(std::make_shared<sim::OpenFile>(node, access, mode));
  const bool tellsExisting = disposition == kCreateAlways || disposition == kOpenAlways;
  sim::SetLastError(existed && tellsExisting ? sim::kErrorAlreadyExists : 0);
  call.SetResult(Args("handle", handle));
  return handle;
}

bool ReadFile(Handle file, void* buffer, uint32_t size, uint32_t& read) {
  Call call("ReadFile", Args("file", file, "size", size));
  read = 0;
  if (call.Faulted()) return false;
  const auto stream = sim::Use<sim::Stream>("ReadFile", file);
  if (!stream) return call.Fail(sim::kErrorInvalidHandle);
  if (!stream->Read(call, static_cast<char*>(buffer), call.Shortened(size), read)) return false;
  call.SetResult(Args("bytes", sim::Content(buffer, read)));
  return true;
}

bool WriteFile(Handle file, const void* bytes, uint32_t size, uint32_t& written) {
  Call call("WriteFile", Args("file", file, "size", size, "bytes", sim::Content(bytes, size)));
  written = 0;
  if (call.Faulted()) return false;
  const auto stream = sim::Use<sim::Stream>("WriteFile", file);
  if (!stream) return call.Fail(sim::kErrorInvalidHandle);
  if (!stream->Write(call, static_cast<const char*>(bytes), call.Shortened(size), written)) return false;
  call.SetResult(Args("written", written));
  return true;
}

bool FlushFileBuffers(Handle file) {
  Call call("FlushFileBuffers", Args("file", file));
  if (call.Faulted()) return false;
  const auto stream = sim::Use<sim::Stream>("FlushFileBuffers", file);
  return stream ? stream->Flush(call) : call.Fail(sim::kErrorInvalidHandle);
}

bool GetFileSizeEx(Handle file, int64_t& size) {
  Call call("GetFileSizeEx", Args("file", file));
  if (call.Faulted()) return false;
  const auto open = sim::Use<sim::OpenFile>("GetFileSizeEx", file);
  if (!open) return call.Fail(sim::kErrorInvalidHandle);
  size = static_cast<int64_t>(open->node->bytes.size());
  call.SetResult(Args("size", size));
  return true;
}

bool CreateDirectoryW(const std::wstring& path) {
  Call call("CreateDirectoryW", Args("path", path));
  if (call.Faulted()) return false;
  const std::wstring full = sim::FullPath(path);
  if (sim::FindNode(full)) return call.Fail(sim::kErrorAlreadyExists);
  if (const uint32_t error = sim::PathError(full)) return call.Fail(error);
  sim::AddNode(full, true);
  return true;
}

bool DeleteFileW(const std::wstring& path) {
  Call call("DeleteFileW", Args("path", path));
  if (call.Faulted()) return false;
  const std::wstring full = sim::FullPath(path);
  if (const uint32_t error = sim::DeleteError(sim::FindNode(full), full)) return call.Fail(error);
  sim::RemoveNode(full);
  return true;
}

bool MoveFileExW(const std::wstring& from, const std::wstring& to, uint32_t flags) {
  Call call("MoveFileExW", Args("from", from, "to", to, "flags", flags));
  if (call.Faulted()) return false;
  const std::wstring source = sim::FullPath(from);
  const std::wstring target = sim::FullPath(to);
  const sim::FileNodePointer node = sim::FindNode(source);
  if (const uint32_t error = sim::DeleteError(node, source)) return call.Fail(error);
  if (const uint32_t error = sim::MoveTargetError(sim::FindNode(target), target, flags))
    return call.Fail(error);
  sim::RemoveNode(source);
  node->path = target;
  sim::gFileTree[sim::LowerCase(target)] = node;
  return true;
}

uint32_t GetFileAttributesW(const std::wstring& path) {
  Call call("GetFileAttributesW", Args("path", path));
  if (call.Faulted()) return kInvalidFileAttributes;
  const std::wstring full = sim::FullPath(path);
  const sim::FileNodePointer node = sim::FindNode(full);
  if (!node) {
    const uint32_t error = sim::PathError(full);
    call.Fail(error ? error : sim::kErrorFileNotFound);
    return kInvalidFileAttributes;
  }
  call.SetResult(std::to_string(sim::AttributesOf(*node)));
  return sim::AttributesOf(*node);
}

Handle FindFirstFileW(const std::wstring& pattern, FindData& data) {
  Call call("FindFirstFileW", Args("pattern", pattern));
  if (call.Faulted()) return InvalidHandle();
  const std::wstring full = sim::FullPath(pattern);
  const sim::FileNodePointer folder = sim::FindNode(sim::ParentPath(full));
  auto search = std::make_shared<sim::Search>();
  if (folder && folder->folder) sim::FillSearch(*search, folder->path, sim::BaseName(full));
  if (search->found.empty()) {
    call.Fail(folder ? sim::kErrorFileNotFound : sim::kErrorPathNotFound);
    return InvalidHandle();
  }
  data = search->found[search->next++];
  Handle handle = sim::OpenHandle(search);
  call.SetResult(Args("handle", handle, "name", data.name));
  return handle;
}

bool FindNextFileW(Handle search, FindData& data) {
  Call call("FindNextFileW", Args("search", search));
  if (call.Faulted()) return false;
  const auto object = sim::Use<sim::Search>("FindNextFileW", search);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  if (object->next == object->found.size()) return call.Fail(sim::kErrorNoMoreFiles);
  data = object->found[object->next++];
  call.SetResult(Args("name", data.name));
  return true;
}

bool FindClose(Handle search) {
  return sim::CloseAs<sim::Search>("FindClose", search);
}

}  // namespace platform
