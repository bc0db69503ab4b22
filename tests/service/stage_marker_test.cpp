// The marker files of a start.
#include "service/stage_marker.h"

#include <gtest/gtest.h>

#include "sim/files.h"
#include "sim/kernel.h"

namespace {

TEST(WriteStageMarker, WritesUtf16LittleEndianWithoutAMark) {
  sim::Machine machine;
  WriteStageMarker(L"01.txt", L"a\u4E2D\r\n");
  EXPECT_EQ(sim::FileBytes(L"C:\\VPN\\stage\\01.txt"), std::string("a\0\x2D\x4E\r\0\n\0", 8));
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(WriteStageMarker, MakesTheFileAnew) {
  sim::Machine machine;
  sim::PutFile(L"C:\\VPN\\stage\\01.txt", "of an older start, and longer");
  WriteStageMarker(L"01.txt", L"b");
  EXPECT_EQ(sim::FileBytes(L"C:\\VPN\\stage\\01.txt"), std::string("b\0", 2));
  EXPECT_EQ(sim::CountCalls("CreateFileW", "access=0x40000000 share=1 disposition=2"), 1u);
}

TEST(WriteStageMarker, DoesNotMakeTheFolder) {
  sim::Machine machine;
  sim::RemoveFolder(L"C:\\VPN\\stage");
  WriteStageMarker(L"01.txt", L"a");
  EXPECT_FALSE(sim::FolderExists(L"C:\\VPN\\stage"));
  EXPECT_EQ(sim::CountCalls("CreateDirectoryW"), 0u);
  EXPECT_EQ(sim::LogBytes(), "");
}

// The folder has 13 characters, and the path must fit a buffer of 260 with its terminator.
TEST(WriteStageMarker, WritesNothingForAPathBeyondItsBuffer) {
  sim::Machine machine;
  const std::wstring longest(246, L'n');
  WriteStageMarker(longest, L"a");
  EXPECT_TRUE(sim::FileExists(L"C:\\VPN\\stage\\" + longest));
  WriteStageMarker(longest + L"n", L"a");
  EXPECT_EQ(sim::CountCalls("CreateFileW"), 1u);
}

TEST(WriteStageMarker, TriesAFailedWriteOnlyOnce) {
  sim::Machine machine;
  sim::Fail({.operation = "WriteFile", .code = 112});
  WriteStageMarker(L"01.txt", L"a");
  EXPECT_EQ(sim::CountCalls("WriteFile"), 1u);
  EXPECT_EQ(sim::OpenHandles(), 0u);
  EXPECT_EQ(sim::LogBytes(), "");
}

}  // namespace
