#include "telvorctl/waiting.h"

#include <string>

#include "telvorctl/platform.h"
#include "telvorctl/terminal.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

constexpr uint32_t kPollPauseMs = 500;
constexpr uint32_t kStopPatienceSeconds = 15;

struct Wait {
  const char* progress;          // what is shown meanwhile
  const char* afterTimeout;      // ... begins the message
  bool (*isOver)(Reply& reply);  // looks at a poll's reply and may set its code and message
  uint32_t timeoutSeconds;
};

void Fail(Reply& reply, ExitCode code, std::string message) {
  reply.code = code;
  reply.message = std::move(message);
}

std::string LastError(const Reply& reply) {
  return TextMember(reply.result, "lastError");
}

std::string WithLastError(const std::string& text, const Reply& reply) {
  const std::string error = LastError(reply);
  return error.empty() ? text : text + ", last error: " + Explained(error);
}

// The service keeps the last error until something clears it, so an old one may speak of a login that has
// been made meanwhile: the account's state decides.
bool NeedsLogin(const std::string& lastError) {
  if (lastError == "SESSION_EXPIRED") return true;
  if (!SpeaksOfLogin(lastError)) return false;
  return TextMember(Ask("GET /ui/status").result, "auth_state") == "AUTH_REQUIRED";
}

bool IsConnectingOver(Reply& reply) {
  const std::string state = TextMember(reply.result, "state");
  if (state == "connected") return true;
  const std::string error = LastError(reply);
  if (state == "error") {
    const std::string reason =
        error.empty() ? "the service does not say why; see telvorctl logs" : Explained(error);
    Fail(reply, kFailed, "the connection failed: " + reason);
    return true;
  }
  // Shown between two attempts when the preparation has failed; the service goes on trying.
  if (state == "disconnected" && NeedsLogin(error)) {
    Fail(reply, kLoginNeeded, Explained(error));
    return true;
  }
  return false;
}

bool IsDisconnectingOver(Reply& reply) {
  return TextMember(reply.result, "state") == "disconnected";
}

bool IsStopOver(Reply& reply) {
  if (reply.code == kNotThere) reply = Reply();
  // While it stops, the service may still answer, or break a connection off.
  else if (reply.code != kInterrupted)
    return false;
  return true;
}

Reply WaitFor(const Wait& wait) {
  const uint64_t start = platform::GetTickCount64();
  Progress progress;
  Reply reply;
  for (;;) {
    reply = Ask("GetState");
    if (wait.isOver(reply)) break;
    const uint64_t seconds = (platform::GetTickCount64() - start) / 1000;
    if (seconds >= wait.timeoutSeconds) {
      Fail(reply, kTimedOut,
           WithLastError(std::string(wait.afterTimeout) + " after " + SpanText(wait.timeoutSeconds), reply));
      break;
    }
    ShowProgress(progress, WithLastError(wait.progress, reply), seconds);
    if (!platform::Sleep(kPollPauseMs)) {
      Fail(reply, kInterrupted, {});
      break;
    }
  }
  ClearProgress(progress);
  return reply;
}

// A poll that failed ends the wait.
template <bool (*isOver)(Reply&)>
bool FailedOr(Reply& reply) {
  return reply.code != kDone || isOver(reply);
}

}  // namespace

Reply WaitUntilConnected(uint32_t timeoutSeconds) {
  return WaitFor({"Connecting", "not connected", FailedOr<IsConnectingOver>, timeoutSeconds});
}

Reply WaitUntilDisconnected(uint32_t timeoutSeconds) {
  return WaitFor({"Disconnecting", "not disconnected", FailedOr<IsDisconnectingOver>, timeoutSeconds});
}

Reply WaitUntilStopped() {
  return WaitFor({"Stopping", "not stopped", IsStopOver, kStopPatienceSeconds});
}

}  // namespace telvorctl
