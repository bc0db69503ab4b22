// The process runner on real processes and pipes.
#include "platform/echo_task.h"
#include "platform/platform_fixture.h"
#include "wireguard/process_runner.h"

namespace {

class ProcessTest : public PlatformTest {
 protected:
  bool Run(const std::wstring& arguments) {
    return RunProcessCapture(EchoProgram(), arguments, exitCode, standardOutput, standardError);
  }
  bool Run(const EchoTask& task) { return Run(EchoArguments(task)); }

  uint32_t exitCode = 77;
  std::wstring standardOutput = L"stale";
  std::wstring standardError = L"stale";
};

}  // namespace

TEST_F(ProcessTest, CapturesBothOutputsAndTheExitCode) {
  ASSERT_TRUE(Run({"to output\n", "to error\r\n", 3}));
  EXPECT_EQ(exitCode, 3u);
  EXPECT_EQ(standardOutput, L"to output\n");
  EXPECT_EQ(standardError, L"to error\r\n");
}

TEST_F(ProcessTest, GivesEmptyTextsForNoOutput) {
  ASSERT_TRUE(Run({"", "", 0}));
  EXPECT_EQ(exitCode, 0u);
  EXPECT_EQ(standardOutput, L"");
  EXPECT_EQ(standardError, L"");
}

TEST_F(ProcessTest, PassesTheWholeExitCode) {
  ASSERT_TRUE(Run({"", "", 0xC0000005}));
  EXPECT_EQ(exitCode, 0xC0000005u);
}

TEST_F(ProcessTest, DecodesUtf8AndReplacesWhatIsNone) {
  ASSERT_TRUE(Run({"caf\xC3\xA9 \xF0\x9F\x98\x80", "a\xFFz\xC3(", 0}));
  EXPECT_EQ(standardOutput, L"caf\u00E9 \xD83D\xDE00");
  EXPECT_EQ(standardError, L"a\xFFFDz\xFFFD(");
}

TEST_F(ProcessTest, JoinsACharacterThatIsSplitBetweenTwoReads) {
  ASSERT_TRUE(Run({std::string(4095, 'x') + "\xE4\xB8\xAD", "", 0}));
  EXPECT_EQ(standardOutput, std::wstring(4095, L'x') + L"\u4E2D");
}

TEST_F(ProcessTest, ReadsOutputOfManyChunks) {
  std::string lines;
  while (lines.size() < 9000) lines += "peer line " + std::to_string(lines.size()) + "\n";
  ASSERT_TRUE(Run({lines, "short", 0}));
  EXPECT_EQ(standardOutput, std::wstring(lines.begin(), lines.end()));
  EXPECT_EQ(standardError, L"short");
}

TEST_F(ProcessTest, QuotesTheProgramAndPassesTheArgumentsAsTheyStand) {
  const std::wstring arguments = std::wstring(kTellCommandLine) + L"  \"telvor\"  a\\b \u00E9";
  ASSERT_TRUE(Run(arguments));
  EXPECT_EQ(standardOutput, L"\"" + EchoProgram() + L"\" " + arguments);
}

TEST_F(ProcessTest, AProgramThatIsMissingIsNotStarted) {
  EXPECT_FALSE(RunProcessCapture(File(L"missing.exe"), L"show", exitCode, standardOutput, standardError));
  EXPECT_EQ(exitCode, 0u);
  EXPECT_EQ(standardOutput, L"");
  EXPECT_EQ(standardError, L"");
}
