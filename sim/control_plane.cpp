// The small control plane for whole runs.
#include <string>

#include "device.h"
#include "http.h"
#include "network.h"

namespace sim {
namespace {

constexpr char kLocations[] =
    R"({"servers":[{"server_id":"srv-a","name":"Alpha","country":"DE","city":"Berlin","latitude":52.52,)"
    R"("longitude":13.405,"public_egress_ip":"203.0.113.10","online":true,)"
    R"("last_seen_at":"2026-01-01T00:00:00Z"},)"
    R"({"server_id":"srv-b","name":"Beta","country":"NL","city":"Amsterdam","latitude":52.37,)"
    R"("longitude":4.9,"public_egress_ip":"203.0.113.20","online":true,)"
    R"("last_seen_at":"2026-01-01T00:00:00Z"}]})";

constexpr char kProfile[] =
    R"({"client_address":"10.8.0.2/32","assigned_server_id":"{assigned}","allowed_ips":["0.0.0.0/0"],)"
    R"("dns":["10.8.0.1"],"persistent_keepalive":25,"servers":[{"server_id":"srv-a",)"
    R"("endpoint":"203.0.113.10:51820","server_public_key":"c2VydmVyLWEta2V5LXNlcnZlci1hLWtleS1zZXJ2ZXI="},)"
    R"({"server_id":"srv-b","endpoint":"203.0.113.20:51820",)"
    R"("server_public_key":"c2VydmVyLWIta2V5LXNlcnZlci1iLWtleS1zZXJ2ZXI="}]})";

constexpr char kAssignedMark[] = "{assigned}";

ControlPlane gControlPlane;

HttpResponse Answer(uint32_t status, const std::string& body) {
  HttpResponse response;
  response.status = status;
  response.body = body;
  return response;
}

bool BodyHas(const HttpRequest& request, const std::string& key, const std::string& value) {
  return request.body.find('"' + key + "\":\"" + value + '"') != std::string::npos;
}

std::string ValueIn(const std::string& body, const std::string& key) {
  const std::string mark = '"' + key + "\":\"";
  const size_t at = body.find(mark);
  if (at == std::string::npos) return "";
  const size_t from = at + mark.size();
  return body.substr(from, body.find('"', from) - from);
}

HttpResponse Tokens() {
  const int64_t expiry = UnixTime() + gControlPlane.lifetimeSeconds;
  return Answer(200, R"({"access_token":")" + gControlPlane.accessToken + R"(","refresh_token":")" +
                         gControlPlane.refreshToken + R"(","expires_at":)" + std::to_string(expiry) + "}");
}

HttpResponse LogIn(const HttpRequest& request) {
  const bool known =
      BodyHas(request, "email", gControlPlane.email) && BodyHas(request, "password", gControlPlane.password);
  return known ? Tokens() : Answer(401, R"({"error":"invalid_credentials"})");
}

HttpResponse Refresh(const HttpRequest& request) {
  return BodyHas(request, "refresh_token", gControlPlane.refreshToken)
             ? Tokens()
             : Answer(401, R"({"error":"refresh_expired"})");
}

HttpResponse Locations(const HttpRequest&) {
  return Answer(200, gControlPlane.locationsBody);
}
HttpResponse RegisterDevice(const HttpRequest&) {
  return Answer(201, "{}");
}

HttpResponse TakeKey(const HttpRequest& request) {
  gControlPlane.devicePublicKey = ValueIn(request.body, "wg_public_key");
  return Answer(200, "{}");
}

HttpResponse TakeServer(const HttpRequest& request) {
  gControlPlane.assignedServer = ValueIn(request.body, "wg_server_id");
  return Answer(200, "{}");
}

HttpResponse Profile(const HttpRequest&) {
  std::string body = gControlPlane.profileBody;
  const size_t at = body.find(kAssignedMark);
  if (at != std::string::npos) body.replace(at, sizeof kAssignedMark - 1, gControlPlane.assignedServer);
  return Answer(200, body);
}

// A path that ends in a slash stands for what begins with it.
struct Endpoint {
  const char* verb;
  const char* path;
  const char* ending;
  bool needsToken;
  HttpResponse (*answer)(const HttpRequest& request);
};
constexpr Endpoint kEndpoints[] = {
    {"POST", "/v1/auth/login", "", false, &LogIn},
    {"POST", "/v1/auth/refresh", "", false, &Refresh},
    {"GET", "/v1/servers/locations", "", true, &Locations},
    {"POST", "/v1/devices", "", true, &RegisterDevice},
    {"PUT", "/v1/devices/", "/wg-key", true, &TakeKey},
    {"PUT", "/v1/devices/", "/wg-server", true, &TakeServer},
    {"GET", "/v1/devices/", "/wg-profile", true, &Profile},
};

bool Fits(const Endpoint& endpoint, const HttpRequest& request) {
  const std::string ending = endpoint.ending;
  if (request.verb != endpoint.verb) return false;
  if (ending.empty()) return request.path8 == endpoint.path;
  return request.path8.rfind(endpoint.path, 0) == 0 && request.path8.size() > ending.size() &&
         request.path8.compare(request.path8.size() - ending.size(), ending.size(), ending) == 0;
}

bool Knows(const Endpoint& endpoint, const HttpRequest& request) {
  return !endpoint.needsToken || request.bearer == gControlPlane.accessToken;
}

}  // namespace

HttpResponse ControlPlaneAnswer(const HttpRequest& request) {
  const std::string line = request.verb + ' ' + request.path8;
  for (const auto& [part, response] : gControlPlane.overrides) {
    if (line.find(part) != std::string::npos) return response;
  }
  for (const Endpoint& endpoint : kEndpoints) {
    if (!Fits(endpoint, request)) continue;
    return Knows(endpoint, request) ? endpoint.answer(request) : Answer(401, R"({"error":"unauthorized"})");
  }
  return Answer(404, R"({"error":"not_found"})");
}

ControlPlane& UseControlPlane() {
  {
    Guard guard;
    gControlPlane = ControlPlane{};
    gControlPlane.locationsBody = kLocations;
    gControlPlane.profileBody = kProfile;
  }
  SetHttpHandler(&ControlPlaneAnswer);
  SetHost(L"cp.telvor.test", {"10.99.0.1"});
  return gControlPlane;
}

}  // namespace sim
