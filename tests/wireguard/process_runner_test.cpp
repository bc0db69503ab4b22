#include "wireguard/process_runner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sim/files.h"
#include "sim/kernel.h"
#include "sim/processes.h"
#include "wireguard/platform.h"

namespace {

using Lines = std::vector<std::string>;

struct Captured {
  bool started = true;
  uint32_t exitCode = 77;
  std::wstring out = L"old";
  std::wstring err = L"old";
};
Captured RunProgram(const std::wstring& arguments = L"") {
  Captured result;
  result.started = RunProcessCapture(L"C:\\tool.exe", arguments, result.exitCode, result.out, result.err);
  return result;
}
void ExpectEmpty(const Captured& result) {
  EXPECT_FALSE(result.started);
  EXPECT_EQ(result.exitCode, 0U);
  EXPECT_EQ(result.out, L"");
  EXPECT_EQ(result.err, L"");
}

void Script(const sim::ProcessResult& result) {
  sim::SetProcessHandler([result](const std::wstring&) { return result; });
}

// The names of the traced calls, repeated ones behind each other once.
Lines Steps() {
  Lines steps;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (steps.empty() || steps.back() != entry.operation) steps.emplace_back(entry.operation);
  }
  return steps;
}

TEST(RunProcessCapture, HandsOutExitCodeAndBothOutputs) {
  sim::Machine machine;
  Script({.exitCode = 3221225477, .standardOutput = "to out\r\n", .standardError = "to err\n"});
  const Captured result = RunProgram();
  EXPECT_TRUE(result.started);
  EXPECT_EQ(result.exitCode, 3221225477U);
  EXPECT_EQ(result.out, L"to out\r\n");
  EXPECT_EQ(result.err, L"to err\n");
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(RunProcessCapture, EmptiesTheOutputsOfAProgramThatWritesNothing) {
  sim::Machine machine;
  Script({});
  const Captured result = RunProgram();
  EXPECT_TRUE(result.started);
  EXPECT_EQ(result.exitCode, 0U);
  EXPECT_EQ(result.out, L"");
  EXPECT_EQ(result.err, L"");
}

TEST(RunProcessCapture, QuotesTheProgramAndPassesTheArgumentsAsGiven) {
  sim::Machine machine;
  Script({});
  RunProgram(L"/a \"b c\"  d");
  RunProgram();
  ASSERT_EQ(sim::StartedProcesses().size(), 2U);
  EXPECT_EQ(sim::StartedProcesses()[0].commandLine, L"\"C:\\tool.exe\" /a \"b c\"  d");
  EXPECT_EQ(sim::StartedProcesses()[1].commandLine, L"\"C:\\tool.exe\" ");
  EXPECT_EQ(sim::StartedProcesses()[0].flags, 0x08000000U);  // CREATE_NO_WINDOW
}

TEST(RunProcessCapture, ReadsTheOutputsToTheirEndBeforeItWaits) {
  sim::Machine machine;
  Script({.standardOutput = "out", .standardError = "err"});
  ASSERT_TRUE(RunProgram().started);
  const Lines steps = Steps();
  const Lines behindStart = {
      "CreateProcessW",     "CloseHandle",         "ReadFile",    "MultiByteToWideChar",
      "ReadFile",           "MultiByteToWideChar", "CloseHandle", "WaitForSingleObject",
      "GetExitCodeProcess", "CloseHandle"};
  const size_t start = steps.size() - std::min(steps.size(), behindStart.size());
  EXPECT_EQ(Lines(steps.begin() + static_cast<std::ptrdiff_t>(start), steps.end()), behindStart);
  EXPECT_EQ(sim::CountCalls("WaitForSingleObject", "milliseconds=4294967295"), 1U);
  EXPECT_EQ(sim::CountCalls("CloseHandle"), 6U);
  EXPECT_EQ(sim::CountCalls("CreatePipe"), 2U);
  EXPECT_EQ(sim::CountCalls("SetHandleInformation", "mask=1 flags=0"), 2U);
  EXPECT_EQ(sim::CountCalls("GetStdHandle", "which=0xfffffff6"), 1U);
  EXPECT_EQ(sim::CountCalls("ReadFile"), sim::CountCalls("ReadFile", "size=4096"));
}

TEST(RunProcessCapture, DecodesCharactersThatLieAcrossTheReadChunks) {
  sim::Machine machine;
  std::string out = "x";
  std::wstring expected = L"x";
  for (int i = 0; i < 5000; ++i) {
    out += "\xC3\xA4";
    expected += L'\xE4';
  }
  Script({.standardOutput = out, .standardError = std::string(4096, 'e')});
  const Captured result = RunProgram();
  EXPECT_EQ(result.out, expected);
  EXPECT_EQ(result.err, std::wstring(4096, L'e'));
}

TEST(RunProcessCapture, TurnsInvalidUtf8IntoReplacementCharacters) {
  sim::Machine machine;
  Script({.standardOutput = "a\xFFz", .standardError = "\x80"});
  const Captured result = RunProgram();
  EXPECT_EQ(result.out, L"a\xFFFDz");
  EXPECT_EQ(result.err, L"\xFFFD");
}

TEST(RunProcessCapture, TakesWhatCameBeforeAReadThatFails) {
  sim::Machine machine;
  Script({.standardOutput = std::string(4096, 'a') + "rest", .standardError = "err"});
  sim::Fail({.operation = "ReadFile", .code = 5, .skip = 1});
  const Captured result = RunProgram();
  EXPECT_TRUE(result.started);
  EXPECT_EQ(result.out, std::wstring(4096, L'a'));
  EXPECT_EQ(result.err, L"err");
}

// A program may write nothing into its output, which reads as its end.
TEST(RunProcessCapture, TakesAReadOfNoBytesForTheEnd) {
  sim::Machine machine;
  Script({.standardOutput = "out", .standardError = "err"});
  sim::Shorten("ReadFile", 0);
  const Captured result = RunProgram();
  EXPECT_TRUE(result.started);
  EXPECT_EQ(result.out, L"");
  EXPECT_EQ(result.err, L"err");
}

TEST(RunProcessCapture, FailsForAProgramThatCannotBeStartedAndClosesAllItMade) {
  sim::Machine machine;
  Script({.starts = false});
  ExpectEmpty(RunProgram());
  EXPECT_EQ(sim::OpenHandles(), 0U);
  EXPECT_TRUE(sim::LogLines().empty());
}

// Wanted: what was made before the failure stays open.
TEST(RunProcessCapture, LeavesThePipesOpenWhenTheyCannotAllBeMade) {
  const struct {
    sim::Fault fault;
    size_t leastOpen, mostOpen;
  } cases[] = {{{.operation = "CreatePipe", .code = 8}, 0, 0},
               {{.operation = "CreatePipe", .code = 8, .skip = 1}, 2, 2},
               {{.operation = "SetHandleInformation", .code = 8}, 2, 4},
               {{.operation = "SetHandleInformation", .code = 8, .skip = 1}, 4, 4}};
  for (const auto& step : cases) {
    SCOPED_TRACE(step.fault.operation);
    sim::Machine machine;
    Script({});
    sim::Fail(step.fault);
    ExpectEmpty(RunProgram());
    EXPECT_GE(sim::OpenHandles("pipe"), step.leastOpen);
    EXPECT_LE(sim::OpenHandles("pipe"), step.mostOpen);
    sim::ExpectOpenHandles(sim::OpenHandles());
    EXPECT_TRUE(sim::StartedProcesses().empty());
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(RunProcessCapture, WaitsForAProgramThatHangsWithoutATimeLimit) {
  sim::Machine machine;
  Script({.hangs = true});
  bool returned = false;
  sim::StartThread("caller", [&returned] {
    RunProgram();
    returned = true;
  });
  EXPECT_FALSE(sim::RunUntil([&returned] { return returned; }, 7ULL * 24 * 3600 * 1000));
  EXPECT_EQ(sim::StartedProcesses().size(), 1U);
  sim::KillProcess();
}

// Wanted: the outputs are read one after the other, which the programs that are run here never notice.
TEST(RunProcessCapture, HangsOnAProgramThatFillsTheErrorPipeBeforeItClosesItsOutput) {
  sim::Machine machine;
  Script({.standardOutput = "out", .standardError = std::string(100'000, 'e')});
  bool returned = false;
  sim::StartThread("caller", [&returned] {
    RunProgram();
    returned = true;
  });
  EXPECT_FALSE(sim::RunUntil([&returned] { return returned; }, 24ULL * 3600 * 1000));
  sim::KillProcess();
}

TEST(RunProcessCapture, KeepsTheOutputsOfRunsAtTheSameTimeApart) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    sim::Machine machine({.seed = seed});
    sim::SetProcessHandler([](const std::wstring& commandLine) {
      const std::string last = sim::Narrow(commandLine.substr(commandLine.size() - 1));
      return sim::ProcessResult{.exitCode = static_cast<uint32_t>(last[0] - '0'), .standardOutput = last};
    });
    Captured results[3];
    int ended = 0;
    for (size_t i = 0; i < 3; ++i) {
      sim::StartThread("caller", [&results, &ended, i] {
        results[i] = RunProgram(std::to_wstring(i));
        ++ended;
      });
    }
    ASSERT_TRUE(sim::RunUntil([&ended] { return ended == 3; }, 60000));
    for (size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(results[i].exitCode, i);
      EXPECT_EQ(results[i].out, std::to_wstring(i));
    }
  }
}

TEST(ReadPipeToEnd, GivesNothingForAPipeThatBreaksAtOnce) {
  sim::Machine machine;
  platform::Handle readEnd = nullptr, writeEnd = nullptr;
  ASSERT_TRUE(platform::CreatePipe(readEnd, writeEnd));
  platform::CloseHandle(writeEnd);
  EXPECT_EQ(ReadPipeToEnd(readEnd), L"");
  platform::CloseHandle(readEnd);
}

}  // namespace
