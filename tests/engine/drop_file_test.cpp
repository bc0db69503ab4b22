// The worker's crash trail.
#include "engine/drop_file.h"

#include <gtest/gtest.h>

#include "sim/files.h"
#include "sim/kernel.h"

namespace {

TEST(WriteDropFile, WritesUtf16LittleEndianWithoutAMark) {
  sim::Machine machine;
  EXPECT_TRUE(WriteDropFile(L"C:\\VPN\\drop.txt", L"a\u00E9\u4E2D\n"));
  EXPECT_EQ(sim::FileBytes(L"C:\\VPN\\drop.txt"), std::string("a\0\xE9\0\x2D\x4E\n\0", 8));
}

TEST(WriteDropFile, MakesTheFileAnew) {
  sim::Machine machine;
  sim::PutFile(L"C:\\VPN\\drop.txt", "something much longer than before");
  EXPECT_TRUE(WriteDropFile(L"C:\\VPN\\drop.txt", L"b"));
  EXPECT_EQ(sim::FileBytes(L"C:\\VPN\\drop.txt"), std::string("b\0", 2));
}

TEST(WriteDropFile, OpensForWritingAndSharesReading) {
  sim::Machine machine;
  WriteDropFile(L"C:\\VPN\\drop.txt", L"b");
  std::vector<std::string> operations;
  for (const sim::TraceEntry& entry : sim::Trace()) operations.emplace_back(entry.operation);
  EXPECT_EQ(operations,
            (std::vector<std::string>{"CreateFileW", "WriteFile", "FlushFileBuffers", "CloseHandle"}));
  EXPECT_EQ(sim::CountCalls("CreateFileW", "access=0x40000000 share=1 disposition=2"), 1u);
}

TEST(WriteDropFile, MakesNoFolder) {
  sim::Machine machine;
  EXPECT_FALSE(WriteDropFile(L"C:\\missing\\drop.txt", L"b"));
  EXPECT_FALSE(sim::FolderExists(L"C:\\missing"));
}

TEST(WriteDropFile, IsFalseWhenTheWriteFails) {
  sim::Machine machine;
  sim::Fail({.operation = "WriteFile", .code = 112});
  EXPECT_FALSE(WriteDropFile(L"C:\\VPN\\drop.txt", L"b"));
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(WriteDropFile, IsTrueWhenOnlyTheFlushFails) {
  sim::Machine machine;
  sim::Fail({.operation = "FlushFileBuffers", .code = 5});
  EXPECT_TRUE(WriteDropFile(L"C:\\VPN\\drop.txt", L"b"));
}

}  // namespace
