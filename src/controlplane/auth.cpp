#include "controlplane/auth.h"

#include <mutex>

#include "controlplane/base_url.h"
#include "controlplane/http_transport.h"
#include "controlplane/json_text.h"
#include "controlplane/text.h"
#include "engine/tunnel_state.h"
#include "service/data_files.h"
#include "service/log.h"
#include "service/platform.h"
#include "wireguard/keys.h"

namespace {

constexpr int64_t kExpiryMarginSeconds = 300;

bool SaveAndRotateKeys(const SessionRecord& session, std::wstring& error) {
  if (!SaveSession(session)) {
    error = L"login ok but SaveSession failed";
    LogLine(L"Auth: SaveSession failed after /v1/auth/login");
    return false;
  }
  std::string privateKey;
  std::string publicKey;
  if (!RotateActiveBootstrapWgKeypair(privateKey, publicKey)) {
    error = L"login ok but active WG key rotation failed";
    LogLine(L"Auth: RotateActiveBootstrapWgKeypair failed after /v1/auth/login");
    return false;
  }
  LogLine(L"Auth: rotated active WG keypair after /v1/auth/login");
  return true;
}

bool TakeOverRefreshAnswer(const std::string& answer, SessionRecord& session, std::wstring& error) {
  SessionRecord fresh;
  if (const wchar_t* missing = ReadSessionFields(answer, RefreshTokenField::kOptional, fresh)) {
    error = std::wstring(L"refresh response missing ") + missing;
    return false;
  }
  if (fresh.refresh_token.empty()) fresh.refresh_token = session.refresh_token;
  session = fresh;
  // A failed save leaves the error text empty; wanted.
  return SaveSession(session);
}

std::wstring RefusalOfRefresh(uint32_t status, const std::string& answer) {
  std::string refusal;
  JsonGetString(answer, "error", refusal);
  refusal = TrimAscii(refusal);
  if (refusal == "refresh_expired") return L"SESSION_EXPIRED";
  if (refusal.empty()) return L"refresh non-2xx: " + std::to_wstring(status);
  return Utf8ToWide(refusal);
}

bool RefreshForCaller(const std::wstring& baseUrl, SessionRecord& session, std::wstring& error) {
  if (!RefreshSession(baseUrl, session, error)) {
    if (error.empty()) error = L"refresh failed";
    return false;
  }
  // RefreshSession has saved it already; the second save is wanted.
  if (!SaveSession(session)) {
    error = L"refresh ok but failed to save session";
    return false;
  }
  return true;
}

bool IsFresh(const SessionRecord& session) {
  return session.expires_at >= platform::Time64() + kExpiryMarginSeconds;
}

// The cached token counts even where it differs from the file's; wanted.
bool TakeCachedToken(const SessionRecord& session, std::wstring& token) {
  const std::lock_guard<platform::Mutex> lock(gSessionMutex);
  if (gCachedAccessToken.empty() || !IsFresh(session)) return false;
  token = gCachedAccessToken;
  return true;
}

}  // namespace

bool Login(const std::wstring& email, const std::wstring& password, SessionRecord& session,
           std::wstring& error) {
  error.clear();
  session = SessionRecord();
  const std::string request = "{" + JsonMember("email", email) + "," + JsonMember("password", password) + "}";
  uint32_t status = 0;
  std::string answer;
  if (!HttpPostUtf8(CpUrl(gCpBaseUrl, L"/v1/auth/login"), L"", request, kJsonContentType, status, answer)) {
    error = L"login transport failure";
    return false;
  }
  if (!Is2xx(status)) {
    error = L"login non-2xx: " + std::to_wstring(status);
    return false;
  }
  if (const wchar_t* missing = ReadSessionFields(answer, RefreshTokenField::kRequired, session)) {
    error = std::wstring(L"login response missing ") + missing;
    return false;
  }
  return SaveAndRotateKeys(session, error);
}

bool RefreshSession(const std::wstring& baseUrl, SessionRecord& session, std::wstring& error) {
  error.clear();
  const std::string request = "{" + JsonMember("refresh_token", session.refresh_token) + "}";
  uint32_t status = 0;
  std::string answer;
  if (!HttpPostUtf8(CpUrl(baseUrl, L"/v1/auth/refresh"), L"", request, kJsonContentType, status, answer)) {
    error = L"refresh transport failure";
    return false;
  }
  if (Is2xx(status)) return TakeOverRefreshAnswer(answer, session, error);
  error = RefusalOfRefresh(status, answer);
  return false;
}

bool EnsureValidAccessToken(const std::wstring& baseUrl, std::wstring& token, std::wstring& error) {
  token.clear();
  error.clear();
  SessionRecord session;
  // The file decides, not the cache: it is read on every call.
  if (!LoadSession(session)) {
    error = std::wstring(L"no session: ") + kSessionFile;
    return false;
  }
  if (session.access_token.empty() && !RefreshForCaller(baseUrl, session, error)) return false;
  if (TakeCachedToken(session, token)) return true;
  if (!IsFresh(session) && !RefreshForCaller(baseUrl, session, error)) return false;
  if (session.access_token.empty()) {
    error = L"session access token empty";
    return false;
  }
  token = session.access_token;
  const std::lock_guard<platform::Mutex> lock(gSessionMutex);
  gCachedAccessToken = token;
  return true;
}
