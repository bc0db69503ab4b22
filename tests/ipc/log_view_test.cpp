// The log array of GetRecentLogs and GET /ui/logs.
#include <gtest/gtest.h>

#include "ipc/views.h"
#include "service/log.h"
#include "tests/ipc/ipc_fixture.h"

namespace {

using namespace ipc_test;

constexpr wchar_t kLogFile[] = L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log";

std::string Entries(const Lines& messages) {
  std::string text = "[";
  for (const std::string& message : messages) {
    if (text.size() > 1) text += ",";
    text += R"({"ts":"","level":"INFO","msg":")" + message + "\"}";
  }
  return text + "]";
}

// "line <from>" up to "line <to>".
Lines Numbered(int from, int to) {
  Lines lines;
  for (int n = from; n <= to; ++n) lines.push_back("line " + std::to_string(n));
  return lines;
}

void PutLog(const Lines& lines) {
  std::string bytes;
  for (const std::string& line : lines) bytes += line + "\r\n";
  sim::PutFile(kLogFile, bytes);
}

TEST(BuildRecentLogsJson, GivesTheLastLinesOldestFirst) {
  sim::Machine machine;
  PutLog({"[2026-01-01 00:00:00] one", "two", "three"});
  EXPECT_EQ(BuildRecentLogsJson(2),
            R"([{"ts":"","level":"INFO","msg":"two"},{"ts":"","level":"INFO","msg":"three"}])");
  EXPECT_EQ(BuildRecentLogsJson(3), Entries({"[2026-01-01 00:00:00] one", "two", "three"}));
  EXPECT_EQ(BuildRecentLogsJson(4), Entries({"[2026-01-01 00:00:00] one", "two", "three"}));
}

TEST(BuildRecentLogsJson, ClampsTheLimit) {
  sim::Machine machine;
  PutLog(Numbered(1, 2500));
  for (const int32_t limit : {1, 0, -1, INT32_MIN}) {
    EXPECT_EQ(BuildRecentLogsJson(limit), Entries({"line 2500"})) << limit;
  }
  for (const int32_t limit : {2000, 2001, 5000, INT32_MAX}) {
    EXPECT_EQ(BuildRecentLogsJson(limit), Entries(Numbered(501, 2500))) << limit;
  }
}

TEST(BuildRecentLogsJson, GoesPastTheRoomOfItsList) {
  sim::Machine machine;
  PutLog(Numbered(1, 5000));
  EXPECT_EQ(BuildRecentLogsJson(3), Entries(Numbered(4998, 5000)));
}

TEST(BuildRecentLogsJson, SplitsAtLineFeedsAndDropsOneCarriageReturn) {
  const struct {
    std::string bytes;
    Lines messages;
  } rows[] = {{"", {}},
              {"\n", {""}},
              {"\r\n", {""}},
              {"a", {"a"}},
              {"a\r", {"a"}},
              {"a\nb", {"a", "b"}},
              {"a\n\r\n\nb\n", {"a", "", "", "b"}},
              {"a\n\n", {"a", ""}},
              {"a\r\r\nb\rc\r\n", {"a\\r", "b\\rc"}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bytes);
    sim::Machine machine;
    sim::PutFile(kLogFile, row.bytes);
    EXPECT_EQ(BuildRecentLogsJson(2000), Entries(row.messages));
  }
}

TEST(BuildRecentLogsJson, EscapesEachLineAndPassesHighBytes) {
  sim::Machine machine;
  sim::PutFile(kLogFile, "say \"no\"\ta\\b\x01\r\nlatin \xE9 utf-8 \xC3\xA9\r\n");
  EXPECT_EQ(BuildRecentLogsJson(2), Entries({R"(say \"no\"\ta\\b\u0001)", "latin \xE9 utf-8 \xC3\xA9"}));
}

TEST(BuildRecentLogsJson, IsEmptyWhenTheLogCannotBeRead) {
  sim::Machine machine;
  EXPECT_EQ(BuildRecentLogsJson(10), "");
  PutLog({"one"});
  sim::HoldFile(kLogFile);
  EXPECT_EQ(BuildRecentLogsJson(10), "");
}

TEST(BuildRecentLogsJson, ReadsTheLogWhereTheServiceWritesIt) {
  sim::Machine machine;
  sim::SetEnvironment(L"ProgramData", std::nullopt);
  sim::PutFile(L"C:\\windows\\vpnservice.log", "elsewhere\r\n");
  EXPECT_EQ(BuildRecentLogsJson(10), Entries({"elsewhere"}));
}

TEST(LogMethods, DifferInTheirDefaultLimitAlone) {
  sim::Machine machine;
  WireSubsystems();
  PutLog(Numbered(1, 300));
  EXPECT_EQ(Call("GetRecentLogs"), ResultText(Entries(Numbered(181, 300))));
  EXPECT_EQ(Call("GET /ui/logs"), ResultText(Entries(Numbered(101, 300))));
  for (const std::string method : {"GetRecentLogs", "GET /ui/logs"}) {
    SCOPED_TRACE(method);
    EXPECT_EQ(ReplyTo(R"({"id":7,"method":")" + method + R"(","params":{"limit":2}})"),
              ResultText(Entries(Numbered(299, 300))));
    EXPECT_EQ(ReplyTo(R"({"id":7,"limit":-4,"method":")" + method + "\"}"),
              ResultText(Entries({"line 300"})));
  }
}

TEST(LogMethods, KeepTheirDefaultForALimitThatIsNoNumber) {
  sim::Machine machine;
  WireSubsystems();
  PutLog(Numbered(1, 300));
  EXPECT_EQ(ReplyTo(R"({"id":7,"method":"GetRecentLogs","limit":"5"})"),
            ResultText(Entries(Numbered(181, 300))));
}

TEST(LogMethods, AnswerWithAnEmptyArrayForAnEmptyLog) {
  sim::Machine machine;
  WireSubsystems();
  sim::PutFile(kLogFile, "");
  EXPECT_EQ(Call("GetRecentLogs"), R"({"jsonrpc":"2.0","id":7,"result":[],"error":null})");
}

// Wanted as it is, though it is no JSON.
TEST(LogMethods, AnswerWithNothingForALogThatCannotBeRead) {
  sim::Machine machine;
  WireSubsystems();
  for (const std::string method : {"GetRecentLogs", "GET /ui/logs"}) {
    EXPECT_EQ(Call(method), R"({"jsonrpc":"2.0","id":7,"result":,"error":null})");
  }
}

TEST(LogMethods, LogNothingThemselves) {
  sim::Machine machine;
  WireSubsystems();
  LogLine(L"a line");
  Call("GetRecentLogs");
  EXPECT_EQ(sim::LogLines(), Lines{"a line"});
}

}  // namespace
