#include "neighbours.h"

#include <string>
#include <utility>
#include <vector>

#include "facts.h"
#include "invariants.h"
#include "service/paths.h"
#include "service/platform.h"
#include "sim/device.h"
#include "sim/files.h"
#include "sim/http.h"
#include "sim/kernel.h"
#include "sim/network.h"
#include "sim/processes.h"
#include "sim/services.h"

namespace simulator {
namespace {

// How many there are of each.
constexpr uint32_t kPlaneTroubles = 12;
constexpr uint32_t kProgramTroubles = 5;
constexpr uint32_t kTunnelTroubles = 6;
constexpr uint32_t kNetworkTroubles = 9;
constexpr uint32_t kNameTroubles = 7;
constexpr uint32_t kPolicyCount = 5;
constexpr uint32_t kHeldFiles = 6;

constexpr wchar_t kSeedFile[] = L"C:\\Program Files\\TELVOR\\data\\runtime.seed";
constexpr wchar_t kOtherTunnel[] = L"WireGuardTunnel$office";
constexpr uint32_t kEthernet = 7;

// Process-wide, as the endpoint's handler is.
struct Neighbours {
  sim::ControlPlane* plane = nullptr;
  uint32_t tokens = 0;
  uint32_t programTrouble = 0;  // 0: none
};
Neighbours gNeighbours;

// ---- The control plane ----

constexpr std::pair<const char*, const char*> kAccountAnswers[] = {
    {"GET /v1/auth/registered", R"({"registered":true})"},
    {"POST /v1/auth/register", "{}"},
    {"POST /v1/auth/password/reset/start",
     R"({"request_id":"r-1","masked_email":"u***@example.com","expires_in_seconds":600})"},
    {"POST /v1/auth/password/reset/confirm", "{}"},
    {"GET /v1/me/quota", R"({"quota_current":true})"},
    {"GET /v1/me/entitlement", R"({"payment_current":true,"status":"active","period_end":""})"},
    {"POST /v1/billing/checkout", R"({"checkout_url":"https://pay.example/c/1"})"},
    {"POST /v1/servers/select", "{}"},
};

constexpr const char* kEndpoints[] = {
    "/v1/",    "/v1/auth/login", "/v1/auth/refresh", "/v1/servers/locations", "POST /v1/devices",
    "/wg-key", "/wg-server",     "/wg-profile"};

std::vector<std::pair<std::string, sim::HttpResponse>> AccountOverrides() {
  std::vector<std::pair<std::string, sim::HttpResponse>> overrides;
  for (const auto& [line, body] : kAccountAnswers) {
    sim::HttpResponse response;
    response.body = body;
    overrides.emplace_back(line, response);
  }
  return overrides;
}

sim::HttpResponse StatusOnly(uint32_t status, const std::string& body = "") {
  sim::HttpResponse response;
  response.status = status;
  response.body = body;
  return response;
}

sim::HttpResponse After(uint32_t milliseconds) {
  sim::HttpResponse response = StatusOnly(503);
  response.milliseconds = milliseconds;
  return response;
}

sim::HttpResponse Broken(uint32_t send, uint32_t receive, uint32_t readAfter) {
  sim::HttpResponse response = StatusOnly(200, R"({"servers":[{"server_id":"srv-a","name":"Al)");
  response.failSend = send;
  response.failReceive = receive;
  response.failReadAfter = readAfter;
  return response;
}

sim::HttpResponse PlaneTrouble(uint32_t trouble) {
  switch (trouble % kPlaneTroubles) {
    case 0:
      return Broken(12029, 0, UINT32_MAX);
    case 1:
      return Broken(0, 12002, UINT32_MAX);
    case 2:
      return Broken(0, 0, 20);
    case 3:
      return StatusOnly(500, "Internal Server Error");
    case 4:
      return StatusOnly(401, R"({"error":"unauthorized"})");
    case 5:
      return StatusOnly(200, R"({"servers":[{"server_id":)");
    case 6:
      return StatusOnly(200, "\x01\x02\xff\xfe{{{]]]\"\"\"");
    case 7:
      return StatusOnly(200);
    case 8:
      return After(29'000);
    case 9:
      return After(31'000);
    case 10:
      return StatusOnly(204);
    default:
      return StatusOnly(200, std::string(20'000, '['));
  }
}

// What stands between "/v1/devices/" and the next slash.
std::string DeviceIn(const std::string& path) {
  const std::string folder = "/v1/devices/";
  if (!path.starts_with(folder)) return "";
  return path.substr(folder.size(), path.find('/', folder.size()) - folder.size());
}

// The plane's own answer, behind a note of what it is asked.
sim::HttpResponse AnswerAndNote(const sim::HttpRequest& request) {
  gFacts.bearer = request.bearer;
  gFacts.deviceNamed = DeviceIn(request.path8);
  Judge(Moment::kRequest);
  return sim::ControlPlaneAnswer(request);
}

void TellTokens() {
  const std::string number = std::to_string(++gNeighbours.tokens);
  gNeighbours.plane->accessToken = "Access-token-" + number + "-x9Kq";
  gNeighbours.plane->refreshToken = "Refresh-token-" + number + "-p2Vz";
  gFacts.tokens.insert(gNeighbours.plane->accessToken);
  gFacts.secrets.insert(gNeighbours.plane->accessToken);
  gFacts.secrets.insert(gNeighbours.plane->refreshToken);
}

// ---- WireGuard's programs ----

bool ShowsHandshake(const std::wstring& commandLine, const sim::ProcessResult& result) {
  if (commandLine.find(L"latest-handshakes") == std::wstring::npos || result.exitCode != 0) return false;
  const size_t tab = result.standardOutput.rfind('\t');
  return tab != std::string::npos && result.standardOutput.substr(tab + 1) != "0\n";
}

sim::ProcessResult RunProgram(const std::wstring& commandLine) {
  sim::ProcessResult result = sim::WireGuardProgram(commandLine);
  switch (gNeighbours.programTrouble) {
    case 1:
      result.starts = false;
      break;
    case 2:
      result.milliseconds = 20'000;
      break;
    case 3:
      result = {};
      result.exitCode = 1;
      result.standardError = "Error: Access is denied.\n";
      break;
    case 4:
      result.standardOutput = "rubbish\n\t\t\nmore\trubbish";
      break;
    case 5:
      result.milliseconds = 90'000;
      break;
    default:
      break;
  }
  if (result.starts && ShowsHandshake(commandLine, result)) gFacts.handshakeShownAt = sim::Now();
  return result;
}

constexpr const wchar_t* kFilesToHold[kHeldFiles] = {
    kSessionFile,    kTunnelConfigFile, kDeviceIdFile,
    kPrivateKeyFile, kPublicKeyFile,    L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log"};

void PutNetworkRight() {
  sim::ClearAdapters();
  sim::AddAdapter(L"Ethernet", kEthernet);
  if (sim::ServiceState(kTunnelService) == 4U) sim::AddAdapter(L"telvor", 42);
  std::vector<platform::MibIpForwardRow2> hosts;
  for (const auto& row : sim::Routes()) {
    if (row.destinationPrefixLength == 32) hosts.push_back(row);
  }
  sim::ClearRoutes();
  sim::AddRoute(sim::Route("0.0.0.0", 0, "192.168.1.1", kEthernet, 25));
  for (const auto& row : hosts) sim::AddRoute(row);
}

// A tunnel service that hangs leaves its state only by this.
void PutTunnelServiceRight() {
  const uint32_t state = sim::ServiceState(kTunnelService).value_or(platform::kServiceStopped);
  const bool pending = state == platform::kServiceStartPending || state == platform::kServiceStopPending;
  if (pending) sim::SetServiceState(kTunnelService, platform::kServiceStopped);
  sim::RemoveService(kOtherTunnel);
}

}  // namespace

void SettleIn() {
  gNeighbours = Neighbours{};
  gNeighbours.plane = &sim::UseControlPlane();
  gNeighbours.plane->email = "user@example.com";
  gNeighbours.plane->password = "Secret-pass-1";
  gFacts.secrets = {"Secret-pass-1", "Other-pass-2", "Wrong-pass-3"};
  gFacts.deviceIds = {"desktop-ab12"};
  TellTokens();
  HealPlane();
  sim::SetProcessHandler(&RunProgram);
  sim::SetHttpHandler(&AnswerAndNote);
  ChangePolicy(0);
  TroubleNames(0);
}

void HealAll() {
  sim::ClearFaults();
  HealPlane();
  gNeighbours.programTrouble = 0;
  sim::HandshakeAnswers(true);
  for (const wchar_t* file : kFilesToHold) sim::ReleaseFile(file);
  PutNetworkRight();
  PutTunnelServiceRight();
  TroubleNames(0);
}

void TroublePlane(uint32_t endpoint, uint32_t trouble) {
  auto& overrides = gNeighbours.plane->overrides;
  overrides.insert(overrides.begin(), {kEndpoints[endpoint % std::size(kEndpoints)], PlaneTrouble(trouble)});
}

void HealPlane() {
  gNeighbours.plane->overrides = AccountOverrides();
}

void RotateTokens() {
  TellTokens();
}

void TroublePrograms(uint32_t trouble) {
  gNeighbours.programTrouble = trouble % (kProgramTroubles + 1);
}

void TroubleTunnelService(uint32_t trouble) {
  sim::Service service;
  switch (trouble % kTunnelTroubles) {
    case 0:
      if (sim::ServiceInstalled(kTunnelService)) sim::SetServiceState(kTunnelService, 1);
      break;
    case 1:
      sim::RemoveService(kTunnelService);
      break;
    case 2:
      service.name = kTunnelService;
      service.hangsOnStart = true;
      sim::InstallService(service);
      break;
    case 3:
      service.name = kTunnelService;
      service.state = 4;
      service.hangsOnStop = true;
      sim::InstallService(service);
      break;
    case 4:
      service.name = kOtherTunnel;
      service.state = 4;
      sim::InstallService(service);
      break;
    default:
      service.name = kTunnelService;
      service.startMilliseconds = 12'000;
      service.stopMilliseconds = 9'000;
      sim::InstallService(service);
      break;
  }
}

void TroubleNetwork(uint32_t trouble) {
  switch (trouble % kNetworkTroubles) {
    case 0:
      sim::ClearRoutes();
      break;
    case 1:
      sim::AddRoute(sim::Route("0.0.0.0", 0, "10.0.0.1", kEthernet, 5));
      break;
    case 2:
      sim::RemoveAdapter(L"telvor");
      break;
    case 3:
      sim::RemoveAdapter(L"Ethernet");
      break;
    case 4:
      sim::AddAdapter(L"Wi-Fi", 9);
      sim::AddRoute(sim::Route("0.0.0.0", 0, "192.168.7.1", 9, 10));
      break;
    case 5:
      sim::AddRoute(sim::Route("198.51.100.7", 32, "192.168.1.254", kEthernet, 1));
      break;
    case 6:
      sim::ClearAdapters();
      break;
    case 7:
      sim::SetBestRoute(sim::Route("0.0.0.0", 0, "0.0.0.0", 42, 0));
      break;
    default:
      PutNetworkRight();
      break;
  }
}

void TroubleNames(uint32_t trouble) {
  const bool plane = trouble % kNameTroubles != 1;
  sim::SetHost(L"cp.telvor.test", plane ? std::vector<std::string>{"10.99.0.1"} : std::vector<std::string>{},
               trouble % kNameTroubles == 2 ? 4000 : 0);
  if (trouble % kNameTroubles == 3) sim::SetHost(L"cp.telvor.test", {"10.99.0.9", "10.99.0.1", "0.0.0.0"});
  std::vector<std::string> bypass = {"198.51.100.20", "198.51.100.21"};
  if (trouble % kNameTroubles == 4) bypass = {"198.51.100.21", "198.51.100.22"};
  if (trouble % kNameTroubles == 5) bypass = {};
  sim::SetHost(L"bypass.example", bypass, trouble % kNameTroubles == 6 ? 3000 : 0);
}

void ChangePolicy(uint32_t policy) {
  constexpr const char* kPolicies[kPolicyCount] = {"[domains]\nbypass.example\n[ips]\n198.51.100.7\n", "",
                                                   "[ips]\n198.51.100.8\n198.51.100.7/32\n0.0.0.0\n",
                                                   "[ips]\nnot-an-ip\n198.51.100.9\n",
                                                   "\xff\xfe rubbish [[[\n[domains]\nno.such.example\n"};
  sim::PutFile(kSeedFile, kPolicies[policy % kPolicyCount]);
  sim::RemoveFile(kRuntimePolicyFile);
}

void HoldAFile(uint32_t file) {
  const wchar_t* path = kFilesToHold[file % kHeldFiles];
  sim::HoldFile(path);
  sim::After(20'000, [path] { sim::ReleaseFile(path); });
}

}  // namespace simulator
