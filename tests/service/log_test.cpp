// The log: path, two writers with two encodings, and the builders of error lines.
#include "service/log.h"

#include <gtest/gtest.h>

#include "sim/files.h"
#include "sim/kernel.h"

namespace {

const std::wstring kFolder = L"C:\\ProgramData\\sorvanik-vpn";
const std::wstring kFile = L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log";
const std::wstring kBareFile = L"C:\\windows\\vpnservice.log";
const std::string kStamp = "[2026-01-01 00:00:00] ";

struct Writer {
  const char* name;
  void (*write)(const std::wstring& text);
};
const Writer kWriters[] = {{"LogLine", LogLine}, {"WfpLogLine", WfpLogLine}};

TEST(GetLogFilePath, IsBelowProgramDataAndMakesTheFolder) {
  sim::Machine machine;
  EXPECT_EQ(GetLogFilePath(), kFile);
  EXPECT_TRUE(sim::FolderExists(kFolder));
  EXPECT_FALSE(sim::FileExists(kFile));
  EXPECT_EQ(sim::CountCalls("GetEnvironmentVariableW", "name=\"ProgramData\" size=260"), 1u);
}

TEST(GetLogFilePath, IsWorkedOutAnewEachTime) {
  sim::Machine machine;
  EXPECT_EQ(GetLogFilePath(), kFile);
  sim::SetEnvironment(L"ProgramData", L"D:\\Other");
  EXPECT_EQ(GetLogFilePath(), L"D:\\Other\\sorvanik-vpn\\vpnservice.log");
  EXPECT_EQ(sim::CountCalls("CreateDirectoryW"), 2u);
}

TEST(GetLogFilePath, IsTheBareNameWithoutTheVariable) {
  sim::Machine machine;
  sim::SetEnvironment(L"ProgramData", std::nullopt);
  EXPECT_EQ(GetLogFilePath(), L"vpnservice.log");
  sim::SetEnvironment(L"ProgramData", L"");
  EXPECT_EQ(GetLogFilePath(), L"vpnservice.log");
  EXPECT_EQ(sim::CountCalls("CreateDirectoryW"), 0u);
}

TEST(GetLogFilePath, TakesAVariableOfUpTo259Characters) {
  sim::Machine machine;
  const std::wstring longest = L"C:\\" + std::wstring(256, L'p');
  sim::SetEnvironment(L"ProgramData", longest);
  EXPECT_EQ(GetLogFilePath(), longest + L"\\sorvanik-vpn\\vpnservice.log");
  sim::SetEnvironment(L"ProgramData", longest + L"p");
  EXPECT_EQ(GetLogFilePath(), L"vpnservice.log");
  sim::SetEnvironment(L"ProgramData", longest + L"pp");
  EXPECT_EQ(GetLogFilePath(), L"vpnservice.log");
}

TEST(Log, BothWritersUseTheSamePath) {
  for (const Writer& writer : kWriters) {
    SCOPED_TRACE(writer.name);
    sim::Machine machine;
    writer.write(L"text");
    EXPECT_EQ(sim::FileBytes(kFile), kStamp + "text\r\n");
    EXPECT_FALSE(sim::FileExists(kBareFile));
  }
}

TEST(Log, BothWritersFallBackToTheCurrentDirectory) {
  for (const Writer& writer : kWriters) {
    SCOPED_TRACE(writer.name);
    sim::Machine machine;
    sim::SetEnvironment(L"ProgramData", std::nullopt);
    writer.write(L"unset");
    sim::SetEnvironment(L"ProgramData", L"C:\\" + std::wstring(257, L'p'));
    writer.write(L"260");
    sim::SetEnvironment(L"ProgramData", L"C:\\" + std::wstring(400, L'p'));
    writer.write(L"longer");
    EXPECT_EQ(sim::FileBytes(kBareFile), kStamp + "unset\r\n" + kStamp + "260\r\n" + kStamp + "longer\r\n");
  }
}

TEST(Log, ADeletedFileOrFolderIsMadeAgainAtTheNextLine) {
  for (const Writer& writer : kWriters) {
    SCOPED_TRACE(writer.name);
    sim::Machine machine;
    writer.write(L"one");
    sim::RemoveFile(kFile);
    writer.write(L"two");
    EXPECT_EQ(sim::LogBytes(), kStamp + "two\r\n");
    sim::RemoveFolder(kFolder);
    writer.write(L"three");
    EXPECT_EQ(sim::LogBytes(), kStamp + "three\r\n");
  }
}

TEST(Log, AppendsWithoutHeaderAndKeepsNothingOpen) {
  for (const Writer& writer : kWriters) {
    SCOPED_TRACE(writer.name);
    sim::Machine machine;
    sim::PutFile(kFile, "older\r\n");
    writer.write(L"one");
    EXPECT_EQ(sim::OpenHandles(), 0u);
    writer.write(L"");
    EXPECT_EQ(sim::LogBytes(), "older\r\n" + kStamp + "one\r\n" + kStamp + "\r\n");
  }
}

TEST(Log, StampsWithTheLocalTimeInTwoDigits) {
  for (const Writer& writer : kWriters) {
    SCOPED_TRACE(writer.name);
    sim::Machine machine;
    sim::SetUnixTime(1'772'593'445);
    writer.write(L"a");
    sim::SetUnixTime(1'798'761'599);
    writer.write(L"b");
    EXPECT_EQ(sim::LogBytes(), "[2026-03-04 03:04:05] a\r\n[2026-12-31 23:59:59] b\r\n");
  }
}

// The two writers build their stamps differently, which only a clock far in the past shows.
TEST(Log, OnlyTheFirewallsWriterPadsTheYear) {
  sim::Machine machine;
  constexpr int64_t kYear999 = -30'641'760'000;
  sim::SetUnixTime(kYear999);
  LogLine(L"a");
  WfpLogLine(L"b");
  EXPECT_EQ(sim::LogBytes(), "[999-01-01 00:00:00] a\r\n[0999-01-01 00:00:00] b\r\n");
}

TEST(Log, AFileThatCannotBeOpenedLosesTheLineAndNothingElse) {
  for (const Writer& writer : kWriters) {
    SCOPED_TRACE(writer.name);
    sim::Machine machine;
    sim::HoldFile(kFile);
    writer.write(L"lost");
    sim::ReleaseFile(kFile);
    writer.write(L"kept");
    EXPECT_EQ(sim::LogBytes(), kStamp + "kept\r\n");
    EXPECT_EQ(sim::OpenHandles(), 0u);
  }
}

TEST(Log, AFolderThatCannotBeMadeLosesTheLineAndNothingElse) {
  for (const Writer& writer : kWriters) {
    SCOPED_TRACE(writer.name);
    sim::Machine machine;
    sim::SetEnvironment(L"ProgramData", L"C:\\missing\\deeper");
    writer.write(L"lost");
    EXPECT_FALSE(sim::FolderExists(L"C:\\missing"));
    EXPECT_FALSE(sim::FileExists(kBareFile));
    EXPECT_EQ(sim::OpenHandles(), 0u);
  }
}

TEST(Log, AFailedWriteLosesTheLineAndNothingElse) {
  for (const Writer& writer : kWriters) {
    SCOPED_TRACE(writer.name);
    sim::Machine machine;
    sim::Fail({.operation = "WriteFile", .code = 112});
    writer.write(L"lost");
    writer.write(L"kept");
    EXPECT_EQ(sim::LogBytes(), kStamp + "kept\r\n");
    EXPECT_EQ(sim::OpenHandles(), 0u);
  }
}

TEST(LogLine, WritesOneByteForACharacterUpTo255) {
  sim::Machine machine;
  LogLine(L"\u00E9\u00FF|\u0080");
  EXPECT_EQ(sim::LogBytes(), kStamp + "\xE9\xFF|\x80\r\n");
}

TEST(LogLine, ACharacterAbove255CutsTheLineAndItsEnd) {
  sim::Machine machine;
  LogLine(L"before \u4E2D after");
  LogLine(L"next");
  LogLine(L"a\u0100");
  LogLine(L"\u20AC");
  LogLine(L"last");
  EXPECT_EQ(sim::LogBytes(),
            kStamp + "before " + kStamp + "next\r\n" + kStamp + "a" + kStamp + kStamp + "last\r\n");
}

TEST(LogLine, ALineFeedInTheTextBecomesALineEnd) {
  sim::Machine machine;
  LogLine(L"one\ntwo\r\nthree");
  EXPECT_EQ(sim::LogBytes(), kStamp + "one\r\ntwo\r\r\nthree\r\n");
}

TEST(LogLine, WritesAZeroCharacter) {
  sim::Machine machine;
  LogLine(std::wstring(L"a\0b", 3));
  EXPECT_EQ(sim::LogBytes(), kStamp + std::string("a\0b\r\n", 5));
}

TEST(LogLine, WritesLinesOfAnyLength) {
  sim::Machine machine;
  std::string expected;
  for (const size_t length : {1U, 100U, 243U, 244U, 245U, 246U, 488U, 512U, 5000U}) {
    LogLine(std::wstring(length, L'\n'));
    expected += kStamp;
    for (size_t end = 0; end <= length; ++end) expected += "\r\n";
  }
  EXPECT_EQ(sim::LogBytes(), expected);
}

TEST(LogLine, OpensInAppendModeAndSharesReadingAndWriting) {
  sim::Machine machine;
  LogLine(L"a");
  EXPECT_EQ(sim::CountCalls("CreateFileW"), 1u);
  EXPECT_EQ(sim::CountCalls("CreateFileW", "access=0x4 share=3 disposition=4"), 1u);
  EXPECT_EQ(sim::CountCalls("WriteFile"), 1u);
}

TEST(WfpLogLine, WritesTheTextInUtf8) {
  sim::Machine machine;
  WfpLogLine(L"\u00E9 \u4E2D \xD83D\xDE00 \xD800.");
  EXPECT_EQ(sim::LogBytes(), kStamp + "\xC3\xA9 \xE4\xB8\xAD \xF0\x9F\x98\x80 \xEF\xBF\xBD.\r\n");
}

TEST(WfpLogLine, LeavesLineBreaksAsTheyAre) {
  sim::Machine machine;
  WfpLogLine(L"one\ntwo\r\nthree");
  EXPECT_EQ(sim::LogBytes(), kStamp + "one\ntwo\r\nthree\r\n");
}

TEST(WfpLogLine, OpensForAppendingAndSharesEverything) {
  sim::Machine machine;
  WfpLogLine(L"a");
  EXPECT_EQ(sim::CountCalls("CreateFileW"), 1u);
  EXPECT_EQ(sim::CountCalls("CreateFileW", "access=0x4 share=7 disposition=4 flags=0x80"), 1u);
  EXPECT_EQ(sim::CountCalls("WideCharToMultiByte", "codePage=65001"), sim::CountCalls("WideCharToMultiByte"));
}

TEST(WfpLogLine, WritesNothingWithoutAUtf8Form) {
  sim::Machine machine;
  sim::Fail({.operation = "WideCharToMultiByte", .code = 1113, .times = UINT32_MAX});
  WfpLogLine(L"a");
  EXPECT_EQ(sim::LogBytes(), "");
  EXPECT_EQ(sim::CountCalls("WriteFile"), 0u);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(LogWin32Error, GivesCallCodeAndMessage) {
  sim::Machine machine;
  LogWin32Error(L"OpenSCManagerW", 5);
  EXPECT_EQ(sim::LogBytes(), kStamp + "OpenSCManagerW failed: 5 (Access is denied.)\r\n");
  EXPECT_EQ(sim::CountCalls("FormatMessageW", "flags=4864 code=5 language=1024"), 1u);
}

TEST(LogWin32Error, SaysWhenThereIsNoMessage) {
  sim::Machine machine;
  LogWin32Error(L"ControlService(STOP)", 4'294'967'295);
  EXPECT_EQ(sim::LogBytes(), kStamp + "ControlService(STOP) failed: 4294967295 (no message available)\r\n");
}

TEST(LogWin32Error, TrimsLineEndsAndBlanksFromTheMessage) {
  sim::Machine machine;
  sim::SetSystemMessage(70'001, L"  two lines\r\nhere \t \r\n \n");
  LogWin32Error(L"X", 70'001);
  EXPECT_EQ(sim::LogBytes(), kStamp + "X failed: 70001 (  two lines\r\r\nhere \t)\r\n");
}

TEST(WfpLogError, GivesPrefixCallCodeAndMessage) {
  sim::Machine machine;
  WfpLogError(L"FwpmEngineOpen0", 1168);
  EXPECT_EQ(sim::LogBytes(), kStamp + "WFP: FwpmEngineOpen0 failed: 1168 (Element not found.)\r\n");
  EXPECT_EQ(sim::CountCalls("FormatMessageW", "flags=4864 code=1168 language=1024"), 1u);
}

// Callers whose text says "failed" already keep it.
TEST(WfpLogError, ReadsTwiceForATextThatSaysFailed) {
  sim::Machine machine;
  WfpLogError(L"WFP: FwpmCalloutEnum0 failed", 5);
  EXPECT_EQ(sim::LogBytes(), kStamp + "WFP: WFP: FwpmCalloutEnum0 failed failed: 5 (Access is denied.)\r\n");
}

TEST(WfpLogError, NamesANullCall) {
  sim::Machine machine;
  WfpLogError(nullptr, 5);
  EXPECT_EQ(sim::LogBytes(), kStamp + "WFP: (null) failed: 5 (Access is denied.)\r\n");
}

TEST(WfpLogError, SaysWhenThereIsNoMessage) {
  sim::Machine machine;
  WfpLogError(L"FwpmFilterAdd0", 0x80320009);
  EXPECT_EQ(sim::LogBytes(), kStamp + "WFP: FwpmFilterAdd0 failed: 2150760457 (no system message)\r\n");
}

// Unlike LogWin32Error it keeps the blank at a message's end.
TEST(WfpLogError, TrimsLineEndsButKeepsABlank) {
  sim::Machine machine;
  sim::SetSystemMessage(70'001, L"ends in a blank \r\n");
  LogWin32Error(L"X", 70'001);
  WfpLogError(L"X", 70'001);
  EXPECT_EQ(sim::LogBytes(), kStamp + "X failed: 70001 (ends in a blank)\r\n" + kStamp +
                                 "WFP: X failed: 70001 (ends in a blank )\r\n");
}

TEST(WfpLogError, WritesTheMessageInUtf8) {
  sim::Machine machine;
  sim::SetSystemMessage(70'001, L"\u00E9");
  WfpLogError(L"X", 70'001);
  EXPECT_EQ(sim::LogBytes(), kStamp + "WFP: X failed: 70001 (\xC3\xA9)\r\n");
}

}  // namespace
