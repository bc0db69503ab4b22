#include "ipc/views.h"

#include <algorithm>
#include <mutex>
#include <string_view>
#include <vector>

#include "controlplane/auth.h"
#include "controlplane/base_url.h"
#include "controlplane/catalogue.h"
#include "controlplane/json_text.h"
#include "controlplane/text.h"
#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "ipc/replies.h"
#include "ipc/request_fields.h"
#include "ipc/server_view.h"
#include "service/data_files.h"
#include "service/log.h"

namespace {

constexpr int32_t kFewestLogLines = 1;
constexpr int32_t kMostLogLines = 2000;
constexpr char kNoLocations[] = R"({"servers":[],"selected_server_id":null})";
// Wanted: every backslash is doubled; the file system takes it as the same file.
constexpr wchar_t kPublicKeyFileDoubled[] = LR"(C:\\ProgramData\\TELVOR\\auth\\wg_client_publickey.txt)";

// The words of gTunnelStatus; any other value is shown as the first.
constexpr const char* kStateWords[] = {"disconnected", "connecting", "connected", "error"};
constexpr const char* kStatusWords[] = {"DISCONNECTED", "CONNECTING", "CONNECTED", "ERROR"};

const char* Word(const char* const (&words)[4], int32_t status) {
  return status >= kStatusDisconnected && status <= kStatusError ? words[status] : words[kStatusDisconnected];
}

struct Traffic {
  uint64_t rx = 0;
  uint64_t tx = 0;
};

// Asked of wg.exe each time, while connected only.
Traffic ReadTraffic(int32_t status) {
  Traffic traffic;
  if (status != kStatusConnected) return traffic;
  if (!gWorkerOperations.WgGetRxTxBytes(kTunnelName, traffic.rx, traffic.tx)) return {};
  return traffic;
}

std::string CopyLastError() {
  std::lock_guard lock(gLastErrorMutex);
  return WideToUtf8(gLastError);
}

std::string ReadDeviceId() {
  std::wstring deviceId;
  ReadTextFileTrimmed(kDeviceIdFile, deviceId);
  return WideToUtf8(deviceId);
}

std::string ReadPublicKey() {
  std::string key;
  ReadWholeFile(kPublicKeyFileDoubled, key);
  return TrimAscii(key);
}

// With gUiLock held. Null if the catalogue has no such server.
const ServerRecord* FindServer(const std::string& id) {
  const auto found = std::find_if(gUiServers.begin(), gUiServers.end(),
                                  [&](const ServerRecord& server) { return server.id == id; });
  return found == gUiServers.end() ? nullptr : &*found;
}

struct Selection {
  std::string serverId;
  std::string publicIp;
};

// The record that the last profile assigned goes before the catalogue's.
Selection CopySelection() {
  std::lock_guard lock(gUiLock);
  const ServerRecord* server = gSelectedServerValid         ? &gSelectedServer
                               : !gSelectedServerId.empty() ? FindServer(gSelectedServerId)
                                                            : nullptr;
  return {gSelectedServerId, server ? server->public_egress_ip : std::string()};
}

// Wanted: unlike CopySelection it looks in the catalogue only.
std::string SelectedServerJson(const std::string& serverId) {
  ServerRecord server;
  {
    std::lock_guard lock(gUiLock);
    const ServerRecord* found = FindServer(serverId);
    if (!found) return "null";
    server = *found;
  }
  return ServerToJson(server);
}

bool HasCachedToken() {
  std::lock_guard lock(gSessionMutex);
  return !gCachedAccessToken.empty();
}

// With gUiLock held: falls back to the first record, online or not.
void SelectFirstServer(const wchar_t* line) {
  gSelectedServerId = gUiServers.front().id;
  gSelectedServerValid = false;
  LogLine(line + Utf8ToWide(gSelectedServerId));
}

void InstallCatalogue(std::vector<ServerRecord> servers) {
  std::lock_guard lock(gUiLock);
  gUiServers = std::move(servers);
  if (gUiServers.empty()) return;
  if (gSelectedServerId.empty()) {
    SelectFirstServer(L"[UI] Default-selected server_id=");
    if (!FindServer(gSelectedServerId)) {
      LogLine(L"[UI] Selected server details: NOT FOUND in gUiServers for id=" +
              Utf8ToWide(gSelectedServerId));
    }
  } else if (!FindServer(gSelectedServerId)) {
    SelectFirstServer(L"[UI] Selected server missing; reset to server_id=");
  }
}

// The last `limit` lines, oldest first. A line feed at the very end gives no further line.
std::vector<std::string_view> LastLines(std::string_view text, size_t limit) {
  std::vector<std::string_view> lines;
  if (text.ends_with('\n'))
    text.remove_suffix(1);
  else if (text.empty())
    return lines;
  while (lines.size() < limit) {
    const size_t lineFeed = text.rfind('\n');
    std::string_view line = lineFeed == std::string_view::npos ? text : text.substr(lineFeed + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines.push_back(line);
    if (lineFeed == std::string_view::npos) break;
    text = text.substr(0, lineFeed);
  }
  std::reverse(lines.begin(), lines.end());
  return lines;
}

bool ReplyWithLogs(const PipeRequest& request, int32_t limit, std::string& reply) {
  ReadRequestInt(request.line, "limit", limit);
  reply = ResultReply(request.id, BuildRecentLogsJson(limit));
  return true;
}

}  // namespace

std::string BuildStateJson() {
  const std::string deviceId = ReadDeviceId();
  const std::string publicKey = ReadPublicKey();
  const int32_t status = gTunnelStatus;
  const Traffic traffic = ReadTraffic(status);
  const std::string lastError = TrimAscii(CopyLastError());
  return "{\"deviceId\":" + JsonQuoteOrNull(deviceId) + ",\"wgPublicKey\":" + JsonQuoteOrNull(publicKey) +
         ",\"state\":" + JsonQuote(Word(kStateWords, status)) + ",\"protocol\":\"WireGuard\"" +
         ",\"rxBytes\":" + std::to_string(traffic.rx) + ",\"txBytes\":" + std::to_string(traffic.tx) +
         ",\"lastError\":" + JsonQuoteOrNull(lastError) + "}";
}

std::string BuildStatusJson() {
  std::wstring token;
  std::wstring tokenError;
  const bool hasToken = EnsureValidAccessToken(kDefaultCpBaseUrl, token, tokenError);
  // Wanted: a cached token that cannot be refreshed still counts.
  const bool authenticated = HasCachedToken() || hasToken;
  const int32_t status = gTunnelStatus;
  std::string lastError = TrimAscii(CopyLastError());
  if (lastError.empty()) lastError = TrimAscii(WideToUtf8(tokenError));
  const Selection selection = CopySelection();
  const Traffic traffic = ReadTraffic(status);
  return std::string("{\"auth_state\":\"") + (authenticated ? "AUTH_OK" : "AUTH_REQUIRED") + "\"" +
         ",\"last_error\":" + JsonQuoteOrNull(lastError) +
         ",\"tunnel_status\":" + JsonQuote(Word(kStatusWords, status)) + ",\"protocol\":\"WireGuard\"" +
         ",\"rx_bytes\":" + std::to_string(traffic.rx) + ",\"tx_bytes\":" + std::to_string(traffic.tx) +
         ",\"public_ip\":" + JsonQuoteOrNull(selection.publicIp) +
         ",\"selected_server_id\":" + JsonQuoteOrNull(selection.serverId) +
         ",\"selected_server\":" + SelectedServerJson(selection.serverId) + "}";
}

std::string BuildRecentLogsJson(int32_t limit) {
  FileContent log;
  // Wanted: the empty text, which makes the reply no valid JSON.
  if (!ReadWholeFile(GetLogFilePath(), log)) return std::string();
  constexpr std::string_view kOpening = R"({"ts":"","level":"INFO","msg":")";
  constexpr std::string_view kClosing = R"("})";
  const auto count = static_cast<size_t>(std::clamp(limit, kFewestLogLines, kMostLogLines));
  const std::vector<std::string_view> lines = LastLines(log.Text(), count);
  size_t size = 2;  // without escapes
  for (const std::string_view line : lines) size += kOpening.size() + line.size() + kClosing.size() + 1;
  std::string json;
  json.reserve(size);
  json += '[';
  for (const std::string_view line : lines) {
    if (json.size() > 1) json += ',';
    json += kOpening;
    AppendJsonEscaped(line, json);
    json += kClosing;
  }
  json += ']';
  return json;
}

std::string BuildLocationsJson() {
  if (!HasCachedToken()) return kNoLocations;
  std::vector<ServerRecord> servers;
  if (CpGetServerLocations(kDefaultCpBaseUrl, servers)) InstallCatalogue(std::move(servers));
  std::string selected;
  {
    std::lock_guard lock(gUiLock);
    servers = gUiServers;
    selected = gSelectedServerId;
  }
  return LocationsToJson(servers, selected);
}

bool GetStateMethod(const PipeRequest& request, std::string& reply) {
  reply = ResultReply(request.id, BuildStateJson());
  return true;
}

bool GetRecentLogsMethod(const PipeRequest& request, std::string& reply) {
  constexpr int32_t kDefaultLines = 120;
  return ReplyWithLogs(request, kDefaultLines, reply);
}

bool GetStatusMethod(const PipeRequest& request, std::string& reply) {
  reply = ResultReply(request.id, BuildStatusJson());
  return true;
}

bool GetLogsMethod(const PipeRequest& request, std::string& reply) {
  constexpr int32_t kDefaultLines = 200;
  return ReplyWithLogs(request, kDefaultLines, reply);
}

bool GetLocationsMethod(const PipeRequest& request, std::string& reply) {
  reply = ResultReply(request.id, BuildLocationsJson());
  return true;
}
