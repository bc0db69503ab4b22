#include "telvorctl/log_commands.h"

#include <algorithm>

#include "telvorctl/conclusion.h"
#include "telvorctl/platform.h"
#include "telvorctl/service_client.h"
#include "telvorctl/terminal.h"

namespace telvorctl {

namespace {

constexpr uint32_t kFollowPauseMs = 1000;
// What the service says, with its id, when it cannot read its log; this is no JSON.
constexpr char kNoLog[] = R"({"jsonrpc":"2.0","id":1,"result":,"error":null})";

Reply AskForLog(const Options& options, uint32_t lines) {
  Json params = Json::object();
  if (lines > 0) params["limit"] = lines;
  Reply reply = Ask(options.recent ? "GetRecentLogs" : "GET /ui/logs", params);
  if (reply.line == kNoLog) reply.message = "the service has no log, or cannot read it";
  return reply;
}

std::vector<std::string> LinesOf(const Reply& reply) {
  std::vector<std::string> lines;
  for (const Json& entry : reply.result) lines.push_back(TextMember(entry, "msg"));
  return lines;
}

// False if nobody reads them any more.
bool SayLines(const Options& options, const std::vector<std::string>& lines, size_t first) {
  for (size_t i = first; i < lines.size(); ++i) {
    if (!(options.json ? SayJson(lines[i]) : Say(lines[i]))) return false;
  }
  return true;
}

struct Following {
  std::vector<std::string> seen;
  bool away = false;  // told that the service does not answer
};

// One poll's reply: the new lines, or once a word that there is nothing to hear. False as for SayLines.
bool TakePoll(const Options& options, const Reply& reply, Following& following) {
  if (reply.code != kDone) {
    if (!following.away) Complain(reply.message + "; waiting for it");
    following.away = true;
    return true;
  }
  if (following.away) Complain("the service answers again");
  following.away = false;
  std::vector<std::string> lines = LinesOf(reply);
  const size_t first = FirstNewLine(following.seen, lines);
  if (first == 0 && !following.seen.empty() && !lines.empty()) Complain("some lines may be missing here");
  const bool said = SayLines(options, lines, first);
  following.seen = std::move(lines);
  return said;
}

ExitCode Follow(const Options& options, Following following) {
  for (;;) {
    if (!platform::Sleep(kFollowPauseMs)) return kInterrupted;
    const Reply reply = AskForLog(options, kMostLogLines);
    if (reply.code == kInterrupted) return kInterrupted;
    if (!TakePoll(options, reply, following)) return kDone;
  }
}

// The end of the log first; the rest is asked for in full, so that what comes meanwhile is not missed.
ExitCode FollowFromEnd(const Options& options) {
  constexpr size_t kLinesUnlessTold = 10;
  const Reply reply = AskForLog(options, kMostLogLines);
  if (reply.code != kDone) return Conclude(reply);
  Following following{LinesOf(reply), false};
  const size_t wanted = options.lines > 0 ? options.lines : kLinesUnlessTold;
  const size_t first = following.seen.size() - std::min(wanted, following.seen.size());
  if (!SayLines(options, following.seen, first)) return kDone;
  return Follow(options, std::move(following));
}

}  // namespace

size_t FirstNewLine(const std::vector<std::string>& earlier, const std::vector<std::string>& later) {
  for (size_t common = std::min(earlier.size(), later.size()); common > 0; --common) {
    const auto end = later.begin() + static_cast<std::ptrdiff_t>(common);
    if (std::equal(later.begin(), end, earlier.end() - static_cast<std::ptrdiff_t>(common))) return common;
  }
  return 0;
}

ExitCode ShowLogs(const Options& options) {
  if (options.follow) return FollowFromEnd(options);
  const Reply reply = AskForLog(options, options.lines);
  return Finish(options, reply, LinesOf(reply));
}

}  // namespace telvorctl
