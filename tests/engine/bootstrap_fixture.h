// A machine with a session, keys and a scripted control plane, for runs of Bootstrap on the driver's thread.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/bootstrap.h"
#include "engine/tunnel_state.h"
#include "service/paths.h"
#include "sim/files.h"
#include "sim/http.h"
#include "sim/kernel.h"
#include "sim/network.h"
#include "tests/support/sim_failures.h"

using Lines = std::vector<std::string>;

inline constexpr wchar_t kControlPlaneHost[] = L"cp.telvor.test";

// The requests of a run, as "VERB path".
inline constexpr char kLocations[] = "GET /v1/servers/locations";
inline constexpr char kRegister[] = "POST /v1/devices";
inline constexpr char kUploadKey[] = "PUT /v1/devices/desktop-ab12/wg-key";
inline constexpr char kSelect[] = "PUT /v1/devices/desktop-ab12/wg-server";
inline constexpr char kSelectSecondShape[] = "PUT /v1/devices/desktop-ab12/server";
inline constexpr char kSelectThirdShape[] = "POST /v1/servers/select";
inline constexpr char kProfile[] = "GET /v1/devices/desktop-ab12/wg-profile";
inline constexpr char kRefresh[] = "POST /v1/auth/refresh";

inline constexpr char kTwoServers[] =
    R"({"servers":[{"server_id":"srv-a","city":"Oslo","public_egress_ip":"192.0.2.10","online":true},)"
    R"({"server_id":"srv-b","city":"Paris","public_egress_ip":"192.0.2.20","online":true}]})";

inline constexpr char kFullProfile[] =
    R"({"client_address":"10.8.0.2/32","allowed_ips":["0.0.0.0/0","::/0"],"dns":["10.8.0.1","1.1.1.1"],)"
    R"("persistent_keepalive":25,"assigned_server_id":"srv-a",)"
    R"("servers":[{"server_id":"srv-a","endpoint":"192.0.2.10:51820","server_public_key":"KEYA="},)"
    R"({"server_id":"srv-b","endpoint":"192.0.2.20:51820","server_public_key":"KEYB="}]})";

// What a run on the two above writes.
inline constexpr char kFullConfig[] =
    "[Interface]\r\nPrivateKey = PRIVATE=\r\nAddress = 10.8.0.2/32\r\nDNS = 10.8.0.1, 1.1.1.1\r\n\r\n"
    "[Peer]\r\nPublicKey = KEYA=\r\nAllowedIPs = 0.0.0.0/0, ::/0\r\nEndpoint = 192.0.2.10:51820\r\n"
    "PersistentKeepalive = 25\r\n";

inline constexpr char kAuthRequired[] =
    R"([BOOTSTRAP] AUTH_REQUIRED (no session: C:\ProgramData\TELVOR\auth\session.dat) )";

inline sim::HttpResponse Answer(uint32_t status, const std::string& body = "") {
  sim::HttpResponse response;
  response.status = status;
  response.body = body;
  return response;
}

inline sim::HttpResponse NoAnswer() {
  sim::HttpResponse response;
  response.failSend = 12029;
  return response;
}

inline void StoreSession(const std::string& accessToken, int64_t secondsLeft = 3600) {
  const std::string expiry = std::to_string(sim::UnixTime() + secondsLeft);
  sim::PutFile(kSessionFile, sim::Seal("{\"access_token\":\"" + accessToken +
                                       "\",\"refresh_token\":\"refresh-1\",\"expires_at\":" + expiry + "}"));
}

// The control plane's host resolves, the session is good for an hour, the keys are "PRIVATE=" and "PUBLIC=",
// and every request of a plain run is answered well.
class BootstrapRun {
 public:
  explicit BootstrapRun(const sim::Options& options = {}) : machine_(options) {
    sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
    StoreSession("access-1");
    sim::PutFile(kPrivateKeyFile, "PRIVATE=\r\n");
    sim::PutFile(kPublicKeyFile, "PUBLIC=\r\n");
    answers_[kLocations] = {Answer(200, kTwoServers)};
    answers_[kRegister] = {Answer(201)};
    answers_[kUploadKey] = {Answer(200)};
    answers_[kSelect] = {Answer(200)};
    answers_[kProfile] = {Answer(200, kFullProfile)};
    sim::SetHttpHandler([this](const sim::HttpRequest& request) { return Serve(request); });
  }

  // The answers in turn; the last one stays. A request without any gets 404.
  void AnswerTo(const std::string& request, std::deque<sim::HttpResponse> answers) {
    answers_[request] = std::move(answers);
  }

  void GiveProfile(const std::string& body) { AnswerTo(kProfile, {Answer(200, body)}); }

  // Runs when the request arrives, before its answer is chosen.
  void OnRequest(const std::string& request, std::function<void()> action) {
    actions_[request] = std::move(action);
  }

 private:
  sim::HttpResponse Serve(const sim::HttpRequest& request) {
    const std::string name = request.verb + " " + request.path8;
    if (const auto action = actions_.find(name); action != actions_.end()) action->second();
    const auto found = answers_.find(name);
    if (found == answers_.end()) return Answer(404, "no such path");
    const sim::HttpResponse response = found->second.front();
    if (found->second.size() > 1) found->second.pop_front();
    return response;
  }

  sim::Machine machine_;
  std::map<std::string, std::deque<sim::HttpResponse>> answers_;
  std::map<std::string, std::function<void()>> actions_;
};

// "VERB path" of each request that was sent, in order.
inline Lines Sent() {
  Lines sent;
  for (const sim::HttpRequest& request : sim::HttpRequests())
    sent.push_back(request.verb + " " + request.path8);
  return sent;
}

inline Lines SentBearers() {
  Lines bearers;
  for (const sim::HttpRequest& request : sim::HttpRequests()) bearers.push_back(request.bearer);
  return bearers;
}

// The body of the first such request.
inline std::optional<std::string> SentBody(const std::string& name) {
  for (const sim::HttpRequest& request : sim::HttpRequests()) {
    if (request.verb + " " + request.path8 == name) return request.body;
  }
  return std::nullopt;
}

inline std::optional<std::string> Config() {
  return sim::FileBytes(kTunnelConfigFile);
}

inline std::string LastLine() {
  const Lines lines = sim::LogLines();
  return lines.empty() ? "" : lines.back();
}

inline std::string LastErrorText() {
  const std::lock_guard lock(gLastErrorMutex);
  return sim::Narrow(gLastError);
}

inline std::string SelectedServer() {
  const std::lock_guard lock(gUiLock);
  return gSelectedServerId;
}
