#include "controlplane/device.h"

#include <cstdint>
#include <cwctype>

#include "controlplane/auth.h"
#include "controlplane/base_url.h"
#include "controlplane/http_transport.h"
#include "controlplane/json_text.h"
#include "controlplane/platform.h"
#include "controlplane/text.h"
#include "service/data_files.h"
#include "service/log.h"

namespace {

constexpr uint32_t kComputerNameCapacity = 16;
constexpr uint32_t kHttpOk = 200;
constexpr uint32_t kHttpCreated = 201;
constexpr uint32_t kHttpUnauthorized = 401;

bool FailWith(const wchar_t* reason) {
  LogLine(std::wstring(L"LoadOrCreateDeviceId: ") + reason);
  return false;
}

std::wstring VerifierPath(const std::wstring& path) {
  return path + L".protected";
}

bool WriteClearId(const std::wstring& path, const std::wstring& deviceId) {
  return WriteTextFile(path, deviceId + L"\r\n");
}

bool WriteVerifier(const std::wstring& path, const std::wstring& deviceId) {
  return ProtectToFile(VerifierPath(path), WideToUtf8(deviceId));
}

// The sealed value wins over a clear text that was edited or removed. An empty `clearId`: there is none.
bool VerifyDeviceId(const std::wstring& path, const std::wstring& clearId, std::wstring& deviceId) {
  std::string sealed;
  if (!UnprotectFromFile(VerifierPath(path), sealed))
    return FailWith(L"protected verifier present but could not be decrypted");
  const std::wstring original = TrimWide(Utf8ToWide(sealed));
  if (original.empty()) return FailWith(L"protected verifier decrypted to empty device id");
  if (clearId.empty()) {
    if (!WriteClearId(path, original))
      return FailWith(L"failed to restore missing device_id.txt from protected verifier");
  } else if (clearId != original) {
    LogLine(
        L"LoadOrCreateDeviceId: device_id.txt mismatch detected; restoring original value from protected "
        L"verifier");
    if (!WriteClearId(path, original))
      return FailWith(L"failed to restore tampered device_id.txt from protected verifier");
  }
  deviceId = original;
  return true;
}

bool GenerateDeviceId(const std::wstring& path, std::wstring& deviceId) {
  wchar_t name[kComputerNameCapacity] = {};
  uint32_t length = kComputerNameCapacity;
  if (!platform::GetComputerNameW(name, length) || length == 0) return FailWith(L"GetComputerNameW failed");
  std::wstring generated = TrimWide(std::wstring(name, length));
  for (wchar_t& character : generated)
    character = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(character)));
  if (generated.empty()) return FailWith(L"generated empty device id");
  if (!WriteClearId(path, generated)) return FailWith(L"failed writing device_id.txt");
  // The clear text stays after a failure; the next call seals it.
  if (!WriteVerifier(path, generated)) return FailWith(L"failed writing protected verifier");
  deviceId = generated;
  return true;
}

bool SealClearId(const std::wstring& path, const std::wstring& clearId, std::wstring& deviceId) {
  if (!WriteVerifier(path, clearId))
    return FailWith(L"failed to create protected verifier from existing cleartext device_id.txt");
  deviceId = clearId;
  return true;
}

// After a 401. False when there is no session to take a token from; both callers then report success, so that
// theirs goes on to its next step, which is wanted.
bool FetchTokenForRetry(const std::wstring& caller, std::wstring& token) {
  LogLine(caller + L": HTTP 401 (token invalid/expired); re-login and retry once");
  std::wstring error;
  if (EnsureValidAccessToken(kDefaultCpBaseUrl, token, error)) return true;
  LogLine(L"Auth: no session; waiting for GUI login");
  return false;
}

void LogRefusal(const std::wstring& caller, uint32_t status, const std::string& answer) {
  LogLine(status != 0 ? caller + L": HTTP " + std::to_wstring(status) + L" head=" + BodyHead(answer)
                      : caller + L": failed (transport)");
}

}  // namespace

bool LoadOrCreateDeviceId(const std::wstring& path, std::wstring& deviceId) {
  deviceId.clear();
  if (!EnsureParentDirForFile(path)) return FailWith(L"EnsureParentDirForFile failed");
  std::wstring clearId;
  if (!ReadTextFileTrimmed(path, clearId)) clearId.clear();
  if (platform::GetFileAttributesW(VerifierPath(path)) != platform::kInvalidFileAttributes)
    return VerifyDeviceId(path, clearId, deviceId);
  return clearId.empty() ? GenerateDeviceId(path, deviceId) : SealClearId(path, clearId, deviceId);
}

bool EnsureDeviceRegistered(const std::wstring& baseUrl, std::wstring& token, const std::wstring& deviceId) {
  const std::wstring url = CpUrl(baseUrl, L"/v1/devices");
  const std::string id = JsonEscape(WideToUtf8(deviceId));
  const std::string request =
      "{\"device_id\":\"" + id + "\",\"name\":\"" + id + "\",\"platform\":\"windows\"}";
  uint32_t status = 0;
  std::string answer;
  const auto registered = [&] {
    return HttpPostUtf8(url, token, request, kJsonContentType, status, answer) &&
           (status == kHttpOk || status == kHttpCreated);
  };
  if (registered()) {
    LogLine(L"EnsureDeviceRegistered: ok (" + std::to_wstring(status) + L")");
    return true;
  }
  if (status == kHttpUnauthorized) {
    std::wstring newToken;
    if (!FetchTokenForRetry(L"EnsureDeviceRegistered", newToken)) return true;
    token = newToken;
    if (registered()) {
      LogLine(L"EnsureDeviceRegistered: ok after re-login (" + std::to_wstring(status) + L")");
      return true;
    }
  }
  LogRefusal(L"EnsureDeviceRegistered", status, answer);
  return false;
}

bool EnsureWgKeyUploaded(const std::wstring& baseUrl, const std::wstring& token, const std::wstring& deviceId,
                         const std::string& publicKey) {
  const std::wstring url = CpUrl(baseUrl, L"/v1/devices/" + deviceId + L"/wg-key");
  const std::string request = "{\"wg_public_key\":\"" + JsonEscape(publicKey) + "\"}";
  uint32_t status = 0;
  std::string answer;
  const auto uploaded = [&] {
    return HttpPut(url, token, request, kJsonContentType, status, answer) && status == kHttpOk;
  };
  if (uploaded()) {
    LogLine(L"EnsureWgKeyUploaded: ok (200)");
    return true;
  }
  if (status == kHttpUnauthorized) {
    // The new token goes unused: the retry sends the caller's again, which is wanted.
    std::wstring unusedToken;
    if (!FetchTokenForRetry(L"EnsureWgKeyUploaded", unusedToken)) return true;
    if (uploaded()) {
      LogLine(L"EnsureWgKeyUploaded: ok after re-login (200)");
      return true;
    }
  }
  LogRefusal(L"EnsureWgKeyUploaded", status, answer);
  return false;
}
