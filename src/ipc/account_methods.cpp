#include "ipc/account_methods.h"

#include <mutex>

#include "controlplane/auth.h"
#include "controlplane/session.h"
#include "controlplane/text.h"
#include "engine/tunnel_state.h"
#include "ipc/replies.h"
#include "ipc/request_fields.h"

namespace {

// A call that failed in its business: its error text, or `fallback` if it left that empty.
std::string FailureResult(const std::wstring& error, const char* fallback) {
  const std::string message = error.empty() ? fallback : WideToUtf8(error);
  return "{\"ok\":false,\"message\":" + JsonQuote(message) + "}";
}

// Logs in with the parameters and takes the session over.
std::string LogIn(const std::string& email, const std::string& password) {
  SessionRecord session;
  std::wstring error;
  if (!Login(Utf8ToWide(email), Utf8ToWide(password), session, error)) {
    // Wanted: the fallback speaks of registration.
    return FailureResult(error, "login failed after registration");
  }
  if (!SaveSession(session)) {
    return R"({"ok":false,"auth_state":"AUTH_REQUIRED","message":"save session failed"})";
  }
  {
    std::lock_guard lock(gSessionMutex);
    gCachedAccessToken = session.access_token;
  }
  gAuthRequired.exchange(false);
  SetLastErrorText(L"");
  return R"({"ok":true,"auth_state":"AUTH_OK","message":"registered"})";
}

}  // namespace

bool LoginMethod(const PipeRequest& request, std::string& reply) {
  std::string email;
  std::string password;
  if (!ReadRequestString(request.line, "email", email) ||
      !ReadRequestString(request.line, "password", password)) {
    reply = ErrorReply(request.id, "missing email/password");
    return true;
  }
  reply = ResultReply(request.id, LogIn(email, password));
  return true;
}

bool LogoutMethod(const PipeRequest& request, std::string& reply) {
  Logout();
  reply = ResultReply(request.id, R"({"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"})");
  return true;
}
