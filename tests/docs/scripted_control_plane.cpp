#include "tests/docs/scripted_control_plane.h"

#include <string_view>

#include "sim/http.h"
#include "sim/kernel.h"

const char kProfileWithPlace[] =
    R"({"client_address":"10.8.0.2/32","assigned_server_id":"srv-a","allowed_ips":["0.0.0.0/0"],)"
    R"("dns":["10.8.0.1"],"persistent_keepalive":25,"servers":[{"server_id":"srv-a",)"
    R"("endpoint":"203.0.113.10:51820","server_public_key":"c2VydmVyLWEta2V5LXNlcnZlci1hLWtleS1zZXJ2ZXI="}],)"
    R"("assigned_server":{"server_id":"srv-a","name":"Alpha","country":"DE","city":"Berlin",)"
    R"("latitude":52.52,"longitude":13.405,"public_egress_ip":"203.0.113.10"}})";

namespace {

struct Answer {
  std::string request;  // the beginning of "VERB path"
  uint32_t status;
  std::string body;
};

// The session of the first login ends at 01:00, the refreshed one at 02:00 of the machine's first day.
constexpr char kFirstTokens[] =
    R"({"access_token":"access-1","refresh_token":"refresh-1","expires_at":1767229200})";
constexpr char kNextTokens[] =
    R"({"access_token":"access-2","refresh_token":"refresh-2","expires_at":1767232800})";

constexpr char kLocations[] =
    R"({"servers":[{"server_id":"srv-a","name":"Alpha","country":"DE","city":"Berlin","latitude":52.52,)"
    R"("longitude":13.405,"public_egress_ip":"203.0.113.10","online":true,)"
    R"("last_seen_at":"2026-01-01T00:00:00Z"},)"
    R"({"server_id":"srv-b","name":"Beta","country":"NL","city":"Amsterdam","latitude":52.37,)"
    R"("longitude":4.9,"public_egress_ip":"203.0.113.20","online":false,"last_seen_at":""}]})";

// {assigned} stands for the server that the device chose last.
constexpr char kProfile[] =
    R"({"client_address":"10.8.0.2/32","assigned_server_id":"{assigned}","allowed_ips":["0.0.0.0/0"],)"
    R"("dns":["10.8.0.1"],"persistent_keepalive":25,"servers":[{"server_id":"srv-a",)"
    R"("endpoint":"203.0.113.10:51820","server_public_key":"c2VydmVyLWEta2V5LXNlcnZlci1hLWtleS1zZXJ2ZXI="},)"
    R"({"server_id":"srv-b","endpoint":"203.0.113.20:51820",)"
    R"("server_public_key":"c2VydmVyLWIta2V5LXNlcnZlci1iLWtleS1zZXJ2ZXI="}]})";
constexpr std::string_view kAssignedMark = "{assigned}";

std::string gAssigned;

const std::vector<Answer>& StandingAnswers() {
  static const std::vector<Answer> answers = {
      {"GET /v1/auth/registered?", 200, R"({"registered":false})"},
      {"POST /v1/auth/register", 201, "{}"},
      {"POST /v1/auth/login", 200, kFirstTokens},
      {"POST /v1/auth/refresh", 200, kNextTokens},
      {"POST /v1/auth/password/reset/start", 200,
       R"({"request_id":"r-1","masked_email":"u***@example.com","expires_in_seconds":600})"},
      {"POST /v1/auth/password/reset/confirm", 204, ""},
      {"GET /v1/me/quota", 200, R"({"quota_current":true})"},
      {"GET /v1/me/entitlement", 200,
       R"({"payment_current":true,"status":"active","period_end":"2026-02-01T00:00:00Z"})"},
      {"POST /v1/billing/checkout", 200, R"({"checkout_url":"https:\/\/pay.example\/c\/1?a=1&b=2"})"},
      {"GET /v1/servers/locations", 200, kLocations},
      {"POST /v1/servers/select", 200, "{}"},
      {"POST /v1/devices", 201, "{}"},
      {"PUT /v1/devices/", 200, "{}"},
      {"GET /v1/devices/desktop-ab12/wg-profile", 200, kProfile},
  };
  return answers;
}

std::vector<Answer> gOnce;

Answer AnswerTo(const std::string& request) {
  for (auto once = gOnce.begin(); once != gOnce.end(); ++once) {
    if (!request.starts_with(once->request)) continue;
    Answer answer = *once;
    gOnce.erase(once);
    return answer;
  }
  for (Answer answer : StandingAnswers()) {
    if (!request.starts_with(answer.request)) continue;
    const size_t mark = answer.body.find(kAssignedMark);
    if (mark != std::string::npos) answer.body.replace(mark, kAssignedMark.size(), gAssigned);
    return answer;
  }
  return {request, 404, R"({"error":"not_found"})"};
}

void NoteSelection(const std::string& body) {
  for (const char* server : {"srv-a", "srv-b"}) {
    if (body.find(std::string("server_id\":\"") + server) != std::string::npos) gAssigned = server;
  }
}

// Verb and path, the headers that the service sets, an empty line and the body if there is one; the status
// and the body.
std::vector<std::string> ExampleText(const sim::HttpRequest& request, const Answer& answer) {
  std::vector<std::string> text = {"-> " + request.verb + " " + request.path8};
  const std::string headers = sim::Narrow(request.headers);
  for (size_t at = 0; at < headers.size();) {
    const size_t end = headers.find("\r\n", at);
    text.push_back("-> " + headers.substr(at, end - at));
    at = end == std::string::npos ? headers.size() : end + 2;
  }
  if (!request.body.empty()) text.insert(text.end(), {"->", "-> " + request.body});
  text.push_back("<- " + std::to_string(answer.status));
  if (!answer.body.empty()) text.push_back("<- " + answer.body);
  return text;
}

}  // namespace

void UseScriptedControlPlane(std::vector<HttpExchange>& exchanges) {
  gOnce.clear();
  gAssigned = "srv-a";
  sim::SetHttpHandler([&exchanges](const sim::HttpRequest& request) {
    const std::string line = request.verb + " " + request.path8;
    NoteSelection(request.body);
    const Answer answer = AnswerTo(line);
    exchanges.push_back({line, ExampleText(request, answer)});
    sim::HttpResponse response;
    response.status = answer.status;
    response.body = answer.body;
    return response;
  });
}

void AnswerOnce(const std::string& request, uint32_t status, const std::string& body) {
  gOnce.push_back({request, status, body});
}
