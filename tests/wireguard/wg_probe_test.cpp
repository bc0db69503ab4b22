#include "wireguard/wg_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sim/files.h"
#include "sim/kernel.h"
#include "sim/processes.h"

namespace {

using Lines = std::vector<std::string>;

// One result a run, the last one for all that follow; they take no time.
void ScriptRounds(const std::vector<sim::ProcessResult>& rounds) {
  sim::SetProcessHandler([rounds](const std::wstring&) {
    const size_t round = sim::StartedProcesses().size();
    sim::ProcessResult result = rounds[std::min(round, rounds.size() - 1)];
    result.milliseconds = 0;
    return result;
  });
}
void ScriptOutput(const std::string& output) {
  ScriptRounds({{.standardOutput = output}});
}

Lines Repeat(size_t times, const Lines& lines) {
  Lines all;
  for (size_t i = 0; i < times; ++i) all.insert(all.end(), lines.begin(), lines.end());
  return all;
}

// What a probe of this output logs as the handshake's time; empty if it sees no handshake.
std::string SeenTime(const std::string& output) {
  ScriptOutput(output);
  sim::ClearLog();
  if (!WgHandshakeSeen(L"telvor")) return "";
  const Lines lines = sim::LogLines();
  const std::string head = "WgHandshakeSeen: OK ts=";
  const std::string tail = " iface=\"telvor\"";
  if (lines.size() != 1 || !lines[0].starts_with(head) || !lines[0].ends_with(tail)) return "other lines";
  return lines[0].substr(head.size(), lines[0].size() - head.size() - tail.size());
}

TEST(WgHandshakeSeen, ReadsTheTimeBehindTheTabAndLogsIt) {
  sim::Machine machine;
  ScriptOutput("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=\t1767225600\r\n");
  EXPECT_TRUE(WgHandshakeSeen(L"telvor"));
  EXPECT_EQ(sim::LogLines(), (Lines{"WgHandshakeSeen: OK ts=1767225600 iface=\"telvor\""}));
  ASSERT_EQ(sim::StartedProcesses().size(), 1U);
  EXPECT_EQ(sim::StartedProcesses()[0].commandLine,
            L"\"C:\\Program Files\\WireGuard\\wg.exe\" show \"telvor\" latest-handshakes");
}

TEST(WgHandshakeSeen, TakesAnyTimeButZeroAsAHandshakeHoweverOld) {
  const struct {
    const char* output;
    const char* time;
  } cases[] = {
      {"key\t1", "1"},
      {"key\t1\n", "1"},
      {"key\t17\rkey\t18", "17"},
      {"key\t  17 ", "17"},
      {"key\t17x", "17"},
      {"key\t5\t6\n", "5"},
      {"a warning\nkey\t8\n", "8"},
      {"key one\t21\nkey two\t0\n", "21"},
      {"key\t18446744073709551615", "18446744073709551615"},
      {"key\t18446744073709551616", "18446744073709551615"},  // out of range, as _wcstoui64 has it
      {"key\t-1", "18446744073709551615"},
  };
  for (const auto& probe : cases) {
    SCOPED_TRACE(probe.output);
    sim::Machine machine;
    EXPECT_EQ(SeenTime(probe.output), probe.time);
  }
}

TEST(WgHandshakeSeen, SeesNoneWithoutANumberBehindTheFirstTab) {
  const char* const outputs[] = {
      "",          "key 1767225600\n", "key\t",      "key\t\r\n1767225600\n",    "key\t\r17",
      "key\t\n17", "key\tnever",       "key\t0\r\n", "one\t0\ntwo\t1767225600\n"};
  for (const char* output : outputs) {
    SCOPED_TRACE(output);
    sim::Machine machine;
    EXPECT_EQ(SeenTime(output), "");
    EXPECT_EQ(sim::StartedProcesses().size(), 15U);
  }
}

TEST(WgHandshakeSeen, AsksFifteenTimesWithASecondBehindEachAndLogsNothingOnGivingUp) {
  sim::Machine machine;
  ScriptOutput("key\t0");
  const uint64_t start = sim::Now();
  EXPECT_FALSE(WgHandshakeSeen(L"telvor"));
  EXPECT_EQ(sim::Now() - start, 15000U);
  EXPECT_EQ(sim::CountCalls("Sleep", "1000"), 15U);
  EXPECT_EQ(sim::StartedProcesses().size(), 15U);
  EXPECT_EQ(sim::LogLines(), Repeat(3, {"WgHandshakeSeen: waiting... head=key\t0"}));
}

TEST(WgHandshakeSeen, TellsItsProgressInEveryFifthRoundFromTheFirstOn) {
  sim::Machine machine;
  sim::SetProcessHandler([](const std::wstring&) {
    return sim::ProcessResult{.standardOutput = "round " + std::to_string(sim::StartedProcesses().size()),
                              .milliseconds = 0};
  });
  EXPECT_FALSE(WgHandshakeSeen(L"telvor"));
  EXPECT_EQ(sim::LogLines(),
            (Lines{"WgHandshakeSeen: waiting... head=round 0", "WgHandshakeSeen: waiting... head=round 5",
                   "WgHandshakeSeen: waiting... head=round 10"}));
}

TEST(WgHandshakeSeen, ShowsTheFirst140CharactersOfTheOutputAsTheyStand) {
  const std::string head = "WgHandshakeSeen: waiting... head=";
  for (const size_t length : {139U, 140U, 141U, 500U}) {
    sim::Machine machine;
    ScriptOutput(std::string(length, 'x'));
    EXPECT_FALSE(WgHandshakeSeen(L"telvor"));
    EXPECT_EQ(sim::LogLines(), Repeat(3, {head + std::string(std::min<size_t>(length, 140), 'x')}));
  }
  sim::Machine machine;
  ScriptOutput("key\t0\nother\t0");
  EXPECT_FALSE(WgHandshakeSeen(L"telvor"));
  EXPECT_EQ(sim::LogLines(), Repeat(3, {head + "key\t0", "other\t0"}));
}

TEST(WgHandshakeSeen, ReturnsAtTheRoundThatShowsTheHandshake) {
  sim::Machine machine;
  std::vector<sim::ProcessResult> rounds(7, {.standardOutput = "key\t0"});
  rounds.push_back({.standardOutput = "key\t1767225607\n"});
  ScriptRounds(rounds);
  const uint64_t start = sim::Now();
  EXPECT_TRUE(WgHandshakeSeen(L"telvor"));
  EXPECT_EQ(sim::Now() - start, 7000U);
  EXPECT_EQ(sim::LogLines(),
            (Lines{"WgHandshakeSeen: waiting... head=key\t0", "WgHandshakeSeen: waiting... head=key\t0",
                   "WgHandshakeSeen: OK ts=1767225607 iface=\"telvor\""}));
}

TEST(WgHandshakeSeen, LogsAFailedProbeWithItsOutputInEachRoundAndNoProgress) {
  const std::string failed = "WgHandshakeSeen: wg latest-handshakes exitCode=1 iface=\"telvor\"";
  const struct {
    std::string out, err;
    Lines lines;
  } cases[] = {
      {"key\t1767225600",
       "no such device",
       {failed, "WgHandshakeSeen stdout: key\t1767225600", "WgHandshakeSeen stderr: no such device"}},
      {"", "no such device", {failed, "WgHandshakeSeen stderr: no such device"}},
      {"text", "", {failed, "WgHandshakeSeen stdout: text"}},
      {"", "", {failed}},
  };
  for (const auto& probe : cases) {
    sim::Machine machine;
    ScriptRounds({{.exitCode = 1, .standardOutput = probe.out, .standardError = probe.err}});
    EXPECT_FALSE(WgHandshakeSeen(L"telvor"));
    EXPECT_EQ(sim::StartedProcesses().size(), 15U);
    EXPECT_EQ(sim::LogLines(), Repeat(15, probe.lines));
  }
}

TEST(WgHandshakeSeen, CountsAFailedProbeAsARound) {
  sim::Machine machine;
  ScriptRounds({{.exitCode = 2}, {.standardOutput = "key\t0"}});
  EXPECT_FALSE(WgHandshakeSeen(L"telvor"));
  EXPECT_EQ(sim::StartedProcesses().size(), 15U);
  EXPECT_EQ(sim::LogLines(),
            (Lines{"WgHandshakeSeen: wg latest-handshakes exitCode=2 iface=\"telvor\"",
                   "WgHandshakeSeen: waiting... head=key\t0", "WgHandshakeSeen: waiting... head=key\t0"}));
}

TEST(WgHandshakeSeen, GivesUpAtOnceWhenTheProbeCannotBeRun) {
  for (const size_t before : {0U, 6U}) {
    sim::Machine machine;
    std::vector<sim::ProcessResult> rounds(before, {.standardOutput = "key\t0"});
    rounds.push_back({.starts = false});
    ScriptRounds(rounds);
    const uint64_t start = sim::Now();
    EXPECT_FALSE(WgHandshakeSeen(L"telvor"));
    EXPECT_EQ(sim::Now() - start, before * 1000U);
    EXPECT_EQ(sim::LogLines().back(),
              "WgHandshakeSeen: failed to run wg.exe latest-handshakes. iface=\"telvor\"");
    EXPECT_EQ(sim::LogLines().size(), before ? 3U : 1U);
  }
}

struct Totals {
  bool ok = false;
  uint64_t rx = 111;
  uint64_t tx = 222;
};
Totals Transfer() {
  Totals totals;
  totals.ok = WgGetRxTxBytes(L"telvor", totals.rx, totals.tx);
  return totals;
}

TEST(WgGetRxTxBytes, SumsOverAllPeersAndLogsNothing) {
  const struct {
    const char* output;
    uint64_t rx, tx;
  } cases[] = {
      {"", 0, 0},
      {"\r\n \t\r\n", 0, 0},
      {"key\t12\t34\n", 12, 34},
      {"key\t12\t34", 12, 34},
      {"one\t1\t10\r\ntwo\t2\t20\r\n", 3, 30},
      {"  \tone  1 \t 10 \t\r\n\n two\t\t2\t20 more words", 3, 30},
      {"key 12x 34y", 12, 34},
      {"key 12 word", 12, 0},
      {"key word 34", 0, 0},
      {"key 12", 0, 0},
      {"key", 0, 0},
      {"key 12 word\nother 1 2", 13, 2},
      {"key -5 7\nother +5 7", 0, 0},  // a sign is no digit
      {"key 18446744073709551615 1", UINT64_MAX, 1},
      {"key 18446744073709551616 1\nother 5 6", 5, 6},
      {"key 7 18446744073709551616\nother 5 6", 12, 6},
      {"one 18446744073709551615 18446744073709551615\ntwo 3 1", 2, 0},
      {"a\vb\f1 2 3 4", 2, 3},
      {"key 12 34\r56", 12, 34},
  };
  for (const auto& probe : cases) {
    SCOPED_TRACE(probe.output);
    sim::Machine machine;
    ScriptOutput(probe.output);
    const Totals totals = Transfer();
    EXPECT_TRUE(totals.ok);
    EXPECT_EQ(totals.rx, probe.rx);
    EXPECT_EQ(totals.tx, probe.tx);
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(WgGetRxTxBytes, AsksOnceWithTheBareNameEachTime) {
  sim::Machine machine;
  ScriptOutput("key 1 2");
  Transfer();
  Transfer();
  ASSERT_EQ(sim::StartedProcesses().size(), 2U);
  EXPECT_EQ(sim::StartedProcesses()[0].commandLine,
            L"\"C:\\Program Files\\WireGuard\\wg.exe\" show telvor transfer");
}

TEST(WgGetRxTxBytes, FailsWithTotalsOfZeroAndALineWhenTheProbeCannotBeRun) {
  sim::Machine machine;
  ScriptRounds({{.starts = false}});
  const Totals totals = Transfer();
  EXPECT_FALSE(totals.ok);
  EXPECT_EQ(totals.rx, 0U);
  EXPECT_EQ(totals.tx, 0U);
  EXPECT_EQ(sim::LogLines(), (Lines{"WgGetRxTxBytes: failed to run wg.exe"}));
}

TEST(WgGetRxTxBytes, LogsAFailedProbeWithItsErrorTextAlone) {
  for (const bool withError : {true, false}) {
    sim::Machine machine;
    ScriptRounds(
        {{.exitCode = 1, .standardOutput = "key 1 2", .standardError = withError ? "no device" : ""}});
    const Totals totals = Transfer();
    EXPECT_FALSE(totals.ok);
    EXPECT_EQ(totals.rx, 0U);
    EXPECT_EQ(totals.tx, 0U);
    Lines expected = {"WgGetRxTxBytes: wg.exe exitCode=1"};
    if (withError) expected.push_back("WgGetRxTxBytes stderr: no device");
    EXPECT_EQ(sim::LogLines(), expected);
  }
}

TEST(WgProbes, RunAtTheSameTimeOnTwoThreads) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    sim::Machine machine({.seed = seed});
    sim::SetProcessHandler([](const std::wstring& commandLine) {
      const bool transfer = commandLine.find(L"transfer") != std::wstring::npos;
      return sim::ProcessResult{.standardOutput = transfer ? "key\t3\t4\n" : "key\t1767225600\n"};
    });
    bool seen = false, ended = false;
    sim::StartThread("worker", [&seen, &ended] {
      seen = WgHandshakeSeen(L"telvor");
      ended = true;
    });
    const Totals totals = Transfer();
    EXPECT_EQ(totals.rx, 3U);
    EXPECT_EQ(totals.tx, 4U);
    EXPECT_TRUE(sim::RunUntil([&ended] { return ended; }, 60000));
    EXPECT_TRUE(seen);
  }
}

}  // namespace
