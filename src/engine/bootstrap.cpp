#include "engine/bootstrap.h"

#include <cwctype>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "controlplane/auth.h"
#include "controlplane/base_url.h"
#include "controlplane/catalogue.h"
#include "controlplane/device.h"
#include "controlplane/http_transport.h"
#include "controlplane/json_text.h"
#include "controlplane/text.h"
#include "engine/tunnel_config.h"
#include "engine/tunnel_state.h"
#include "service/data_files.h"
#include "service/log.h"
#include "service/platform.h"
#include "wireguard/keys.h"

namespace {

constexpr uint32_t kResolveAttempts = 5;
constexpr uint32_t kResolvePause = 250;  // milliseconds, times the attempt's number
constexpr char kDefaultAllowedIps[] = "10.8.0.0/24";

// What one run carries from step to step.
struct Attempt {
  std::wstring base;  // the default URL; never gCpBaseUrl
  std::wstring token;
  std::string privateKey;
  std::string publicKey;
  std::wstring deviceId;
};

bool MakeDirectories() {
  for (const wchar_t* directory : {kDataRoot, kTunnelDirectory, kAuthDirectory}) {
    if (!EnsureDirectory(directory)) return false;
  }
  ApplyDataDirAclRecursive(kDataRoot);
  return true;
}

// Waits for the network a little. When nothing is found the run goes on: its next steps meet the failure
// themselves.
void ProbeNetwork(const std::wstring& base) {
  ParsedBaseUrl parsed;
  if (!ParseHttpsBaseUrl(base, parsed)) return;
  for (uint32_t attempt = 1; attempt <= kResolveAttempts; ++attempt) {
    if (!ResolveHostIpV4(parsed.host).empty()) {
      InitCpBaseUrl();
      return;
    }
    platform::Sleep(attempt * kResolvePause);
  }
}

bool TakeToken(const std::wstring& base, std::wstring& token) {
  std::wstring error;
  if (EnsureValidAccessToken(base, token, error)) {
    gAuthRequired.exchange(false);
    return true;
  }
  gAuthRequired.exchange(true);
  SetLastErrorText(error == L"SESSION_EXPIRED" ? L"SESSION_EXPIRED" : L"AUTH_REQUIRED");
  // Wanted: the three odd characters, which cut the line in the log.
  LogLine(L"[BOOTSTRAP] AUTH_REQUIRED (" + (error.empty() ? L"no token" : error) +
          L") \u00E2\u20AC\u201D waiting for GUI login.");
  return false;
}

void RefreshCatalogue(const Attempt& attempt) {
  std::vector<ServerRecord> servers;
  if (!CpGetServerLocations(attempt.base, servers)) {
    LogLine(L"Bootstrap: CpGetServerLocations failed (non-fatal).");
    return;
  }
  std::lock_guard lock(gUiLock);
  gUiServers = std::move(servers);
}

bool EnsureKeys(Attempt& attempt) {
  if (!LoadOrCreatePrivateKey(kPrivateKeyFile, attempt.privateKey)) {
    LogLine(L"Bootstrap: wg private key failed");
    return false;
  }
  if (!DeriveWgPublicKeyB64FromPrivateB64(kPublicKeyFile, attempt.privateKey, attempt.publicKey)) {
    LogLine(L"Bootstrap: wg public key failed");
    return false;
  }
  return true;
}

bool EnsureDevice(Attempt& attempt) {
  if (!LoadOrCreateDeviceId(kDeviceIdFile, attempt.deviceId)) {
    LogLine(L"Bootstrap: failed to load/create device_id.txt");
    return false;
  }
  if (!EnsureDeviceRegistered(attempt.base, attempt.token, attempt.deviceId)) {
    LogLine(L"Bootstrap: EnsureDeviceRegistered failed");
    return false;
  }
  if (!EnsureWgKeyUploaded(attempt.base, attempt.token, attempt.deviceId, attempt.publicKey)) {
    LogLine(L"Bootstrap: EnsureWgKeyUploaded failed");
    return false;
  }
  // Wanted: only the calls from here on use the id in lower case.
  attempt.deviceId = TrimWide(attempt.deviceId);
  for (wchar_t& unit : attempt.deviceId)
    unit = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(unit)));
  LogLine(L"Bootstrap: device_id = " + attempt.deviceId);
  return true;
}

// The user's selection, whatever the catalogue says of it; else the first server that is online.
std::string DesiredServer() {
  std::lock_guard lock(gUiLock);
  if (!gSelectedServerId.empty()) return gSelectedServerId;
  for (const ServerRecord& server : gUiServers) {
    if (!server.id.empty() && server.online) return server.id;
  }
  return std::string();
}

void SelectServer(const Attempt& attempt) {
  const std::string serverId = DesiredServer();
  if (serverId.empty()) {
    LogLine(L"Bootstrap: no desired server_id (no user selection and no online servers cached).");
    return;
  }
  LogLine(L"Bootstrap: selecting server_id=" + Utf8ToWide(serverId) + L" (persisting to CP)");
  if (!CpSelectServer(attempt.base, attempt.token, attempt.deviceId, serverId)) {
    LogLine(L"Bootstrap: CpSelectServer failed (non-fatal); may fall back to prior assignment.");
  }
}

// One repetition after a 401, with whatever token there is then.
bool FetchProfile(Attempt& attempt, std::string& body) {
  const std::wstring url = CpUrl(attempt.base, L"/v1/devices/" + attempt.deviceId + L"/wg-profile");
  uint32_t status = 0;
  if (HttpGet(url, attempt.token, status, body)) return true;
  LogLine(L"Bootstrap: wg-profile HTTP " + std::to_wstring(status) + L" head=" + BodyHead(body));
  if (status != 401) return false;
  LogLine(L"Bootstrap: token invalid/expired; re-login and retry wg-profile once");
  std::wstring token;
  if (!TakeToken(attempt.base, token)) return false;
  attempt.token = token;
  body.clear();
  if (HttpGet(url, attempt.token, status, body)) return true;
  LogLine(L"Bootstrap: wg-profile retry HTTP " + std::to_wstring(status) + L" head=" + BodyHead(body));
  return false;
}

void ReadPeer(std::string_view text, TunnelConfig& config) {
  JsonGetString(text, "endpoint", config.endpoint);
  JsonGetString(text, "server_public_key", config.serverPublicKey);
}

// The assigned server's entry, if its id stands in the body just so; else the first entry of `servers`.
bool SelectPeer(std::string_view body, const std::string& assignedId, TunnelConfig& config) {
  const auto complete = [&config] { return !config.endpoint.empty() && !config.serverPublicKey.empty(); };
  if (!assignedId.empty()) {
    const size_t entry = body.find("\"server_id\":\"" + assignedId + "\"");
    if (entry != std::string_view::npos) ReadPeer(body.substr(entry), config);
  }
  if (!complete()) {
    const size_t servers = body.find("\"servers\"");
    if (servers != std::string_view::npos) ReadPeer(body.substr(servers), config);
  }
  if (complete()) return true;
  LogLine(L"Bootstrap: could not select server_public_key/endpoint from wg-profile response");
  return false;
}

bool ReadProfile(const std::string& body, TunnelConfig& config) {
  if (!JsonGetString(body, "client_address", config.clientAddress)) {
    LogLine(L"Bootstrap: missing client_address in wg-profile response");
    return false;
  }
  std::string assignedId;
  JsonGetString(body, "assigned_server_id", assignedId);
  ApplyAssignedServerFromProfile(body);
  JsonGetStringArray(body, "allowed_ips", config.allowedIps);
  JsonGetStringArray(body, "dns", config.dns);
  // Wanted: the reader clears its output before it looks, so a profile without the field gives 0 and not
  // this 25.
  config.persistentKeepalive = 25;
  JsonGetPersistentKeepalive(body, config.persistentKeepalive);
  if (!SelectPeer(body, assignedId, config)) return false;
  if (config.allowedIps.empty()) {
    config.allowedIps.push_back(kDefaultAllowedIps);
    LogLine(L"Bootstrap: allowed_ips missing; defaulting to 10.8.0.0/24 (bootstrap-safe).");
  }
  return true;
}

bool WriteConfiguration(const TunnelConfig& config) {
  const std::string text = BuildWgConfText(config);
  LogLine(L"Bootstrap: writing wg conf to ProgramData...");
  if (!WriteFileAtomic(kTunnelConfigFile, text)) {
    LogLine(L"Bootstrap: failed writing wg conf");
    return false;
  }
  LogLine(L"Bootstrap: wg conf created/updated.");
  return true;
}

}  // namespace

bool Bootstrap() {
  if (!MakeDirectories()) return false;
  Attempt attempt;
  attempt.base = kDefaultCpBaseUrl;
  LogLine(L"Bootstrap: CP base URL = " + attempt.base);
  const std::wstring snapshot = attempt.base;
  ProbeNetwork(attempt.base);
  if (!TakeToken(attempt.base, attempt.token)) return false;
  RefreshCatalogue(attempt);
  if (!EnsureKeys(attempt) || !EnsureDevice(attempt)) return false;
  SelectServer(attempt);
  if (attempt.base != snapshot) {
    LogLine(L"Bootstrap: CP base URL CHANGED unexpectedly: " + snapshot + L" -> " + attempt.base);
  }
  std::string body;
  if (!FetchProfile(attempt, body)) return false;
  TunnelConfig config;
  config.privateKey = attempt.privateKey;
  return ReadProfile(body, config) && WriteConfiguration(config);
}
