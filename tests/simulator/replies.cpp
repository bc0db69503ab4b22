#include "replies.h"

#include <array>
#include <sstream>

#include "sim/kernel.h"

namespace simulator {
namespace {

constexpr char kState[] = R"({"deviceId":*,"wgPublicKey":*,)"
                          R"("state":"*","protocol":"WireGuard","rxBytes":*,"txBytes":*,"lastError":*})";
constexpr char kStatus[] =
    R"({"auth_state":"AUTH_*","last_error":*,"tunnel_status":"*","protocol":"WireGuard","rx_bytes":*,)"
    R"("tx_bytes":*,"public_ip":*,"selected_server_id":*,"selected_server":*})";
// The form without brackets is what a log that cannot be read gives.
constexpr char kLogs[] = "[]\n[{\"ts\":\"\",\"level\":\"INFO\",\"msg\":\"*\"}]\n";
constexpr char kLogin[] = R"({"ok":true,"auth_state":"AUTH_OK","message":"registered"})"
                          "\n"
                          R"({"ok":false,"message":"*"})"
                          "\n"
                          R"({"ok":false,"auth_state":"AUTH_REQUIRED","message":"save session failed"})";
constexpr char kLogout[] = R"({"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"})";
constexpr char kEntitlement[] =
    R"({"ok":true,"payment_current":*,"status":"*","period_end":*})"
    "\n"
    R"({"ok":false,"payment_current":false,"status":"ERROR","message":"*"})"
    "\n"
    R"({"ok":false,"payment_current":false,"status":"AUTH_REQUIRED","message":"*"})";
constexpr char kQuota[] = R"({"ok":true,"quota_current":*})"
                          "\n"
                          R"({"ok":false,"quota_current":false,"message":"*"})";
constexpr char kCheckout[] = R"({"ok":true,"checkout_url":"*","message":"ok"})"
                             "\n"
                             R"({"ok":false,"checkout_url":null,"message":"*"})";
constexpr char kAccountPage[] = R"({"ok":true,"account_url":"*/account?access_token=*","message":"ok"})"
                                "\n"
                                R"({"ok":false,"account_url":null,"message":"*"})";
constexpr char kResetStart[] =
    R"({"ok":true,"request_id":"*","masked_email":"*","expires_in_seconds":*,"message":"ok"})"
    "\n"
    R"({"ok":false,"request_id":null,"masked_email":null,"expires_in_seconds":0,"message":"*"})";
constexpr char kResetConfirm[] = R"({"ok":true,"message":"password reset complete"})"
                                 "\n"
                                 R"({"ok":false,"message":"*"})";
constexpr char kLocations[] = R"({"servers":[*],"selected_server_id":*})";
constexpr char kAccount[] = R"("email":"user@example.com","password":"Secret-pass-1")";
// A form that begins so is the text of the error; the result is null.
constexpr char kError[] = "!";

constexpr std::array<Question, kQuestionCount> kQuestions{{
    {"Connect", "", "true"},
    {"Disconnect", "", "true"},
    {"POST /ui/login", kAccount, kLogin},
    {"GetState", "", kState},
    {"GET /ui/status", "", kStatus},
    {"POST /ui/select-location", R"("server_id":"srv-b")", "true"},
    {"POST /ui/select-location", R"("server_id":"srv-a")", "true"},
    {"GET /ui/locations", "", kLocations},
    {"POST /ui/logout", "", kLogout},
    {"StopService", "", "true\nfalse"},
    {"GET /ui/logs", R"("limit":50)", kLogs},
    {"GetRecentLogs", "", kLogs},
    {"GET /ui/account-page-url", "", kAccountPage},
    {"GET /ui/entitlement", "", kEntitlement},
    {"GET /ui/quota", "", kQuota},
    {"POST /ui/billing/checkout", "", kCheckout},
    {"POST /ui/register", kAccount, kLogin},
    {"GET /ui/is-registered", R"("email":"user@example.com")",
     R"({"email":"user@example.com","registered":*})"},
    {"POST /ui/password-reset/start", R"("email":"user@example.com")", kResetStart},
    {"POST /ui/password-reset/confirm",
     R"("email":"user@example.com","request_id":"r-1","code":"123456","new_password":"Other-pass-2")",
     kResetConfirm},
    {"POST /ui/login", R"("email":"user@example.com","password":"Wrong-pass-3")", kLogin},
    {"POST /ui/login", R"("email":"user@example.com")", "!missing email/password"},
    {"POST /ui/select-location", R"("server_id":"")", "!missing server_id"},
    {"POST /ui/select-location", R"("server_id":"no-such-server")", "true"},
    {"getstate", "", "!IPC: unknown method"},
    {"GetState ", "", "!IPC: unknown method"},
}};

constexpr char kNoRequest[] =
    R"({"jsonrpc":"2.0","id":0,"result":null,"error":{"message":"IPC: no request"}})"
    "\n";
constexpr char kMissingMethod[] =
    R"({"jsonrpc":"2.0","id":*,"result":null,"error":{"message":"IPC: missing method"}})";
constexpr char kIsRegisteredFailure[] =
    R"({"jsonrpc":"2.0","id":*,"result":{"registered":false},"error":{"message":"*"}})";

std::string ErrorForm(const std::string& message) {
  return R"({"jsonrpc":"2.0","id":*,"result":null,"error":{"message":")" + message + "\"}}\n";
}

std::string ResultForm(const std::string& result) {
  return R"({"jsonrpc":"2.0","id":*,"result":)" + result + ",\"error\":null}\n";
}

bool FitsAnswer(const Exchange& exchange, const Question& question) {
  std::istringstream forms(question.result);
  for (std::string form; std::getline(forms, form);) {
    const bool error = form.starts_with(kError);
    if (FitsForm(exchange.reply, error ? ErrorForm(form.substr(1)) : ResultForm(form))) return true;
  }
  const std::string method = question.method;
  if (method == "GET /ui/is-registered")
    return FitsForm(exchange.reply, std::string(kIsRegisteredFailure) + "\n");
  const bool logs = method == "GET /ui/logs" || method == "GetRecentLogs";
  return logs && FitsForm(exchange.reply, ResultForm(""));
}

bool Happened(const Exchange& exchange) {
  return sim::FaultsApplied() != exchange.faultsBefore;
}

// The word of a state, as both views write it, against those that were there meanwhile.
std::string StateFault(const Exchange& exchange) {
  constexpr std::array<const char*, 4> kShort = {"disconnected", "connecting", "connected", "error"};
  constexpr std::array<const char*, 4> kLong = {"DISCONNECTED", "CONNECTING", "CONNECTED", "ERROR"};
  for (size_t status = 0; status < kShort.size(); ++status) {
    const bool said =
        exchange.reply.find(std::string(",\"state\":\"") + kShort[status] + '"') != std::string::npos ||
        exchange.reply.find(std::string("\"tunnel_status\":\"") + kLong[status] + '"') != std::string::npos;
    if (said && !(exchange.statuses >> status & 1U))
      return exchange.what + " says a state that was not: " + kLong[status];
  }
  return "";
}

}  // namespace

const Question& QuestionAt(size_t index) {
  return kQuestions.at(index % kQuestionCount);
}

std::string RequestLine(const Question& question, uint32_t id) {
  const std::string parameters = question.parameters;
  const std::string rest = parameters.empty() ? "" : ",\"params\":{" + parameters + "}";
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":")" + question.method + '"' + rest +
         "}";
}

bool FitsForm(const std::string& text, const std::string& form) {
  size_t at = 0;
  size_t from = 0;
  bool first = true;
  for (;;) {
    const size_t star = form.find('*', from);
    const std::string piece = form.substr(from, star - from);
    if (star == std::string::npos) {
      if (first) return text == piece;
      return text.size() >= at + piece.size() && text.ends_with(piece);
    }
    const size_t found = first ? (text.starts_with(piece) ? 0 : std::string::npos) : text.find(piece, at);
    if (found == std::string::npos) return false;
    at = found + piece.size();
    from = star + 1;
    first = false;
  }
}

std::string ReplyFault(const Exchange& exchange) {
  std::string told = exchange.what + " got " + exchange.reply;
  // What ends the reading early gives the fixed line: a stop, a failing read, too long a line.
  const bool mayBeCut =
      !exchange.complete || gFacts.stopSignaled || Happened(exchange) || exchange.life != gFacts.life;
  if (exchange.reply == kNoRequest) return mayBeCut ? "" : told;
  if (!exchange.complete) return told;
  if (gFacts.lockFailures && FitsForm(exchange.reply, ErrorForm("*"))) return "";
  std::string state = StateFault(exchange);
  if (!state.empty()) return state;
  for (const Question& question : kQuestions) {
    const bool same = exchange.request == RequestLine(question, exchange.client) + "\n";
    if (!same) continue;
    const std::string id = "\"id\":" + std::to_string(exchange.client) + ",";
    if (exchange.reply.find(id) == std::string::npos) return told;
    return FitsAnswer(exchange, question) ? "" : told;
  }
  return FitsForm(exchange.reply, std::string(kMissingMethod) + "\n") ? "" : told;
}

}  // namespace simulator
