// The file primitives against real sharing rules.
#include <algorithm>
#include <vector>

#include "platform/platform_fixture.h"
#include "service/data_files.h"
#include "service/platform.h"
#include "service/wide_text.h"

namespace {

class FilesTest : public PlatformTest {
 protected:
  static platform::Handle Hold(const std::wstring& path, uint32_t access, uint32_t share) {
    return platform::CreateFileW(path, access, share, platform::kOpenAlways, platform::kFileAttributeNormal);
  }
};

}  // namespace

TEST_F(FilesTest, WriteFileAtomicReplacesTheWholeFile) {
  const std::wstring path = File(L"key.txt");
  EXPECT_TRUE(WriteFileAtomic(path, "a longer first content\r\n"));
  EXPECT_TRUE(WriteFileAtomic(path, std::string("b\0\n\xFF", 4)));
  EXPECT_EQ(FileBytes(path), std::string("b\0\n\xFF", 4));
  EXPECT_EQ(FileBytes(path + L".tmp"), std::nullopt);
}

TEST_F(FilesTest, WriteFileAtomicOverwritesAStaleTemporaryFile) {
  const std::wstring path = File(L"key.txt");
  PutFile(path + L".tmp", "half of something that was written before a cras");
  EXPECT_TRUE(WriteFileAtomic(path, "whole"));
  EXPECT_EQ(FileBytes(path), "whole");
  EXPECT_EQ(FileBytes(path + L".tmp"), std::nullopt);
}

TEST_F(FilesTest, WriteFileAtomicIntoAMissingFolderFailsAndLeavesNothing) {
  const std::wstring path = File(L"missing\\key.txt");
  EXPECT_FALSE(WriteFileAtomic(path, "x"));
  EXPECT_EQ(FileBytes(path + L".tmp"), std::nullopt);
}

TEST_F(FilesTest, WriteFileAtomicFailsWhileTheTemporaryFileIsHeld) {
  const std::wstring path = File(L"key.txt");
  PutFile(path, "old");
  platform::Handle held = Hold(path + L".tmp", platform::kGenericRead, platform::kFileShareRead);
  EXPECT_FALSE(WriteFileAtomic(path, "new"));
  platform::CloseHandle(held);
  EXPECT_EQ(FileBytes(path), "old");
}

TEST_F(FilesTest, WriteFileAtomicFailsWhileAReaderHoldsTheTarget) {
  const std::wstring path = File(L"key.txt");
  PutFile(path, "old");
  platform::Handle held = Hold(path, platform::kGenericRead, platform::kFileShareRead);
  EXPECT_FALSE(WriteFileAtomic(path, "new"));
  EXPECT_EQ(FileBytes(path + L".tmp"), std::nullopt);
  platform::CloseHandle(held);
  EXPECT_EQ(FileBytes(path), "old");
  EXPECT_TRUE(WriteFileAtomic(path, "new"));
  EXPECT_EQ(FileBytes(path), "new");
}

TEST_F(FilesTest, WriteTextFileFailsWhileSomebodyHasTheFileOpen) {
  const std::wstring path = File(L"device_id.txt");
  PutFile(path, "old");
  platform::Handle held =
      Hold(path, platform::kGenericRead, platform::kFileShareRead | platform::kFileShareWrite);
  EXPECT_FALSE(WriteTextFile(path, L"new"));
  platform::CloseHandle(held);
  EXPECT_EQ(FileBytes(path), "old");
}

TEST_F(FilesTest, WriteTextFileWritesUtf8InPlace) {
  const std::wstring path = File(L"device_id.txt");
  PutFile(path, "something longer that was there");
  EXPECT_TRUE(WriteTextFile(path, L"\u00E9\u4E2D\r\n"));
  EXPECT_EQ(FileBytes(path), "\xC3\xA9\xE4\xB8\xAD\r\n");
}

TEST_F(FilesTest, ReadTextFileTrimmedTrimsAndDecodes) {
  const std::wstring path = File(L"text.txt");
  std::wstring text;
  PutFile(path, " \t\r\n\xC3\xA9 b\r\n \t");
  EXPECT_TRUE(ReadTextFileTrimmed(path, text));
  EXPECT_EQ(text, L"\u00E9 b");
}

TEST_F(FilesTest, ReadTextFileTrimmedRefusesEmptyBlankInvalidAndMissingFiles) {
  const std::wstring path = File(L"text.txt");
  for (const std::string& bytes : {std::string(), std::string(" \t\r\n"), std::string("a\xC3")}) {
    std::wstring text = L"stale";
    PutFile(path, bytes);
    EXPECT_FALSE(ReadTextFileTrimmed(path, text)) << testing::PrintToString(bytes);
    EXPECT_EQ(text, L"");
  }
  std::wstring text = L"stale";
  EXPECT_FALSE(ReadTextFileTrimmed(File(L"missing.txt"), text));
  EXPECT_EQ(text, L"");
}

TEST_F(FilesTest, ReadTextFileTrimmedTakesTenMebibytesAndNoByteMore) {
  const std::wstring path = File(L"large.txt");
  std::string bytes(size_t{10} * 1024 * 1024, 'x');
  std::wstring text;
  PutFile(path, bytes);
  EXPECT_TRUE(ReadTextFileTrimmed(path, text));
  EXPECT_EQ(text.size(), bytes.size());
  PutFile(path, bytes + "x");
  EXPECT_FALSE(ReadTextFileTrimmed(path, text));
  EXPECT_EQ(text, L"");
}

TEST_F(FilesTest, ReadTextFileTrimmedSharesWithReadersOnly) {
  const std::wstring path = File(L"text.txt");
  PutFile(path, "text");
  constexpr uint32_t kShareAll =
      platform::kFileShareRead | platform::kFileShareWrite | platform::kFileShareDelete;
  std::wstring text;
  platform::Handle reader = Hold(path, platform::kGenericRead, kShareAll);
  EXPECT_TRUE(ReadTextFileTrimmed(path, text));
  platform::CloseHandle(reader);
  platform::Handle writer = Hold(path, platform::kGenericWrite, kShareAll);
  EXPECT_FALSE(ReadTextFileTrimmed(path, text));
  platform::CloseHandle(writer);
}

TEST_F(FilesTest, ReadWholeFileTakesAnEmptyFile) {
  const std::wstring path = File(L"empty");
  std::string bytes = "stale";
  PutFile(path, "");
  EXPECT_TRUE(ReadWholeFile(path, bytes));
  EXPECT_EQ(bytes, "");
  EXPECT_FALSE(ReadWholeFile(File(L"missing"), bytes));
}

TEST_F(FilesTest, ReadWholeFileReadsBesideAWriterThatShares) {
  const std::wstring path = File(L"bytes");
  const std::string content("a\r\n\0\xFF\x1A\n", 7);
  PutFile(path, content);
  platform::Handle writer = Hold(path, platform::kGenericWrite, platform::kFileShareRead);
  std::string bytes;
  EXPECT_TRUE(ReadWholeFile(path, bytes));
  EXPECT_EQ(bytes, content);
  platform::CloseHandle(writer);
}

TEST_F(FilesTest, EnsureParentDirForFileMakesOneFolder) {
  EXPECT_TRUE(EnsureParentDirForFile(File(L"one\\file.txt")));
  EXPECT_TRUE(EnsureParentDirForFile(File(L"one\\file.txt")));
  EXPECT_TRUE(WriteFileAtomic(File(L"one\\file.txt"), "x"));
  EXPECT_FALSE(EnsureParentDirForFile(File(L"two\\three\\file.txt")));
  EXPECT_FALSE(EnsureParentDirForFile(L"file.txt"));
}

TEST_F(FilesTest, FindFirstFileWalksAFolderWithItsDots) {
  PutFile(File(L"walk\\b.txt"), "");
  PutFile(File(L"walk\\folder\\c.txt"), "");
  platform::FindData entry;
  platform::Handle search = platform::FindFirstFileW(File(L"walk\\*"), entry);
  ASSERT_NE(search, platform::InvalidHandle());
  std::vector<std::wstring> names;
  do {
    const bool folder = (entry.attributes & platform::kFileAttributeDirectory) != 0;
    names.push_back(entry.name + (folder ? L"\\" : L""));
  } while (platform::FindNextFileW(search, entry));
  EXPECT_TRUE(platform::FindClose(search));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::wstring>{L"..\\", L".\\", L"b.txt", L"folder\\"}));
  EXPECT_EQ(platform::FindFirstFileW(File(L"missing\\*"), entry), platform::InvalidHandle());
}

TEST_F(FilesTest, ErrorCodesThatDecideAreTheSystems) {
  EXPECT_TRUE(platform::CreateDirectoryW(File(L"folder")));
  EXPECT_FALSE(platform::CreateDirectoryW(File(L"folder")));
  EXPECT_EQ(platform::GetLastError(), platform::kErrorAlreadyExists);
  EXPECT_FALSE(platform::CreateDirectoryW(File(L"missing\\folder")));
  EXPECT_EQ(platform::GetLastError(), platform::kErrorPathNotFound);
  EXPECT_EQ(platform::GetFileAttributesW(File(L"absent")), platform::kInvalidFileAttributes);
  EXPECT_FALSE(platform::DeleteFileW(File(L"absent")));
  EXPECT_EQ(platform::GetLastError(), 2u);
}

TEST_F(FilesTest, Utf16LittleEndianIsWhatMarkersHold) {
  EXPECT_EQ(Utf16LittleEndian(L"a\u4E2D\r\n"), std::string("a\0\x2D\x4E\r\0\n\0", 8));
}
