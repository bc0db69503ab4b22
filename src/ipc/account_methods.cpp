#include "ipc/account_methods.h"

#include <cstdint>
#include <initializer_list>
#include <mutex>

#include "controlplane/account.h"
#include "controlplane/auth.h"
#include "controlplane/session.h"
#include "controlplane/text.h"
#include "engine/tunnel_state.h"
#include "ipc/replies.h"
#include "ipc/request_fields.h"

namespace {

// Wanted: the message of a login speaks of registration too.
constexpr char kLoggedIn[] = R"({"ok":true,"auth_state":"AUTH_OK","message":"registered"})";
// Wanted: a failed login without a text speaks of registration, also when none took place.
constexpr char kLoginFallback[] = "login failed after registration";

struct Parameter {
  const char* key;
  std::string& value;
};

// False with the reply set if one is missing; an empty one counts as present.
bool ReadParameters(const PipeRequest& request, std::initializer_list<Parameter> parameters,
                    const char* refusal, std::string& reply) {
  for (const Parameter& parameter : parameters) {
    if (!ReadRequestString(request.line, parameter.key, parameter.value)) {
      reply = ErrorReply(request.id, refusal);
      return false;
    }
  }
  return true;
}

std::string FailureResult(const std::wstring& error, const char* fallback) {
  return "{\"ok\":false,\"message\":" + QuotedMessage(error, fallback) + "}";
}

void TakeSessionOver(const SessionRecord& session) {
  {
    std::lock_guard lock(gSessionMutex);
    gCachedAccessToken = session.access_token;
  }
  gAuthRequired.exchange(false);
}

std::string LogIn(const std::wstring& email, const std::wstring& password) {
  SessionRecord session;
  std::wstring error;
  if (!Login(email, password, session, error)) return FailureResult(error, kLoginFallback);
  if (!SaveSession(session)) {
    return R"({"ok":false,"auth_state":"AUTH_REQUIRED","message":"save session failed"})";
  }
  TakeSessionOver(session);
  SetLastErrorText(L"");
  return kLoggedIn;
}

// Wanted: unlike LogIn this saves no second time and leaves the last error as it was.
std::string RegisterAndLogIn(const std::wstring& email, const std::wstring& password) {
  SessionRecord session;
  std::wstring error;
  if (!CpRegister(email, password, error)) return FailureResult(error, "register failed");
  if (!Login(email, password, session, error)) return FailureResult(error, kLoginFallback);
  TakeSessionOver(session);
  return kLoggedIn;
}

bool ReplyToCredentials(const PipeRequest& request, std::string& reply,
                        std::string (*method)(const std::wstring& email, const std::wstring& password)) {
  std::string email;
  std::string password;
  if (ReadParameters(request, {{"email", email}, {"password", password}}, "missing email/password", reply))
    reply = ResultReply(request.id, method(Utf8ToWide(email), Utf8ToWide(password)));
  return true;
}

std::string StartPasswordReset(const std::wstring& email) {
  std::string requestId;
  std::string maskedEmail;
  uint32_t expiresInSeconds = 0;
  std::wstring error;
  if (!CpPasswordResetStart(email, requestId, maskedEmail, expiresInSeconds, error)) {
    return "{\"ok\":false,\"request_id\":null,\"masked_email\":null,\"expires_in_seconds\":0,\"message\":" +
           QuotedMessage(error, "password reset start failed") + "}";
  }
  return "{\"ok\":true,\"request_id\":" + JsonQuote(requestId) +
         ",\"masked_email\":" + JsonQuote(maskedEmail) +
         ",\"expires_in_seconds\":" + std::to_string(expiresInSeconds) + ",\"message\":\"ok\"}";
}

}  // namespace

bool LoginMethod(const PipeRequest& request, std::string& reply) {
  return ReplyToCredentials(request, reply, &LogIn);
}

bool RegisterMethod(const PipeRequest& request, std::string& reply) {
  return ReplyToCredentials(request, reply, &RegisterAndLogIn);
}

bool IsRegisteredMethod(const PipeRequest& request, std::string& reply) {
  std::string email;
  if (!ReadParameters(request, {{"email", email}}, "missing email", reply)) return true;
  bool registered = false;
  std::wstring error;
  if (!CpIsRegistered(Utf8ToWide(email), registered, error)) {
    reply = ResultAndErrorReply(request.id, R"({"registered":false})",
                                QuotedMessage(error, "is-registered failed"));
    return true;
  }
  reply = ResultReply(request.id, "{\"email\":" + JsonQuote(TrimAscii(email)) +
                                      ",\"registered\":" + JsonWord(registered) + "}");
  return true;
}

bool PasswordResetStartMethod(const PipeRequest& request, std::string& reply) {
  std::string email;
  if (ReadParameters(request, {{"email", email}}, "missing email", reply))
    reply = ResultReply(request.id, StartPasswordReset(Utf8ToWide(email)));
  return true;
}

bool PasswordResetConfirmMethod(const PipeRequest& request, std::string& reply) {
  std::string email;
  std::string requestId;
  std::string code;
  std::string newPassword;
  if (!ReadParameters(
          request,
          {{"email", email}, {"request_id", requestId}, {"code", code}, {"new_password", newPassword}},
          "missing email/request_id/code/new_password", reply)) {
    return true;
  }
  std::wstring error;
  const bool done = CpPasswordResetConfirm(Utf8ToWide(email), Utf8ToWide(requestId), Utf8ToWide(code),
                                           Utf8ToWide(newPassword), error);
  reply = ResultReply(request.id, done ? R"({"ok":true,"message":"password reset complete"})"
                                       : FailureResult(error, "password reset confirm failed"));
  return true;
}

bool LogoutMethod(const PipeRequest& request, std::string& reply) {
  Logout();
  reply = ResultReply(request.id, R"({"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"})");
  return true;
}
