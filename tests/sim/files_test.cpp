#include "sim/files.h"

#include "controlplane/platform.h"
#include "sim_fixture.h"
#include "splittunnel/platform.h"

namespace {

using platform::InvalidHandle;

constexpr wchar_t kPath[] = L"C:\\data\\file.txt";
constexpr uint32_t kShareAll =
    platform::kFileShareRead | platform::kFileShareWrite | platform::kFileShareDelete;

platform::Handle Open(uint32_t access, uint32_t share, uint32_t disposition = platform::kOpenExisting,
                      const std::wstring& path = kPath) {
  return platform::CreateFileW(path, access, share, disposition, platform::kFileAttributeNormal);
}

void Write(platform::Handle file, const std::string& bytes) {
  uint32_t written = 0;
  EXPECT_TRUE(platform::WriteFile(file, bytes.data(), static_cast<uint32_t>(bytes.size()), written));
  EXPECT_EQ(written, bytes.size());
}

std::string Read(platform::Handle file, uint32_t size) {
  std::string bytes(size, '\0');
  uint32_t read = 0;
  EXPECT_TRUE(platform::ReadFile(file, bytes.data(), size, read));
  bytes.resize(read);
  return bytes;
}

TEST(Files, PathsAreComparedWithoutCaseAndWithEitherSeparator) {
  sim::Machine machine;
  sim::PutFile(kPath, "x");
  for (const wchar_t* path : {L"c:\\DATA\\FILE.TXT", L"C:/data/file.txt", L"C:\\data\\\\file.txt",
                              L"C:\\other\\..\\data\\.\\file.txt", L"..\\data\\file.txt"}) {
    EXPECT_NE(platform::GetFileAttributesW(path), platform::kInvalidFileAttributes);
  }
  EXPECT_EQ(platform::GetFileAttributesW(L"C:\\data"), platform::kFileAttributeDirectory);
}

TEST(Files, WhatIsMissingAndWhatLiesInNoFolderAreToldApart) {
  sim::Machine machine;
  const auto errorOf = [](const std::wstring& path) {
    EXPECT_EQ(Open(platform::kGenericRead, 0, platform::kOpenExisting, path), InvalidHandle());
    return platform::GetLastError();
  };
  EXPECT_EQ(errorOf(L"C:\\missing.txt"), 2u);
  EXPECT_EQ(errorOf(L"C:\\missing\\file.txt"), 3u);
  EXPECT_EQ(errorOf(L"...\\step4.txt"), 3u);
  EXPECT_EQ(errorOf(L"C:\\windows"), 5u);
  EXPECT_EQ(errorOf(L"C:\\a*b"), 123u);
}

TEST(Files, SharingIsAskedInBothDirections) {
  sim::Machine machine;
  sim::PutFile(kPath, "x");
  const platform::Handle reader = Open(platform::kGenericRead, platform::kFileShareRead);
  const platform::Handle second = Open(platform::kGenericRead, platform::kFileShareRead);
  EXPECT_NE(second, InvalidHandle());
  // The readers do not share writing; appending counts as writing.
  EXPECT_EQ(Open(platform::kGenericWrite, kShareAll), InvalidHandle());
  EXPECT_EQ(platform::GetLastError(), 32u);
  EXPECT_EQ(Open(platform::kFileAppendData, kShareAll), InvalidHandle());
  // A third reader that does not share reading is in the way of the readers there are.
  EXPECT_EQ(Open(platform::kGenericRead, platform::kFileShareNone), InvalidHandle());
  EXPECT_FALSE(platform::DeleteFileW(kPath));
  EXPECT_EQ(platform::GetLastError(), 32u);
  platform::CloseHandle(reader);
  platform::CloseHandle(second);
  EXPECT_TRUE(platform::DeleteFileW(kPath));
}

TEST(Files, AFileSharedForDeletionCanBeDeletedWhileOpen) {
  sim::Machine machine;
  sim::PutFile(kPath, "still readable");
  const platform::Handle file = Open(platform::kGenericRead, kShareAll);
  EXPECT_TRUE(platform::DeleteFileW(kPath));
  EXPECT_FALSE(sim::FileExists(kPath));
  EXPECT_EQ(Read(file, 100), "still readable");
  platform::CloseHandle(file);
}

TEST(Files, DispositionsCreateTruncateAndOpen) {
  sim::Machine machine;
  sim::PutFile(kPath, "old content");
  platform::Handle file = Open(platform::kGenericWrite, 0, platform::kCreateAlways);
  EXPECT_EQ(platform::GetLastError(), 183u);
  EXPECT_EQ(sim::FileBytes(kPath), "");
  Write(file, "new");
  platform::CloseHandle(file);
  file = Open(platform::kFileAppendData, 0, platform::kOpenAlways);
  Write(file, " more");
  platform::CloseHandle(file);
  EXPECT_EQ(sim::FileBytes(kPath), "new more");
  file = Open(platform::kGenericWrite, 0, platform::kOpenAlways, L"C:\\data\\fresh.txt");
  EXPECT_EQ(platform::GetLastError(), 0u);
  platform::CloseHandle(file);
}

TEST(Files, ReadingGoesOnWhereItStoppedAndEndsWithZeroBytes) {
  sim::Machine machine;
  sim::PutFile(kPath, "abcdef");
  const platform::Handle file = Open(platform::kGenericRead, 0);
  EXPECT_EQ(Read(file, 4), "abcd");
  EXPECT_EQ(Read(file, 4), "ef");
  EXPECT_EQ(Read(file, 4), "");
  uint32_t written = 0;
  EXPECT_FALSE(platform::WriteFile(file, "x", 1, written));
  EXPECT_EQ(platform::GetLastError(), 5u);
  platform::CloseHandle(file);
}

TEST(Files, AReplacingMoveNeedsATargetThatNobodyHasOpen) {
  sim::Machine machine;
  const std::wstring temporary = std::wstring(kPath) + L".tmp";
  sim::PutFile(kPath, "old");
  sim::PutFile(temporary, "new");
  EXPECT_FALSE(platform::MoveFileExW(temporary, kPath, 0));
  EXPECT_EQ(platform::GetLastError(), 183u);
  const platform::Handle reader = Open(platform::kGenericRead, kShareAll);
  EXPECT_FALSE(platform::MoveFileExW(temporary, kPath, platform::kMoveFileReplaceExisting));
  EXPECT_EQ(platform::GetLastError(), 5u);
  platform::CloseHandle(reader);
  EXPECT_TRUE(platform::MoveFileExW(temporary, kPath, platform::kMoveFileReplaceExisting));
  EXPECT_EQ(sim::FileBytes(kPath), "new");
  EXPECT_FALSE(sim::FileExists(temporary));
}

TEST(Files, AHeldFileCannotBeOpenedDeletedOrReplaced) {
  sim::Machine machine;
  sim::PutFile(kPath, "x");
  sim::HoldFile(kPath);
  EXPECT_EQ(Open(platform::kGenericRead, kShareAll), InvalidHandle());
  EXPECT_EQ(platform::GetLastError(), 32u);
  EXPECT_FALSE(platform::DeleteFileW(kPath));
  sim::ReleaseFile(kPath);
  EXPECT_TRUE(platform::DeleteFileW(kPath));
}

TEST(Files, FoldersExistOnceAndNeedAParent) {
  sim::Machine machine;
  EXPECT_TRUE(platform::CreateDirectoryW(L"C:\\new"));
  EXPECT_FALSE(platform::CreateDirectoryW(L"C:\\NEW"));
  EXPECT_EQ(platform::GetLastError(), 183u);
  EXPECT_FALSE(platform::CreateDirectoryW(L"C:\\a\\b"));
  EXPECT_EQ(platform::GetLastError(), 3u);
}

TEST(Files, ASearchListsInAlphabeticalOrderWithTheTwoDots) {
  sim::Machine machine;
  sim::PutFile(L"C:\\data\\b.txt", "");
  sim::PutFile(L"C:\\data\\A.txt", "");
  sim::PutFile(L"C:\\data\\sub\\deep.txt", "");
  platform::FindData data{};
  std::vector<std::wstring> names;
  const platform::Handle search = platform::FindFirstFileW(L"C:\\data\\*", data);
  do {
    names.push_back(data.name);
  } while (platform::FindNextFileW(search, data));
  EXPECT_EQ(platform::GetLastError(), 18u);
  EXPECT_TRUE(platform::FindClose(search));
  EXPECT_EQ(names, (std::vector<std::wstring>{L".", L"..", L"A.txt", L"b.txt", L"sub"}));
  EXPECT_EQ(platform::FindFirstFileW(L"C:\\none\\*", data), InvalidHandle());
  EXPECT_EQ(platform::GetLastError(), 3u);
}

TEST(Files, TheEndOfTheProcessTearsWritesThatWereNotFlushed) {
  sim::Machine machine;
  sim::PutFile(L"C:\\data\\flushed.txt", "");
  sim::PutFile(L"C:\\data\\over.txt", "0123456789");
  sim::TearWritesAt(3);
  sim::StartThread("writer", [] {
    const platform::Handle flushed =
        Open(platform::kGenericWrite, 0, platform::kOpenExisting, L"C:\\data\\flushed.txt");
    Write(flushed, "whole");
    platform::FlushFileBuffers(flushed);
    Write(Open(platform::kGenericWrite, 0, platform::kCreateAlways), "torn here");
    Write(Open(platform::kGenericWrite, 0, platform::kOpenExisting, L"C:\\data\\over.txt"), "abcdef");
    platform::Sleep(platform::kInfinite);
  });
  sim::Run(10);
  sim::KillProcess();
  EXPECT_EQ(sim::FileBytes(L"C:\\data\\flushed.txt"), "whole");
  EXPECT_EQ(sim::FileBytes(kPath), "tor");
  EXPECT_EQ(sim::FileBytes(L"C:\\data\\over.txt"), "abc3456789");
}

TEST(Files, AShortenedWriteSucceedsWithLess) {
  sim::Machine machine;
  sim::MakeFolder(L"C:\\data");
  const platform::Handle file = Open(platform::kGenericWrite, 0, platform::kCreateAlways);
  sim::Shorten("WriteFile", 2);
  uint32_t written = 0;
  EXPECT_TRUE(platform::WriteFile(file, "abcd", 4, written));
  EXPECT_EQ(written, 2u);
  EXPECT_TRUE(platform::WriteFile(file, "cd", 2, written));
  platform::CloseHandle(file);
  EXPECT_EQ(sim::FileBytes(kPath), "abcd");
}

// ---- The log ----

void AppendToLog(const std::string& bytes) {
  const wchar_t* path = L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log";
  sim::PutFile(path, sim::FileBytes(path).value_or("") + bytes);
}

TEST(Log, LinesAreGivenWithoutTimeStampAndLineEnd) {
  sim::Machine machine;
  EXPECT_TRUE(sim::LogLines().empty());
  AppendToLog("[2026-01-01 00:00:00] first\r\nno stamp\r\n[x] kept\r\n[2026-01-01 00:00:01] cut");
  EXPECT_EQ(sim::LogLines(), (std::vector<std::string>{"first", "no stamp", "[x] kept", "cut"}));
  AppendToLog(" short\r\n[2026-01-01 00:00:02] first\r\n");
  EXPECT_FALSE(sim::LogHas("cut"));
  EXPECT_TRUE(sim::LogHas("cut short"));
  EXPECT_EQ(sim::LogCount("first"), 2u);
  sim::ClearLog();
  EXPECT_FALSE(sim::LogHas("first"));
}

// ---- Environment, rights, data protection ----

TEST(Environment, AVariableIsCopiedIfItFitsAndItsSizeToldIfNot) {
  sim::Machine machine;
  wchar_t buffer[260];
  EXPECT_EQ(platform::GetEnvironmentVariableW(L"PROGRAMDATA", buffer, 260), 14u);
  EXPECT_STREQ(buffer, L"C:\\ProgramData");
  EXPECT_EQ(platform::GetEnvironmentVariableW(L"ProgramData", buffer, 14), 15u);
  sim::SetEnvironment(L"ProgramData", std::nullopt);
  EXPECT_EQ(platform::GetEnvironmentVariableW(L"ProgramData", buffer, 260), 0u);
  EXPECT_EQ(platform::GetLastError(), 203u);
}

TEST(Environment, AMessageCanBeSetAndTaken) {
  sim::Machine machine;
  std::wstring message;
  EXPECT_TRUE(platform::FormatMessageW(platform::kFormatMessageFlags, 5, 1024, message));
  EXPECT_EQ(message, L"Access is denied.\r\n");
  EXPECT_FALSE(platform::FormatMessageW(platform::kFormatMessageFlags, 0x80320005, 1024, message));
  sim::SetSystemMessage(5, L"No. ");
  EXPECT_TRUE(platform::FormatMessageW(platform::kFormatMessageFlags, 5, 1024, message));
  EXPECT_EQ(message, L"No. ");
}

TEST(Rights, AGrantIsRecordedAndItsMemoryCounted) {
  sim::Machine machine;
  void* dacl = nullptr;
  void* descriptor = nullptr;
  void* merged = nullptr;
  EXPECT_EQ(platform::GetNamedSecurityInfoW(L"C:\\none", 1, 4, dacl, descriptor), 2u);
  EXPECT_EQ(platform::GetNamedSecurityInfoW(L"C:\\windows", 1, 4, dacl, descriptor), 0u);
  EXPECT_EQ(platform::SetEntriesInAclW({0x1301BF, 1, 3, 1, 2, L"Users"}, dacl, merged), 0u);
  EXPECT_EQ(platform::SetNamedSecurityInfoW(L"C:\\windows", 1, 4, merged), 0u);
  EXPECT_EQ(sim::OpenHandles("memory"), 2u);
  platform::LocalFree(merged);
  platform::LocalFree(descriptor);
  ASSERT_EQ(sim::Grants().size(), 1u);
  EXPECT_EQ(sim::Grants()[0].path, L"C:\\windows");
  EXPECT_EQ(sim::Grants()[0].trustee, L"Users");
}

TEST(DataProtection, ABlobOpensOnThisMachineOnly) {
  sim::Machine machine;
  std::string blob;
  std::string again;
  std::string plain;
  EXPECT_TRUE(platform::CryptProtectData("secret text", L"a name", 4, blob));
  EXPECT_TRUE(platform::CryptProtectData("secret text", nullptr, 4, again));
  EXPECT_NE(blob, again);
  EXPECT_EQ(blob.find("secret"), std::string::npos);
  EXPECT_TRUE(platform::CryptUnprotectData(blob, 0, plain));
  EXPECT_EQ(plain, "secret text");
  EXPECT_EQ(sim::SealDescription(blob), L"a name");
  EXPECT_FALSE(platform::CryptUnprotectData(sim::SealElsewhere("secret"), 0, plain));
  EXPECT_EQ(platform::GetLastError(), 13u);
}

TEST(DataProtection, ADamagedBlobDoesNotOpen) {
  sim::Machine machine;
  const std::string blob = sim::Seal("text");
  std::string plain;
  for (size_t place = 0; place < blob.size(); ++place) {
    std::string damaged = blob;
    damaged[place] = static_cast<char>(damaged[place] ^ 1);
    EXPECT_FALSE(platform::CryptUnprotectData(damaged, 0, plain)) << place;
    EXPECT_FALSE(platform::CryptUnprotectData(blob.substr(0, place), 0, plain)) << place;
  }
  EXPECT_TRUE(platform::CryptUnprotectData(sim::Seal(""), 0, plain));
  EXPECT_EQ(plain, "");
}

}  // namespace
