#include "controlplane/catalogue.h"

#include <cstdint>
#include <mutex>
#include <string_view>
#include <utility>

#include "controlplane/base_url.h"
#include "controlplane/http_transport.h"
#include "controlplane/json_text.h"
#include "controlplane/server_list.h"
#include "controlplane/text.h"
#include "service/log.h"
#include "service/platform.h"

namespace {

struct SelectPut {
  const wchar_t* resource;
  const char* field;
};

// In the order in which they are tried, before the POST.
constexpr SelectPut kSelectPuts[] = {{L"/wg-server", "wg_server_id"}, {L"/server", "server_id"}};
constexpr wchar_t kSelectPostPath[] = L"/v1/servers/select";

bool FetchLocations(const std::wstring& baseUrl, const std::wstring& token, std::string& body) {
  uint32_t status = 0;
  const bool fetched = HttpGet(CpUrl(baseUrl, L"/v1/servers/locations"), token, status, body);
  if (fetched && Is2xx(status)) return true;
  LogLine(std::wstring(L"CpGetServerLocations: ") + (fetched ? L"non-2xx HTTP " : L"HTTP ") +
          std::to_wstring(status) + L" head=" + BodyHead(body));
  return false;
}

// True for a finished exchange with a 2xx; anything else is logged, `place` behind the status.
bool SelectAnswered(const std::wstring& what, const std::wstring& place, bool finished, uint32_t status,
                    const std::string& answer) {
  if (finished && Is2xx(status)) return true;
  LogLine(L"CpSelectServer: " + what + (finished ? L" non-2xx HTTP " : L" failed HTTP ") +
          std::to_wstring(status) + place + L" head=" + BodyHead(answer));
  return false;
}

void StoreAssignedServer(const ServerRecord& server) {
  {
    const std::lock_guard<platform::Mutex> lock(gUiLock);
    if (!gSelectedServerId.empty() && gSelectedServerId != server.id) {
      // Written with the lock held, so that the line tells the selection that won; wanted.
      LogLine(L"[UI] Ignoring wg-profile assigned_server_id=" + Utf8ToWide(server.id) +
              L" because UI selected server_id=" + Utf8ToWide(gSelectedServerId));
      return;
    }
    gSelectedServerId = server.id;
    gSelectedServer = server;
    gSelectedServerValid = true;
  }
  LogLine(L"[UI] Selected server stored in memory: id=" + Utf8ToWide(server.id) + L" valid=true");
}

}  // namespace

bool CpGetServerLocations(const std::wstring& baseUrl, std::vector<ServerRecord>& servers) {
  servers.clear();
  std::wstring token;
  {
    const std::lock_guard<platform::Mutex> lock(gSessionMutex);
    token = gCachedAccessToken;
  }
  if (token.empty()) {
    // The three odd characters are wanted: the log's encoding cuts the line at the second of them.
    LogLine(L"[BOOTSTRAP] AUTH_REQUIRED (no token) \u00e2\u20ac\u201d waiting for GUI login.");
    return false;
  }
  std::string body;
  if (!FetchLocations(baseUrl, token, body)) return false;
  if (!ReadServerRecords(body, servers)) {
    LogLine(L"CpGetServerLocations: missing/invalid servers[]");
    return false;
  }
  for (const ServerRecord& server : servers) {
    LogLine(L"[CP] server_id=" + Utf8ToWide(server.id) + L" city=" + Utf8ToWide(server.city) +
            L" public_egress_ip=" + Utf8ToWide(server.public_egress_ip));
  }
  std::erase_if(servers, [](const ServerRecord& server) { return server.id.empty(); });
  LogLine(L"[CP] /v1/servers/locations parsed servers=" + std::to_wstring(servers.size()));
  return true;
}

bool CpSelectServer(const std::wstring& baseUrl, const std::wstring& token, const std::wstring& deviceId,
                    const std::string& serverId) {
  const std::string id = "\"" + JsonEscape(serverId) + "\"";
  uint32_t status = 0;
  std::string answer;
  for (const SelectPut& put : kSelectPuts) {
    const std::wstring path = L"/v1/devices/" + deviceId + put.resource;
    const std::string request = std::string("{\"") + put.field + "\":" + id + "}";
    const bool finished = HttpPut(CpUrl(baseUrl, path), token, request, kJsonContentType, status, answer);
    if (SelectAnswered(L"PUT", L" path=" + path, finished, status, answer)) return true;
  }
  const std::string request =
      "{\"device_id\":\"" + JsonEscape(WideToUtf8(deviceId)) + "\",\"server_id\":" + id + "}";
  const bool finished =
      HttpPostUtf8(CpUrl(baseUrl, kSelectPostPath), token, request, kJsonContentType, status, answer);
  return SelectAnswered(std::wstring(L"POST ") + kSelectPostPath, L"", finished, status, answer);
}

void ApplyAssignedServerFromProfile(const std::string& profileBody) {
  std::string assignedId;
  JsonGetString(profileBody, "assigned_server_id", assignedId);
  const std::string_view body = profileBody;
  const size_t assigned = body.find("\"assigned_server\"");
  if (assigned != std::string_view::npos) {
    ServerRecord server;
    // The text runs to the end of the body: a key that the object lacks may be found behind it; wanted.
    ReadServerFields(body.substr(assigned), server);
    if (server.id.empty()) server.id = assignedId;
    if (!server.id.empty()) StoreAssignedServer(server);
    return;
  }
  if (assignedId.empty()) return;
  const std::lock_guard<platform::Mutex> lock(gUiLock);
  if (gSelectedServerId.empty()) gSelectedServerId = assignedId;
}
