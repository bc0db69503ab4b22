#include "telvorctl/tunnel_commands.h"

#include <string>
#include <vector>

#include "telvorctl/conclusion.h"
#include "telvorctl/platform.h"
#include "telvorctl/rendering.h"
#include "telvorctl/service_client.h"
#include "telvorctl/terminal.h"
#include "telvorctl/text.h"
#include "telvorctl/waiting.h"

namespace telvorctl {

namespace {

ExitCode ShowBriefStatus(const Options& options) {
  const Reply state = Ask("GetState");
  return Finish(options, state, {BriefState(state.result)});
}

// The service does not tell where the tunnel leads, only what was chosen.
std::string ConnectedText() {
  const std::string chosen = ChosenServerText(Ask("GET /ui/status").result);
  return chosen.empty() ? "Connected." : "Connected. Chosen location: " + chosen + ".";
}

// As Finish, for the reply that ended a wait. What the service was asked for stands also when the wait has
// failed: `goesOn` tells of it, unless there is no service any more.
ExitCode FinishWait(const Options& options, const Reply& last, const std::string& line, const char* goesOn) {
  const ExitCode code = Finish(options, last, {line});
  if (code != kDone && code != kNotThere) Complain(goesOn);
  return code;
}

// The status for which the service was last seen to find its session.
struct SeenSession {
  std::string tunnel;
  std::string error;
};

// A token that the service remembers counts as a login also when an attempt cannot use it, and a last error
// may be older than the login: where the two contradict each other, what needs the session decides.
void SettleAccount(Json& status, SeenSession& seen) {
  const SeenSession now = {TextMember(status, "tunnel_status"), TextMember(status, "last_error")};
  if (!SpeaksOfLogin(now.error) || TextMember(status, "auth_state") != "AUTH_OK") return;
  if (now.tunnel == seen.tunnel && now.error == seen.error) return;
  if (LookForSession().code == kLoginNeeded)
    status["auth_state"] = "AUTH_REQUIRED";
  else
    seen = now;
}

std::vector<std::string> WatchedLines(const Options& options, const Reply& status, TrafficSample& earlier) {
  std::vector<std::string> lines = {"TELVOR, looked at every " + SpanText(options.intervalSeconds) +
                                    "; Ctrl+C ends"};
  if (status.code != kDone) {
    earlier = TrafficSample();
    lines.push_back(status.message);
    return lines;
  }
  const uint64_t tick = platform::GetTickCount64();
  for (std::string& line : StatusLines(status.result, earlier, tick)) lines.push_back(std::move(line));
  earlier = {NumberMember(status.result, "rx_bytes"), NumberMember(status.result, "tx_bytes"), tick};
  return lines;
}

// Drawn over what was there before, so that nothing flickers.
bool DrawFrame(const std::vector<std::string>& lines) {
  const size_t width = platform::TerminalWidth(platform::Stream::kOutput);
  const size_t room = width > 1 ? width - 1 : 1;
  platform::MoveCursorHome();
  for (const std::string& line : lines) {
    for (const std::string& piece : WrapColumns(Showable(line), room)) {
      if (!platform::Write(platform::Stream::kOutput, FitColumns(piece, room, true) + "\n")) return false;
    }
  }
  platform::ClearBelowCursor();
  return true;
}

// False if nobody reads what is written any more.
bool ShowFrame(const Options& options, const Reply& status, TrafficSample& earlier) {
  if (options.json) {
    Conclude(status);
    return status.result.is_null() || SayJson(status.result);
  }
  std::vector<std::string> lines = WatchedLines(options, status, earlier);
  if (platform::IsTerminal(platform::Stream::kOutput)) return DrawFrame(lines);
  lines.emplace_back();
  return SayAll(lines);
}

}  // namespace

ExitCode ShowStatus(const Options& options) {
  if (options.brief) return ShowBriefStatus(options);
  Reply status = Ask("GET /ui/status");
  if (status.code != kDone || options.json) return Finish(options, status, {});
  SeenSession seen;
  SettleAccount(status.result, seen);
  const Reply state = Ask("GetState");
  if (state.code != kDone) return Conclude(state);
  SayAll(StatusLines(status.result));
  SayAll(DeviceLines(state.result));
  return kDone;
}

ExitCode WatchStatus(const Options& options) {
  TrafficSample earlier;
  SeenSession seen;
  // The first frame clears what was on the screen.
  if (!options.json && platform::IsTerminal(platform::Stream::kOutput)) {
    platform::MoveCursorHome();
    platform::ClearBelowCursor();
  }
  for (;;) {
    Reply status = Ask("GET /ui/status");
    if (status.code == kInterrupted) return kInterrupted;
    if (!options.json) SettleAccount(status.result, seen);
    if (!ShowFrame(options, status, earlier)) return kDone;
    if (!platform::Sleep(options.intervalSeconds * 1000)) return kInterrupted;
  }
}

ExitCode Connect(const Options& options) {
  const Reply before = options.noWait ? Reply() : Ask("GetState");
  if (before.code != kDone) return Conclude(before);
  const Reply reply = AskForTrue("Connect");
  if (reply.code != kDone || options.noWait)
    return Finish(options, reply, {"The service was asked to connect."});
  const Reply last = WaitUntilConnected(before, options.timeoutSeconds);
  return FinishWait(options, last, last.code == kDone && !options.json ? ConnectedText() : "",
                    // Some failures park the service, others it tries to overcome.
                    last.code == kFailed ? "the service may go on connecting; telvorctl disconnect ends it"
                                         : "the service goes on connecting; telvorctl disconnect ends it");
}

ExitCode Disconnect(const Options& options) {
  const Reply before = options.noWait ? Reply() : Ask("GetState");
  if (before.code != kDone) return Conclude(before);
  const Reply reply = AskForTrue("Disconnect");
  if (reply.code != kDone || options.noWait) {
    return Finish(options, reply, {"The service was asked to disconnect."});
  }
  return FinishWait(options, WaitUntilDisconnected(before, options.timeoutSeconds), "Disconnected.",
                    "the service goes on disconnecting");
}

ExitCode StopService(const Options& options) {
  constexpr char kStopped[] = "The service has stopped.";
  Reply reply = Ask("StopService");
  const bool broken = reply.code == kFailed && reply.line.empty();
  if (reply.code != kDone && !broken) return Conclude(reply);
  if (broken) {
    // The process ends so soon that its reply may be lost with it.
    reply = WaitUntilStopped();
    if (reply.code == kDone) reply.result = true;
    return FinishWait(options, reply, kStopped, "the service may go on stopping");
  }
  if (reply.result != true) {
    reply.code = kFailed;
    reply.message = "the service was told to stop, but had not stopped after 8 seconds; see sc query TELVOR";
  }
  return Finish(options, reply, {kStopped});
}

ExitCode SendRequest(const Options& options) {
  if (options.line.find_first_of("\r\n") != std::string::npos) {
    Complain("a request is one line");
    return kWrongUsage;
  }
  Reply reply = SendLine(options.line);
  if (reply.code != kDone) return Conclude(reply);
  Say(reply.line);
  ReadEnvelope(reply);
  return reply.code;
}

}  // namespace telvorctl
