// The file primitives: atomic and plain writes, trimmed and whole reads.
#include "service/data_files.h"

#include <gtest/gtest.h>

#include "sim/files.h"
#include "sim/kernel.h"

namespace {

const std::wstring kFolder = L"C:\\ProgramData\\TELVOR\\auth";
const std::wstring kFile = kFolder + L"\\x.txt";
constexpr size_t kTenMebibytes = 10'485'760;

std::vector<std::string> Operations() {
  std::vector<std::string> operations;
  for (const sim::TraceEntry& entry : sim::Trace()) operations.emplace_back(entry.operation);
  return operations;
}

TEST(DataFiles, HaveFixedPaths) {
  const std::wstring root = L"C:\\ProgramData\\TELVOR";
  EXPECT_EQ(kDataRoot, root);
  EXPECT_EQ(kAuthDirectory, root + L"\\auth");
  EXPECT_EQ(kTunnelDirectory, root + L"\\wg");
  EXPECT_EQ(kTunnelConfigFile, root + L"\\wg\\telvor.conf");
  EXPECT_EQ(kSessionFile, root + L"\\auth\\session.dat");
  EXPECT_EQ(kLegacyTokenFile, root + L"\\auth\\token.txt");
  EXPECT_EQ(kDeviceIdFile, root + L"\\auth\\device_id.txt");
  EXPECT_EQ(kPrivateKeyFile, root + L"\\auth\\wg_client_privatekey.txt");
  EXPECT_EQ(kPublicKeyFile, root + L"\\auth\\wg_client_publickey.txt");
  EXPECT_EQ(kRuntimePolicyFile, root + L"\\runtime.dat");
}

TEST(WriteFileAtomic, ReplacesTheFileThroughATemporarySibling) {
  sim::Machine machine;
  sim::PutFile(kFile, "old and longer");
  EXPECT_TRUE(WriteFileAtomic(kFile, std::string("n\0w\xFF", 4)));
  EXPECT_EQ(sim::FileBytes(kFile), std::string("n\0w\xFF", 4));
  EXPECT_FALSE(sim::FileExists(kFile + L".tmp"));
  EXPECT_EQ(Operations(), (std::vector<std::string>{"CreateFileW", "WriteFile", "FlushFileBuffers",
                                                    "CloseHandle", "MoveFileExW"}));
  EXPECT_EQ(sim::CountCalls("CreateFileW", "x.txt.tmp\" access=0x40000000 share=0 disposition=2 flags=0x80"),
            1u);
  EXPECT_EQ(sim::CountCalls("MoveFileExW", "x.txt\" flags=9"), 1u);
}

TEST(WriteFileAtomic, WritesAnEmptyFile) {
  sim::Machine machine;
  sim::MakeFolder(kFolder);
  EXPECT_TRUE(WriteFileAtomic(kFile, ""));
  EXPECT_EQ(sim::FileBytes(kFile), "");
}

TEST(WriteFileAtomic, FailsInAMissingDirectoryAndLeavesNothing) {
  sim::Machine machine;
  EXPECT_FALSE(WriteFileAtomic(kFile, "new"));
  EXPECT_FALSE(sim::FileExists(kFile + L".tmp"));
  EXPECT_FALSE(sim::FolderExists(kFolder));
  EXPECT_EQ(sim::CountCalls("DeleteFileW"), 0u);
}

TEST(WriteFileAtomic, OverwritesAStaleTemporary) {
  sim::Machine machine;
  sim::PutFile(kFile + L".tmp", "left by a crash, and longer than the new content");
  EXPECT_TRUE(WriteFileAtomic(kFile, "new"));
  EXPECT_EQ(sim::FileBytes(kFile), "new");
  EXPECT_FALSE(sim::FileExists(kFile + L".tmp"));
}

TEST(WriteFileAtomic, KeepsTheOldFileWhenAStepFails) {
  for (const char* operation : {"CreateFileW", "WriteFile", "MoveFileExW"}) {
    SCOPED_TRACE(operation);
    sim::Machine machine;
    sim::PutFile(kFile, "old");
    sim::Fail({.operation = operation, .code = 5});
    EXPECT_FALSE(WriteFileAtomic(kFile, "new"));
    EXPECT_EQ(sim::FileBytes(kFile), "old");
    EXPECT_FALSE(sim::FileExists(kFile + L".tmp"));
    EXPECT_EQ(sim::OpenHandles(), 0u);
  }
}

TEST(WriteFileAtomic, KeepsTheOldFileAfterAShortWrite) {
  sim::Machine machine;
  sim::PutFile(kFile, "old");
  sim::Shorten("WriteFile", 2);
  EXPECT_FALSE(WriteFileAtomic(kFile, "new"));
  EXPECT_EQ(sim::FileBytes(kFile), "old");
  EXPECT_FALSE(sim::FileExists(kFile + L".tmp"));
  EXPECT_EQ(sim::CountCalls("MoveFileExW"), 0u);
}

TEST(WriteFileAtomic, DoesNotMindAFailedFlush) {
  sim::Machine machine;
  sim::MakeFolder(kFolder);
  sim::Fail({.operation = "FlushFileBuffers", .code = 5});
  EXPECT_TRUE(WriteFileAtomic(kFile, "new"));
  EXPECT_EQ(sim::FileBytes(kFile), "new");
}

TEST(WriteFileAtomic, FailsWhileAnotherHasTheFileOpen) {
  sim::Machine machine;
  sim::PutFile(kFile, "old");
  const platform::Handle reader =
      platform::CreateFileW(kFile, platform::kGenericRead, platform::kFileShareRead, platform::kOpenExisting,
                            platform::kFileAttributeNormal);
  EXPECT_FALSE(WriteFileAtomic(kFile, "new"));
  platform::CloseHandle(reader);
  EXPECT_EQ(sim::FileBytes(kFile), "old");
  EXPECT_FALSE(sim::FileExists(kFile + L".tmp"));
}

TEST(WriteTextFile, OverwritesInPlaceInUtf8) {
  sim::Machine machine;
  sim::PutFile(kFile, "old and longer");
  EXPECT_TRUE(WriteTextFile(kFile, L"\u00E9\u4E2D\r\n"));
  EXPECT_EQ(sim::FileBytes(kFile), "\xC3\xA9\xE4\xB8\xAD\r\n");
  EXPECT_EQ(sim::CountCalls("CreateFileW", "x.txt\" access=0x40000000 share=0 disposition=2 flags=0x80"), 1u);
  EXPECT_EQ(sim::CountCalls("FlushFileBuffers"), 1u);
  EXPECT_EQ(sim::CountCalls("WriteFile"), 1u);
}

TEST(WriteTextFile, IsFalseUnlessTheWholeTextWasWritten) {
  sim::Machine machine;
  sim::MakeFolder(kFolder);
  sim::Shorten("WriteFile", 2);
  EXPECT_FALSE(WriteTextFile(kFile, L"new"));
  sim::Fail({.operation = "WriteFile", .code = 112});
  EXPECT_FALSE(WriteTextFile(kFile, L"new"));
  sim::Fail({.operation = "CreateFileW", .code = 5});
  EXPECT_FALSE(WriteTextFile(kFile, L"new"));
  EXPECT_FALSE(WriteTextFile(L"C:\\missing\\x.txt", L"new"));
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

// In place: a text that could not be written has destroyed the old one.
TEST(WriteTextFile, IsNotAtomic) {
  sim::Machine machine;
  sim::PutFile(kFile, "old");
  sim::Fail({.operation = "WriteFile", .code = 112});
  EXPECT_FALSE(WriteTextFile(kFile, L"new"));
  EXPECT_EQ(sim::FileBytes(kFile), "");
}

TEST(ReadTextFileTrimmed, DecodesAndTrims) {
  sim::Machine machine;
  sim::PutFile(kFile, "\t\r\n a \xC3\xA9\xE4\xB8\xAD b \r\n");
  std::wstring text = L"?";
  EXPECT_TRUE(ReadTextFileTrimmed(kFile, text));
  EXPECT_EQ(text, L"a \u00E9\u4E2D b");
  EXPECT_EQ(sim::CountCalls("CreateFileW", "access=0x80000000 share=1 disposition=3 flags=0x80"), 1u);
  EXPECT_EQ(sim::CountCalls("MultiByteToWideChar", "codePage=65001 flags=8"),
            sim::CountCalls("MultiByteToWideChar"));
}

TEST(ReadTextFileTrimmed, RefusesAMissingAnEmptyAndABlankFile) {
  sim::Machine machine;
  std::wstring text = L"?";
  EXPECT_FALSE(ReadTextFileTrimmed(kFile, text));
  EXPECT_EQ(text, L"");
  for (const char* content : {"", " \r\n\t\n "}) {
    sim::PutFile(kFile, content);
    text = L"?";
    EXPECT_FALSE(ReadTextFileTrimmed(kFile, text));
    EXPECT_EQ(text, L"");
  }
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ReadTextFileTrimmed, TakesInvalidUtf8AsNothing) {
  sim::Machine machine;
  sim::PutFile(kFile, "good\xFF");
  std::wstring text = L"?";
  EXPECT_FALSE(ReadTextFileTrimmed(kFile, text));
  EXPECT_EQ(text, L"");
}

TEST(ReadTextFileTrimmed, ReadsTenMebibytesAndNotAByteMore) {
  sim::Machine machine;
  std::wstring text;
  sim::PutFile(kFile, std::string(kTenMebibytes, 'a'));
  EXPECT_TRUE(ReadTextFileTrimmed(kFile, text));
  EXPECT_EQ(text.size(), kTenMebibytes);
  sim::PutFile(kFile, std::string(kTenMebibytes + 1, 'a'));
  EXPECT_FALSE(ReadTextFileTrimmed(kFile, text));
  EXPECT_EQ(text, L"");
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ReadTextFileTrimmed, RefusesAShortOrFailedRead) {
  sim::Machine machine;
  sim::PutFile(kFile, "text");
  std::wstring text = L"?";
  sim::Shorten("ReadFile", 3);
  EXPECT_FALSE(ReadTextFileTrimmed(kFile, text));
  EXPECT_EQ(text, L"");
  for (const char* operation : {"ReadFile", "GetFileSizeEx", "CreateFileW"}) {
    sim::Fail({.operation = operation, .code = 5});
    EXPECT_FALSE(ReadTextFileTrimmed(kFile, text));
  }
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ReadTextFileTrimmed, FailsWhileAWriterHasTheFileOpen) {
  sim::Machine machine;
  sim::PutFile(kFile, "text");
  sim::HoldFile(kFile);
  std::wstring text;
  EXPECT_FALSE(ReadTextFileTrimmed(kFile, text));
  sim::ReleaseFile(kFile);
  EXPECT_TRUE(ReadTextFileTrimmed(kFile, text));
}

TEST(ReadWholeFile, GivesEveryByte) {
  sim::Machine machine;
  std::string all;
  for (int repeat = 0; repeat < 300; ++repeat) {
    for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  }
  sim::PutFile(kFile, all);
  std::string bytes = "?";
  EXPECT_TRUE(ReadWholeFile(kFile, bytes));
  EXPECT_EQ(bytes, all);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ReadWholeFile, AsksForTheSizeOfALargeFileOnly) {
  sim::Machine machine;
  std::string bytes;
  sim::PutFile(kFile, std::string(10'000, 'a'));
  EXPECT_TRUE(ReadWholeFile(kFile, bytes));
  EXPECT_EQ(sim::CountCalls("GetFileSizeEx"), 0u);
  EXPECT_EQ(sim::CountCalls("ReadFile"), 2u);
  sim::ClearTrace();
  sim::PutFile(kFile, std::string(100'000, 'a'));
  EXPECT_TRUE(ReadWholeFile(kFile, bytes));
  EXPECT_EQ(sim::CountCalls("GetFileSizeEx"), 1u);
  EXPECT_EQ(sim::CountCalls("ReadFile"), 3u);
}

TEST(ReadWholeFile, ReadsToTheEndWhateverTheSizeSays) {
  sim::Machine machine;
  for (const size_t length : {1u, 16'383u, 16'384u, 16'385u, 100'000u}) {
    const std::string all(length, 'a');
    sim::PutFile(kFile, all);
    sim::Fail({.operation = "GetFileSizeEx", .code = 5});
    std::string bytes;
    EXPECT_TRUE(ReadWholeFile(kFile, bytes));
    EXPECT_EQ(bytes, all);
  }
}

TEST(ReadWholeFile, GoesOnAfterAShortRead) {
  sim::Machine machine;
  sim::PutFile(kFile, "0123456789");
  sim::Shorten("ReadFile", 3);
  std::string bytes;
  EXPECT_TRUE(ReadWholeFile(kFile, bytes));
  EXPECT_EQ(bytes, "0123456789");
}

TEST(ReadWholeFile, KeepsWhatCameBeforeAFailedRead) {
  sim::Machine machine;
  sim::PutFile(kFile, "0123456789");
  sim::Shorten("ReadFile", 3);
  sim::Fail({.operation = "ReadFile", .code = 1117, .skip = 1});
  std::string bytes;
  EXPECT_TRUE(ReadWholeFile(kFile, bytes));
  EXPECT_EQ(bytes, "012");
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ReadWholeFile, TakesAnEmptyFileAndRefusesAMissingOne) {
  sim::Machine machine;
  std::string bytes = "?";
  sim::PutFile(kFile, "");
  EXPECT_TRUE(ReadWholeFile(kFile, bytes));
  EXPECT_EQ(bytes, "");
  EXPECT_FALSE(ReadWholeFile(L"C:\\missing.txt", bytes));
}

TEST(DataFiles, LogNothing) {
  sim::Machine machine;
  std::wstring text;
  std::string bytes;
  EXPECT_FALSE(WriteFileAtomic(kFile, "x"));
  EXPECT_FALSE(WriteTextFile(kFile, L"x"));
  EXPECT_FALSE(ReadTextFileTrimmed(kFile, text));
  EXPECT_FALSE(ReadWholeFile(kFile, bytes));
  EXPECT_FALSE(UnprotectFromFile(kFile, bytes));
  EXPECT_FALSE(EnsureDirectory(L"C:\\a\\b"));
  EXPECT_EQ(sim::LogBytes(), "");
}

}  // namespace
