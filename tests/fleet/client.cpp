#include "client.h"

#include "engine/tunnel_state.h"
#include "service/platform.h"
#include "sim/device.h"
#include "sim/http.h"
#include "sim/kernel.h"
#include "sim/pipes.h"
#include "sim/services.h"

namespace fleet {
namespace {

constexpr uint64_t kMinute = 60'000;
constexpr int64_t kNight = 14 * 3600;  // seconds
constexpr uint32_t kAnswerTime = 50;   // milliseconds
constexpr uint32_t kCannotConnect = 12029;
constexpr int kServers = 200;
// What a stop leaves open by design.
constexpr size_t kManyHandles = 1000;

// Process-wide, as the endpoint's handler is.
std::vector<SeenRequest> gSeen;
int64_t gZero = 0;  // the story's, on the machine's clock
bool gReachable = true;
sim::ControlPlane* gPlane = nullptr;
bool gLifetimesVary = false;

std::string Server(int number) {
  const std::string id =
      number < 2 ? std::string(1, static_cast<char>('a' + number)) : std::to_string(number);
  return R"({"server_id":"srv-)" + id + R"(","name":"Server )" + id + R"(","country":"DE","city":"Berlin",)" +
         R"("latitude":52.52,"longitude":13.405,"public_egress_ip":"203.0.113.)" +
         std::to_string(number + 10) + R"(","online":true,"last_seen_at":"2026-01-01T00:00:00Z"})";
}

std::string Catalogue() {
  std::string body = R"({"servers":[)";
  for (int number = 0; number < kServers; ++number) body += (number == 0 ? "" : ",") + Server(number);
  return body + "]}";
}

sim::HttpResponse Unreachable() {
  sim::HttpResponse response;
  response.status = 0;
  response.failSend = kCannotConnect;
  return response;
}

sim::HttpResponse AnswerAndNote(const sim::HttpRequest& request) {
  if (gLifetimesVary)
    gPlane->lifetimeSeconds = 45 * 60 + static_cast<int64_t>(sim::DrawDeviceRandom() % (30 * 60));
  sim::HttpResponse response = gReachable ? sim::ControlPlaneAnswer(request) : Unreachable();
  response.milliseconds = kAnswerTime;
  gSeen.push_back({static_cast<int64_t>(sim::Now()) - gZero, request.verb,
                   request.path8.substr(0, request.path8.find('?')), request.body.size(), response.status,
                   response.body.size()});
  return response;
}

void OpenControlPlane() {
  sim::ControlPlane& plane = sim::UseControlPlane();
  gPlane = &plane;
  plane.locationsBody = Catalogue();
  sim::HttpResponse entitlement;
  entitlement.body = R"({"payment_current":true,"status":"active","period_end":"2026-02-01T00:00:00Z"})";
  sim::HttpResponse quota;
  quota.body = R"({"quota_current":true})";
  plane.overrides = {{"GET /v1/me/entitlement", entitlement}, {"GET /v1/me/quota", quota}};
  sim::SetHttpHandler(&AnswerAndNote);
}

void Ask(const Asking& asking) {
  const std::string parameters =
      *asking.parameters ? std::string(",\"params\":{") + asking.parameters + "}" : std::string();
  sim::Ask("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"" + std::string(asking.method) + "\"" + parameters +
           "}");
}

void SwitchOn() {
  sim::StartProduct(true);
  sim::RunUntil([] { return sim::PipeInstances() > 0; }, kMinute);
}

void SwitchOff() {
  sim::SendControl(platform::kServiceControlStop);
  sim::RunUntil([] { return !sim::ProductRunning(); }, kMinute);
}

void LiveTheDayBefore() {
  SwitchOn();
  Ask({0, "POST /ui/login", R"("email":"user@example.com","password":"secret")"});
  Ask({0, "Connect"});
  sim::RunUntil([] { return gTunnelStatus == kStatusConnected; }, kMinute);
  Ask({0, "Disconnect"});
  sim::Run(kMinute);
  SwitchOff();
  sim::SetUnixTime(sim::UnixTime() + kNight);
}

void PlanOutage(const ClientPlan& plan) {
  if (plan.outageEnds == 0) return;
  sim::After(plan.outageBegins, [] { gReachable = false; });
  sim::After(plan.outageEnds, [] { gReachable = true; });
}

}  // namespace

std::vector<SeenRequest> RunClient(const ClientPlan& plan) {
  gReachable = true;
  gLifetimesVary = plan.lifetimesVary;
  sim::Machine machine({.seed = plan.seed, .keepsTrace = false});
  sim::ExpectOpenHandles(kManyHandles);
  OpenControlPlane();
  LiveTheDayBefore();
  const uint64_t switchedOn = sim::Now();
  gSeen.clear();
  gZero = static_cast<int64_t>(switchedOn + plan.zero);
  PlanOutage(plan);
  SwitchOn();
  for (const Asking& asking : plan.askings) {
    const uint64_t time = switchedOn + asking.time;
    if (sim::Now() < time) sim::Run(time - sim::Now());
    Ask(asking);
  }
  if (sim::Now() < switchedOn + plan.end) sim::Run(switchedOn + plan.end - sim::Now());
  SwitchOff();
  return std::move(gSeen);
}

}  // namespace fleet
