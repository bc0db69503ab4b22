#include "controlplane/session.h"

#include <mutex>

#include "controlplane/json_text.h"
#include "controlplane/text.h"
#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "service/data_files.h"
#include "service/platform.h"

namespace {

bool ReadToken(std::string_view text, const char* key, std::wstring& token) {
  std::string value;
  const bool found = JsonGetString(text, key, value);
  token = Utf8ToWide(TrimAscii(value));
  return found;
}

void ForgetServers() {
  const std::lock_guard<platform::Mutex> lock(gUiLock);
  gUiServers.clear();
  gSelectedServerId.clear();
  gSelectedServerValid = false;
  gSelectedServer = ServerRecord();
}

}  // namespace

std::string SerializeSession(const SessionRecord& session) {
  return "{\"access_token\":\"" + JsonEscape(WideToUtf8(session.access_token)) + "\",\"refresh_token\":\"" +
         JsonEscape(WideToUtf8(session.refresh_token)) +
         "\",\"expires_at\":" + std::to_string(session.expires_at) + "}";
}

const wchar_t* ReadSessionFields(std::string_view text, RefreshTokenField refreshToken,
                                 SessionRecord& session) {
  SessionRecord found;
  if (!ReadToken(text, "access_token", found.access_token) && !ReadToken(text, "token", found.access_token))
    return L"access_token";
  if (!ReadToken(text, "refresh_token", found.refresh_token) && refreshToken == RefreshTokenField::kRequired)
    return L"refresh_token";
  if (!JsonGetInt64(text, "expires_at", found.expires_at)) return L"expires_at";
  session = found;
  return nullptr;
}

bool SaveSession(const SessionRecord& session) {
  return ProtectToFile(kSessionFile, SerializeSession(session));
}

bool LoadSession(SessionRecord& session) {
  session = SessionRecord();
  std::string text;
  if (!UnprotectFromFile(kSessionFile, text)) return false;
  if (ReadSessionFields(text, RefreshTokenField::kRequired, session) != nullptr) return false;
  return !session.access_token.empty() && !session.refresh_token.empty() && session.expires_at >= 1;
}

void Logout() {
  {
    const std::lock_guard<platform::Mutex> lock(gSessionMutex);
    gCachedAccessToken.clear();
  }
  platform::DeleteFileW(kSessionFile);
  platform::DeleteFileW(kLegacyTokenFile);
  ForgetServers();
  gAuthRequired.exchange(true);
  SetLastErrorText(L"AUTH_REQUIRED");
  WriteDisconnectIntent();
  gWorkerOperations.RollbackToOpen();
}
