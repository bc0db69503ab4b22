// logs, and following them.
#include "telvorctl/log_commands.h"

#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::FirstNewLine;
using telvorctl::platform::kErrorFileNotFound;

const std::string kLogs = R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/logs"})";
const std::string kAllLogs = R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/logs","params":{"limit":2000}})";

std::string Log(const std::vector<std::string>& lines) {
  std::string text = "[";
  for (const std::string& line : lines) {
    text += (text.size() > 1 ? "," : "") + (R"({"ts":"","level":"INFO","msg":")" + line + "\"}");
  }
  return text + "]";
}

TEST_F(Telvorctl, LogsAreLines) {
  Result(kLogs, Log({"[2026-01-02 03:04:05] one", "", R"(a \"quoted\"\ttab)"}));
  EXPECT_EQ(Run({"logs"}), 0);
  EXPECT_EQ(gScript.output, "[2026-01-02 03:04:05] one\n\na \"quoted\" tab\n");
}

TEST_F(Telvorctl, LogsAskForSoManyLines) {
  Result(R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/logs","params":{"limit":5}})", Log({"x"}));
  EXPECT_EQ(Run({"logs", "-n", "5"}), 0);
  Result(R"({"jsonrpc":"2.0","id":1,"method":"GetRecentLogs"})", Log({"y"}));
  EXPECT_EQ(Run({"logs", "--recent"}), 0);
  EXPECT_EQ(gScript.output, "x\ny\n");
}

TEST_F(Telvorctl, LogsForScripts) {
  Result(kLogs, Log({"x"}));
  EXPECT_EQ(Run({"logs", "--json"}), 0);
  EXPECT_EQ(gScript.output, Log({"x"}) + "\n");
}

TEST_F(Telvorctl, LogsOfTwoEncodings) {
  Result(kLogs, Log({"caf\xE9 café"}));
  EXPECT_EQ(Run({"logs"}), 0);
  EXPECT_EQ(gScript.output, "caf\uFFFD café\n");
}

TEST_F(Telvorctl, LogsThatCannotBeRead) {
  Result(kLogs, "");
  EXPECT_EQ(Run({"logs"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: the service has no log, or cannot read it\n");
}

TEST_F(Telvorctl, FollowShowsTheEndAndThenWhatIsNew) {
  std::vector<std::string> lines;
  for (int i = 1; i <= 12; ++i) lines.push_back(std::to_string(i));
  Result(kAllLogs, Log(lines));
  Result(kAllLogs, Log(lines));
  lines.push_back("13");
  lines.push_back("14");
  Result(kAllLogs, Log(lines));
  InterruptInPause(3);
  EXPECT_EQ(Run({"logs", "-f"}), 130);
  EXPECT_EQ(gScript.output, "3\n4\n5\n6\n7\n8\n9\n10\n11\n12\n13\n14\n");
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(Telvorctl, FollowOutlivesTheService) {
  Result(kAllLogs, Log({"a", "b"}));
  Refusal(kAllLogs, "IPC: no request");
  CannotOpen(kAllLogs, kErrorFileNotFound);
  Result(kAllLogs, Log({"a", "b", "c"}));
  InterruptInPause(4);  // one of them is that of opening again
  EXPECT_EQ(Run({"logs", "--follow", "-n", "1"}), 130);
  EXPECT_EQ(gScript.output, "b\nc\n");
  EXPECT_EQ(gScript.errors,
            "telvorctl: IPC: no request (the request did not arrive whole; the service may be stopping); "
            "waiting for it\ntelvorctl: the service answers again\n");
}

TEST_F(Telvorctl, FollowTellsOnceThatTheServiceIsAway) {
  Result(kAllLogs, Log({"a"}));
  Refusal(kAllLogs, "one");
  Refusal(kAllLogs, "two");
  InterruptInPause(3);
  EXPECT_EQ(Run({"logs", "-f"}), 130);
  EXPECT_EQ(gScript.errors, "telvorctl: one; waiting for it\n");
}

TEST_F(Telvorctl, FollowTellsOfAGap) {
  Result(kAllLogs, Log({"a"}));
  Result(kAllLogs, Log({"x", "y"}));
  InterruptInPause(2);
  EXPECT_EQ(Run({"logs", "-f", "--json"}), 130);
  EXPECT_EQ(gScript.output, "\"a\"\n\"x\"\n\"y\"\n");
  EXPECT_EQ(gScript.errors, "telvorctl: some lines may be missing here\n");
}

TEST_F(Telvorctl, FollowEndsWhenNobodyReadsItAnyMore) {
  gScript.writesUntilOutputCloses = 1;
  Result(kAllLogs, Log({"a", "b"}));
  EXPECT_EQ(Run({"logs", "-f"}), 0);
  gScript.writesUntilOutputCloses = 2;
  Result(kAllLogs, Log({"a", "b"}));
  Result(kAllLogs, Log({"a", "b", "c"}));
  EXPECT_EQ(Run({"logs", "-f", "--json"}), 0);
  EXPECT_EQ(gScript.output, "a\n\"a\"\n\"b\"\n");
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(Telvorctl, FollowNeedsAServiceToBeginWith) {
  CannotOpen(kAllLogs, kErrorFileNotFound, true);
  EXPECT_EQ(Run({"logs", "-f"}), 3);
}

TEST(FirstNewLine, IsFoundBehindWhatBothHave) {
  EXPECT_EQ(FirstNewLine({"a", "b"}, {"a", "b", "c"}), 2u);
  EXPECT_EQ(FirstNewLine({"a", "b", "c"}, {"b", "c", "d"}), 2u);  // the oldest fell out of the view
  EXPECT_EQ(FirstNewLine({"a", "a"}, {"a", "a", "a"}), 2u);
  EXPECT_EQ(FirstNewLine({"a"}, {"b"}), 0u);
  EXPECT_EQ(FirstNewLine({}, {"a"}), 0u);
  EXPECT_EQ(FirstNewLine({"a"}, {}), 0u);
}

}  // namespace
