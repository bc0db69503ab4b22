#include "telvorctl/waiting.h"

#include <algorithm>
#include <string>
#include <utility>

#include "telvorctl/machine.h"
#include "telvorctl/platform.h"
#include "telvorctl/terminal.h"
#include "telvorctl/text.h"
#include "telvorctl/wireguard_files.h"

namespace telvorctl {

namespace {

constexpr uint32_t kPollPauseMs = 500;
constexpr uint32_t kStopPatienceSeconds = 15;
// For so long an attempt that is broken off may still bring the tunnel up for a moment.
constexpr uint64_t kSettlingMs = 2500;
constexpr uint64_t kPatienceSeconds = 5;  // until a wait for the tunnel says what may be the matter
constexpr char kUnexplained[] = "the service does not say why; see telvorctl logs";
constexpr char kNothingSeen[] =
    "nothing yet: the control plane may be slow, or the service sits out the pause (up to 30 seconds) after "
    "a failed attempt, also an earlier one; see telvorctl logs";
constexpr char kFailureSeen[] =
    "nothing yet; an attempt has failed, the service goes on trying; see telvorctl logs";

// What a wait has seen so far.
struct Memory {
  std::string earlierError;    // of before what was asked for, as long as no other text was seen
  const char* hint = nullptr;  // what to say when patience runs out; null: nothing, or it was said
  std::string state;           // empty before the first look
  std::string trouble;         // of the session, where the last error but seems to ask for a login
  uint64_t since = 0;          // the tick of the first look at `state`
  uint64_t settlingMs = 0;     // how long the tunnel must be down to stay so
};

struct Wait {
  const char* progress;                          // what is shown meanwhile
  const char* afterTimeout;                      // ... begins the message
  bool (*isOver)(Reply& reply, Memory& memory);  // looks at a poll's reply, may set its code and message
  uint32_t timeoutSeconds;
};

void Fail(Reply& reply, ExitCode code, std::string message) {
  reply.code = code;
  reply.message = std::move(message);
}

std::string LastError(const Reply& reply) {
  return TextMember(reply.result, "lastError");
}

std::string WithError(const std::string& text, const Reply& reply, const Memory& memory) {
  if (!memory.trouble.empty()) return text + ", last error: " + memory.trouble;
  const std::string error = LastError(reply);
  if (error.empty()) return text;
  return text + (error == memory.earlierError ? ", earlier error: " : ", last error: ") + Explained(error);
}

// What the machine lacks for a tunnel, for a person; empty if nothing is known to be missing.
std::string MissingText() {
  struct Program {
    const char* name;
    const char* without;
  };
  constexpr Program kPrograms[] = {{kWireGuardProgram, "WireGuard is not installed"},
                                   {kWgProgram, "WireGuard is damaged"}};
  for (const Program& program : kPrograms) {
    const std::string path = std::string(kWireGuardFolder) + program.name;
    const uint32_t error = platform::ReadFileEnd(path, 0).error;
    if (error == platform::kErrorFileNotFound || error == platform::kErrorPathNotFound)
      return std::string(program.without) + ": there is no " + path;
  }
  return {};
}

std::string ReasonOfFailure(const std::string& error) {
  const std::string missing = MissingText();
  if (!missing.empty()) return missing;
  // For want of a login the service shows another state: such a text is of before.
  return error.empty() || SpeaksOfLogin(error) ? kUnexplained : Explained(error);
}

// The service keeps the last error until something clears it, so it may speak of a login that has been made
// meanwhile. Nor does its own word for the account decide: a token that it remembers counts there, but an
// attempt needs the session's file.
bool NeedsLogin(Memory& memory) {
  const Reply session = LookForSession();
  const bool isUsable = TextMember(session.result, "status") != "AUTH_REQUIRED";
  memory.trouble = isUsable ? std::string() : session.message;
  return session.code == kLoginNeeded;
}

bool IsConnectingOver(Reply& reply, Memory& memory) {
  const std::string state = TextMember(reply.result, "state");
  const std::string error = LastError(reply);
  if (error != memory.earlierError) memory.earlierError.clear();
  if (state == "connected") return true;
  if (state == "error") {
    Fail(reply, kFailed, "the connection failed: " + ReasonOfFailure(error));
    return true;
  }
  // Shown between two attempts when the preparation has failed; the service goes on trying.
  const bool isBetweenAttempts = state == "disconnected";
  if (isBetweenAttempts && memory.hint != nullptr) memory.hint = kFailureSeen;
  const std::string before = std::exchange(memory.state, state);
  if (!SpeaksOfLogin(error)) {
    memory.trouble.clear();
    return false;
  }
  const bool isTimeToLook = before.empty() || (isBetweenAttempts && before != state);
  if (!isTimeToLook || !NeedsLogin(memory)) return false;
  Fail(reply, kLoginNeeded, Explained(error));
  return true;
}

bool IsDisconnectingOver(Reply& reply, Memory& memory) {
  const std::string state = TextMember(reply.result, "state");
  const uint64_t tick = platform::GetTickCount64();
  if (std::exchange(memory.state, state) != state) memory.since = tick;
  return state == "disconnected" && tick - memory.since >= memory.settlingMs;
}

bool IsStopOver(Reply& reply, Memory& /*memory*/) {
  if (reply.code == kNotThere) reply = Reply();
  // While it stops, the service may still answer, or break a connection off.
  else if (reply.code != kInterrupted)
    return false;
  return true;
}

void HintOnce(Memory& memory, Progress& progress, uint64_t seconds) {
  if (memory.hint == nullptr || seconds < kPatienceSeconds) return;
  ComplainAbove(progress, memory.hint);
  memory.hint = nullptr;
}

Reply WaitFor(const Wait& wait, Memory memory = {}) {
  const uint64_t start = platform::GetTickCount64();
  Progress progress;
  Reply reply;
  for (;;) {
    reply = Ask("GetState");
    if (wait.isOver(reply, memory)) break;
    const uint64_t seconds = (platform::GetTickCount64() - start) / 1000;
    if (seconds >= wait.timeoutSeconds) {
      Fail(reply, kTimedOut,
           WithError(std::string(wait.afterTimeout) + " after " + SpanText(wait.timeoutSeconds), reply,
                     memory));
      break;
    }
    HintOnce(memory, progress, seconds);
    ShowProgress(progress, WithError(wait.progress, reply, memory), seconds);
    if (!platform::Sleep(kPollPauseMs)) {
      Fail(reply, kInterrupted, {});
      break;
    }
  }
  ClearProgress(progress);
  return reply;
}

// A poll that failed ends the wait.
template <bool (*isOver)(Reply&, Memory&)>
bool FailedOr(Reply& reply, Memory& memory) {
  return reply.code != kDone || isOver(reply, memory);
}

}  // namespace

Reply WaitUntilConnected(const Reply& before, uint32_t timeoutSeconds) {
  Memory memory;
  memory.earlierError = LastError(before);
  memory.hint = kNothingSeen;
  return WaitFor({"Connecting", "not connected", FailedOr<IsConnectingOver>, timeoutSeconds},
                 std::move(memory));
}

Reply WaitUntilDisconnected(const Reply& before, uint32_t timeoutSeconds) {
  const std::string state = TextMember(before.result, "state");
  Memory memory;
  if (state == "connecting" || state == "error")
    memory.settlingMs = std::min(kSettlingMs, uint64_t{timeoutSeconds} * 1000);
  return WaitFor({"Disconnecting", "not disconnected", FailedOr<IsDisconnectingOver>, timeoutSeconds},
                 std::move(memory));
}

Reply WaitUntilStopped() {
  return WaitFor({"Stopping", "not stopped", IsStopOver, kStopPatienceSeconds});
}

}  // namespace telvorctl
