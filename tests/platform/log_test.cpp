// The two writers of the log: what becomes of each character on its way into the file, and who may hold the
// file.
#include "service/log.h"

#include <cctype>
#include <string_view>

#include "platform/platform_fixture.h"
#include "service/platform.h"

namespace {

constexpr uint32_t kDeleteRight = 0x00010000;
constexpr uint32_t kUnknownCode = 0x2FFFFFFF;
constexpr std::string_view kTimeStamp = "[0000-00-00 00:00:00] ";  // a 0 stands for any digit

class LogTest : public PlatformTest {
 protected:
  std::wstring LogFile() const { return File(L"sorvanik-vpn\\vpnservice.log"); }

  // The log with each time stamp turned into "@ ".
  std::string Log() const { return WithoutTimeStamps(FileBytes(LogFile()).value_or("(no file)")); }

  static std::string WithoutTimeStamps(std::string_view bytes) {
    std::string result;
    while (!bytes.empty()) {
      const bool stamped = StartsWithTimeStamp(bytes);
      result += stamped ? std::string("@ ") : std::string(1, bytes[0]);
      bytes.remove_prefix(stamped ? kTimeStamp.size() : 1);
    }
    return result;
  }

  static bool StartsWithTimeStamp(std::string_view bytes) {
    if (bytes.size() < kTimeStamp.size()) return false;
    for (size_t i = 0; i < kTimeStamp.size(); ++i) {
      const bool digit = std::isdigit(static_cast<unsigned char>(bytes[i])) != 0;
      if (kTimeStamp[i] == '0' ? !digit : bytes[i] != kTimeStamp[i]) return false;
    }
    return true;
  }

  platform::Handle Hold(uint32_t access, uint32_t share) {
    return platform::CreateFileW(LogFile(), access, share, platform::kOpenExisting,
                                 platform::kFileAttributeNormal);
  }
};

constexpr uint32_t kShareAll =
    platform::kFileShareRead | platform::kFileShareWrite | platform::kFileShareDelete;

}  // namespace

TEST_F(LogTest, LogLineWritesOneByteForEachCharacterUpTo255) {
  LogLine(L"a\u007F\u0080\u00E9\u00FF|");
  EXPECT_EQ(Log(), "@ a\x7F\x80\xE9\xFF|\r\n");
}

TEST_F(LogTest, LogLineLosesTheRestAndTheLineEndAtACharacterAbove255) {
  LogLine(L"ab\u4E2Dcd");
  LogLine(L"ef\u0100gh");
  LogLine(L"next");
  EXPECT_EQ(Log(), "@ ab@ ef@ next\r\n");
}

TEST_F(LogTest, LogLineStopsAtASurrogatePair) {
  LogLine(L"smile \xD83D\xDE00!");
  EXPECT_EQ(Log(), "@ smile ");
}

TEST_F(LogTest, LogLineWithAFirstCharacterAbove255IsATimeStampAlone) {
  LogLine(L"\u4E2D");
  EXPECT_EQ(Log(), "@ ");
}

TEST_F(LogTest, LogLineTurnsLineFeedsInTheTextIntoLineEnds) {
  LogLine(L"one\ntwo\r\nthree");
  EXPECT_EQ(Log(), "@ one\r\ntwo\r\r\nthree\r\n");
}

TEST_F(LogTest, WfpLogLineWritesUtf8) {
  WfpLogLine(L"a\u00E9\u4E2D\xD83D\xDE00|");
  EXPECT_EQ(Log(), "@ a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80|\r\n");
}

TEST_F(LogTest, WfpLogLineReplacesAnUnpairedSurrogate) {
  WfpLogLine(L"a\xD83Dz\xDE00.");
  EXPECT_EQ(Log(), "@ a\xEF\xBF\xBDz\xEF\xBF\xBD.\r\n");
}

TEST_F(LogTest, WfpLogLineLeavesLineFeedsInTheTextAlone) {
  WfpLogLine(L"one\ntwo");
  EXPECT_EQ(Log(), "@ one\ntwo\r\n");
}

TEST_F(LogTest, BothWritersAppendToOneFile) {
  LogLine(L"\u00E9");
  WfpLogLine(L"\u00E9");
  LogLine(L"");
  EXPECT_EQ(Log(), "@ \xE9\r\n@ \xC3\xA9\r\n@ \r\n");
}

TEST_F(LogTest, GoesToTheCurrentFolderWithoutProgramData) {
  SetEnvironment(L"ProgramData", std::nullopt);
  EXPECT_EQ(GetLogFilePath(), L"vpnservice.log");
  LogLine(L"one");
  WfpLogLine(L"two");
  EXPECT_EQ(WithoutTimeStamps(FileBytes(L"vpnservice.log").value_or("(no file)")), "@ one\r\n@ two\r\n");
  EXPECT_EQ(FileBytes(LogFile()), std::nullopt);
}

TEST_F(LogTest, ProgramDataOf260CharactersCountsAsMissing) {
  const std::wstring longest = L"C:\\" + std::wstring(256, L'x');
  SetEnvironment(L"ProgramData", longest);
  EXPECT_EQ(GetLogFilePath(), longest + L"\\sorvanik-vpn\\vpnservice.log");
  SetEnvironment(L"ProgramData", longest + L"x");
  EXPECT_EQ(GetLogFilePath(), L"vpnservice.log");
}

TEST_F(LogTest, LinesAreLostWhereNoFolderCanBeMade) {
  SetEnvironment(L"ProgramData", File(L"missing\\deeper"));
  LogLine(L"one");
  WfpLogLine(L"two");
  EXPECT_EQ(FileBytes(File(L"missing\\deeper\\sorvanik-vpn\\vpnservice.log")), std::nullopt);
  SetEnvironment(L"ProgramData", Folder());
  LogLine(L"three");
  EXPECT_EQ(Log(), "@ three\r\n");
}

TEST_F(LogTest, LinesAreLostWhileSomebodyHoldsTheFileAlone) {
  LogLine(L"before");
  platform::Handle held = Hold(platform::kGenericRead, platform::kFileShareNone);
  ASSERT_NE(held, platform::InvalidHandle());
  LogLine(L"one");
  WfpLogLine(L"two");
  platform::CloseHandle(held);
  LogLine(L"after");
  EXPECT_EQ(Log(), "@ before\r\n@ after\r\n");
}

TEST_F(LogTest, LinesArriveWhileAReaderSharesTheFile) {
  LogLine(L"before");
  platform::Handle held = Hold(platform::kGenericRead, kShareAll);
  ASSERT_NE(held, platform::InvalidHandle());
  LogLine(L"one");
  WfpLogLine(L"two");
  platform::CloseHandle(held);
  EXPECT_EQ(Log(), "@ before\r\n@ one\r\n@ two\r\n");
}

TEST_F(LogTest, OnlyTheFirewallsWriterSharesDeletion) {
  LogLine(L"before");
  platform::Handle held = Hold(kDeleteRight, kShareAll);
  ASSERT_NE(held, platform::InvalidHandle());
  LogLine(L"one");
  WfpLogLine(L"two");
  platform::CloseHandle(held);
  EXPECT_EQ(Log(), "@ before\r\n@ two\r\n");
}

TEST_F(LogTest, ErrorsWithoutASystemMessageSaySo) {
  LogWin32Error(L"Thing", kUnknownCode);
  WfpLogError(L"Thing", kUnknownCode);
  WfpLogError(nullptr, kUnknownCode);
  EXPECT_EQ(Log(),
            "@ Thing failed: 805306367 (no message available)\r\n"
            "@ WFP: Thing failed: 805306367 (no system message)\r\n"
            "@ WFP: (null) failed: 805306367 (no system message)\r\n");
}

TEST_F(LogTest, ErrorsEndBehindTheSystemMessageWithoutItsLineEnd) {
  std::wstring message;
  ASSERT_TRUE(platform::FormatMessageW(platform::kFormatMessageFlags, 5, 1024, message));
  EXPECT_FALSE(message.empty());
  LogWin32Error(L"CreateFileW", 5);
  WfpLogError(L"CreateFileW", 5);
  const std::string log = Log();
  const size_t second = log.find("@ WFP: ");
  ASSERT_NE(second, std::string::npos);
  const std::string lines[] = {log.substr(0, second), log.substr(second + 7)};
  for (const std::string& line : lines) {
    EXPECT_TRUE(line.ends_with(")\r\n")) << line;
    EXPECT_EQ(line.find_first_of("\r\n"), line.size() - 2) << line;
  }
  EXPECT_TRUE(lines[0].starts_with("@ CreateFileW failed: 5 (")) << lines[0];
  EXPECT_NE(lines[0][lines[0].size() - 4], ' ') << lines[0];
  EXPECT_TRUE(lines[1].starts_with("CreateFileW failed: 5 (")) << lines[1];
}
