#include "telvorctl/service_client.h"

#include <algorithm>

#include "telvorctl/platform.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

constexpr wchar_t kPipe[] = L"\\\\.\\pipe\\telvor";
constexpr uint32_t kOpenPauseMs = 10;
// Longer than the server's pauses of 250 and 50 milliseconds between two instances.
constexpr uint64_t kAbsentPatienceMs = 1000;
constexpr uint64_t kBusyPatienceMs = 3000;
// Longer than the longest of the service's own waits behind one request.
constexpr uint32_t kReplyPatienceMs = 180000;
constexpr int kRequestId = 1;  // one request a connection: there is nothing to tell apart

struct OpenFailure {
  uint32_t error;
  ExitCode code;
  const char* message;
};

constexpr OpenFailure kOpenFailures[] = {
    {platform::kErrorFileNotFound, kNotThere,
     "the TELVOR service is not there. Start it from an elevated prompt: sc start TELVOR"},
    {platform::kErrorPipeBusy, kBusy,
     "the TELVOR service is busy: all of its sixteen connections are taken. Close other programs that watch "
     "it, or try again in a moment"},
    {platform::kErrorAccessDenied, kFailed,
     "the TELVOR service's pipe refuses access. Run this as a user who has logged on, not as a guest"},
};

constexpr char kAuthRequired[] = "AUTH_REQUIRED";

// How a text of the service begins, and what a person can do about it.
struct Explanation {
  const char* beginning;
  const char* text;
  bool login;  // the cause is that there is no usable session
};

constexpr Explanation kExplanations[] = {
    {kAuthRequired, "nobody is logged in; see telvorctl login", true},
    {"SESSION_EXPIRED", "the session has expired; see telvorctl login", true},
    {"IPC: no request", "the request did not arrive whole; the service may be stopping", false},
    {"auth required", "see telvorctl login", true},
    {"no session:", "nobody is logged in; see telvorctl login", true},
    {"session access token empty", "see telvorctl login", true},
    {"HANDSHAKE_TIMEOUT", "the VPN server does not answer; see telvorctl locations for another", false},
    {"login non-2xx: 401", "the email or the password is wrong", false},
    {"login ok but active WG key rotation failed", "the keys' folder may not be writable; see telvorctl logs",
     false},
};
constexpr char kUnreachableEnding[] = "transport failure";

uint64_t OpenPatience(uint32_t error) {
  switch (error) {
    case platform::kErrorFileNotFound:
      return kAbsentPatienceMs;
    case platform::kErrorPipeBusy:
      return kBusyPatienceMs;
    default:
      return 0;
  }
}

const Explanation* FindExplanation(const std::string& text) {
  const auto* const found =
      std::find_if(std::begin(kExplanations), std::end(kExplanations),
                   [&](const Explanation& row) { return text.starts_with(row.beginning); });
  return found == std::end(kExplanations) ? nullptr : found;
}

Reply Failure(ExitCode code, std::string message) {
  Reply reply;
  reply.code = code;
  reply.message = std::move(message);
  return reply;
}

Reply OpenFailureReply(uint32_t error) {
  for (const OpenFailure& failure : kOpenFailures) {
    if (failure.error == error) return Failure(failure.code, failure.message);
  }
  return Failure(kFailed,
                 "the TELVOR service's pipe cannot be opened: Windows error " + std::to_string(error));
}

Reply BrokenReply(const platform::PipeAnswer& answer) {
  if (answer.error == platform::kErrorOperationAborted) return Failure(kInterrupted, {});
  if (answer.error == platform::kErrorTimeout) {
    return Failure(kTimedOut, "the TELVOR service has not answered for " + SpanText(kReplyPatienceMs / 1000) +
                                  "; see telvorctl logs");
  }
  return Failure(kFailed, answer.reply.empty()
                              ? "the TELVOR service ended the connection without a reply; try again"
                              : "the TELVOR service's reply was cut off; try again");
}

platform::PipeAnswer ExchangePatiently(const std::string& line) {
  const uint64_t start = platform::GetTickCount64();
  for (;;) {
    platform::PipeAnswer answer = platform::ExchangeOnPipe(kPipe, line, kReplyPatienceMs);
    const uint64_t patience = OpenPatience(answer.openError);
    if (patience == 0 || platform::GetTickCount64() - start >= patience) return answer;
    if (!platform::Sleep(kOpenPauseMs)) {
      answer.openError = platform::kErrorSuccess;
      answer.error = platform::kErrorOperationAborted;
      return answer;
    }
  }
}

std::string Refusal(const std::string& text) {
  return text.empty() ? "the TELVOR service refused without a reason" : Explained(text);
}

}  // namespace

std::string RequestLine(const char* method, const Json& params) {
  Json request = {{"jsonrpc", "2.0"}, {"id", kRequestId}, {"method", method}};
  if (!params.empty()) request["params"] = params;
  // Written without blanks: the service knows a key by the colon right behind it.
  return request.dump();
}

Reply SendLine(const std::string& line) {
  const platform::PipeAnswer answer = ExchangePatiently(line + "\n");
  if (answer.openError != platform::kErrorSuccess) return OpenFailureReply(answer.openError);
  if (!answer.reply.ends_with('\n')) return BrokenReply(answer);
  Reply reply;
  reply.line = answer.reply.substr(0, answer.reply.size() - 1);
  return reply;
}

void ReadEnvelope(Reply& reply) {
  const Json envelope = Json::parse(RepairUtf8(reply.line), nullptr, false);
  if (!envelope.is_object() || !envelope.contains("result") || !envelope.contains("error")) {
    reply.code = kFailed;
    reply.message = "the TELVOR service's reply is no JSON of the expected shape; telvorctl request shows it";
    return;
  }
  reply.result = envelope["result"];
  const Json& error = envelope["error"];
  if (error.is_null()) return;
  reply.code = kFailed;
  reply.message = Refusal(TextMember(error, "message"));
}

Reply Ask(const char* method, const Json& params) {
  Reply reply = SendLine(RequestLine(method, params));
  if (reply.code == kDone) ReadEnvelope(reply);
  return reply;
}

Reply AskForTrue(const char* method, const Json& params) {
  Reply reply = Ask(method, params);
  if (reply.code == kDone && reply.result != true) {
    reply.code = kFailed;
    reply.message = Refusal({});
  }
  return reply;
}

Reply AskForOk(const char* method, const Json& params) {
  Reply reply = Ask(method, params);
  if (reply.code != kDone || TruthMember(reply.result, "ok")) return reply;
  reply.code = kFailed;
  reply.message = Refusal(TextMember(reply.result, "message"));
  return reply;
}

Reply AskWithSession(const char* method) {
  Reply reply = AskForOk(method);
  const bool noSession = TextMember(reply.result, "status") == kAuthRequired ||
                         SpeaksOfLogin(TextMember(reply.result, "message"));
  if (reply.code == kFailed && noSession) reply.code = kLoginNeeded;
  return reply;
}

Reply LookForSession() {
  // Of the methods that need a session the one that says by a member of its own that there is none.
  Reply reply = AskWithSession("GET /ui/entitlement");
  if (TextMember(reply.result, "message").ends_with(kUnreachableEnding)) reply.code = kFailed;
  return reply;
}

std::string Explained(const std::string& text) {
  if (const Explanation* explanation = FindExplanation(text)) return text + " (" + explanation->text + ")";
  if (text.ends_with(kUnreachableEnding)) {
    return text + " (the control plane cannot be reached, or it refused)";
  }
  return text;
}

bool SpeaksOfLogin(const std::string& text) {
  const Explanation* const explanation = FindExplanation(text);
  return explanation != nullptr && explanation->login;
}

}  // namespace telvorctl
