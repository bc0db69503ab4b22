// The data directory and the file primitives that every writer of persistent state uses. They log nothing: a
// false result is the caller's to word.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "service/paths.h"

// Makes the directory, and the data root if that is what is missing; one level, no more. A directory that was
// made below the data root gives the root its rights. True if it exists afterwards.
bool EnsureDirectory(const std::wstring& directory);

// EnsureDirectory of the part before the last separator. False for a bare file name.
bool EnsureParentDirForFile(const std::wstring& path);

// Grants the group "Users" the Modify rights on `path`, inherited below. Failures are ignored.
void ApplyDataDirAcl(const std::wstring& path);
void ApplyDataDirAclRecursive(const std::wstring& directory);

// How a file that is made anew and written with one call came out.
enum class WriteResult { kNotOpened, kFailed, kWritten };

// Makes the file anew, sharing it as `share` says (kFileShare...), and writes all bytes with one call;
// flushes it to the disk if asked to. The write that all the others are made of.
WriteResult WriteNewFile(const std::wstring& path, const std::string& bytes, uint32_t share, bool flush);

// Replaces the file by `bytes` through a ".tmp" sibling and a renaming that is written through: a reader sees
// the old content or the new. On false the old file stands as it was and no ".tmp" is left.
bool WriteFileAtomic(const std::wstring& path, const std::string& bytes);

// Overwrites the file in place with the text in UTF-8.
bool WriteTextFile(const std::wstring& path, const std::wstring& text);

// Reads a UTF-8 text file of 1 byte to 10 MiB and trims it. True only if something is left; invalid UTF-8
// counts as nothing.
bool ReadTextFileTrimmed(const std::wstring& path, std::wstring& text);

// What was read of a file, in memory that was not filled with anything before.
struct FileContent {
  std::unique_ptr<char[]> data;
  size_t size = 0;

  std::string_view Text() const { return {data.get(), size}; }
};

// Reads the file as it stands; an empty file is a success. The first form is for files that may be large: it
// copies no more than their beginning.
bool ReadWholeFile(const std::wstring& path, FileContent& bytes);
bool ReadWholeFile(const std::wstring& path, std::string& bytes);

// Seals `bytes` for this machine (CryptProtectData, no entropy) and overwrites the file with the blob, in
// place.
bool ProtectToFile(const std::wstring& path, const std::string& bytes);

// Opens what ProtectToFile wrote. False if there is no file, it is empty, or it does not open on this
// machine.
bool UnprotectFromFile(const std::wstring& path, std::string& bytes);
