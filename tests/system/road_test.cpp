// The road of one connection, from the start of the service to its stop, over the whole system.
#include "tests/support/system_run.h"

namespace {

constexpr char kConfigOfA[] =
    "Address = 10.8.0.2/32\r\nDNS = 10.8.0.1\r\n\r\n[Peer]\r\n"
    "PublicKey = c2VydmVyLWEta2V5LXNlcnZlci1hLWtleS1zZXJ2ZXI=\r\nAllowedIPs = 0.0.0.0/0\r\n"
    "Endpoint = 203.0.113.10:51820\r\nPersistentKeepalive = 25\r\n";

const Lines kBaselineNames = {
    "ALLOW loopback v4",
    "ALLOW loopback v6",
    "ALLOW wireguard.exe UDP (v4)",
    "ALLOW wireguard.exe UDP (v6)",
    "ALLOW DNS UDP/53 (v4)",
    "ALLOW DNS TCP/53 (v4)",
    "ALLOW wireguard.exe UDP (v4)",
    "ALLOW wireguard.exe UDP (v6)",
    "ALLOW WireGuard UDP dst-port (v4)",
    "ALLOW ALL outbound connect via WG interface (v4)",
    "ALLOW ALL outbound connect via WG interface (v6)",
    "ALLOW ALL outbound connect via WG interface (v4)",
    "ALLOW ALL outbound connect via WG interface (v6)",
};

// A permit is a pair, for TCP and for UDP.
void AddPairs(Lines& names, const std::string& prefix, const Lines& addresses) {
  for (const std::string& address : addresses) names.insert(names.end(), 2, prefix + address);
}

Lines NamesInForce() {
  Lines names;
  for (const std::wstring& name : sim::FilterNames()) names.push_back(sim::Narrow(name));
  return names;
}

// `pins`: how often the control plane was pinned so far.
Lines ExpectedNames(const Lines& bypass, size_t pins) {
  Lines names = kBaselineNames;
  AddPairs(names, "TELVOR:ALLOW cp-pinned v4:", {"10.99.0.1"});
  AddPairs(names, "TELVOR:ALLOW split-bypass v4:", bypass);
  AddPairs(names, "TELVOR:ALLOW cp-pinned v4:", Lines(pins - 1, "10.99.0.1"));
  return names;
}

Lines Sorted(Lines lines) {
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::string HostRoute(const std::string& address) {
  return address + "/32 via 192.168.1.1 if 7 metric 5";
}

// The worker's calls of the trace that a road is told by, as "operation detail".
Lines RoadOf(uint32_t thread) {
  const struct {
    const char* operation;
    const char* detail;  // only calls with this text in their arguments
  } kLandmarks[] = {
      {"WinHttpOpenRequest", "/v1/servers/locations"},
      {"WinHttpOpenRequest", "path=\"/v1/devices\""},
      {"WinHttpOpenRequest", "/wg-key"},
      {"WinHttpOpenRequest", "/wg-server"},
      {"WinHttpOpenRequest", "/wg-profile"},
      {"MoveFileExW", "telvor.conf.tmp"},
      {"CreateIpForwardEntry2", ""},
      {"EnumServicesStatusExW", "bufferSize=0"},
      {"CreateProcessW", "/installtunnelservice"},
      {"StartServiceW", ""},
      {"CreateProcessW", "latest-handshakes"},
      {"SetIpForwardEntry2", ""},
      {"GetAddrInfoW", "cp.telvor.test"},
      {"FwpmTransactionCommit0", ""},
      {"DeleteIpForwardEntry2", ""},
      {"ControlService", "control=1"},
      {"CreateProcessW", "/uninstalltunnelservice"},
  };
  Lines road;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    for (const auto& landmark : kLandmarks) {
      const bool fits =
          entry.operation == landmark.operation && entry.arguments.find(landmark.detail) != std::string::npos;
      if (entry.thread != thread || !fits) continue;
      road.push_back(std::string(entry.operation) +
                     (*landmark.detail ? std::string(" ") + landmark.detail : ""));
    }
  }
  return road;
}

// The thread that asks for handshakes.
uint32_t WorkerThread() {
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.arguments.find("latest-handshakes") != std::string::npos) return entry.thread;
  }
  return 0;
}

TEST(Road, TheWorkerTakesItsStepsInOrder) {
  SystemRun run;
  run.StartAndLogIn();
  sim::ClearTrace();
  run.Connect();
  // Behind whatever the idle branch was at when the request came.
  Lines road = RoadOf(WorkerThread());
  road.erase(road.begin(), std::find(road.begin(), road.end(), "GetAddrInfoW cp.telvor.test"));
  EXPECT_EQ(
      road,
      (Lines{"GetAddrInfoW cp.telvor.test", "WinHttpOpenRequest /v1/servers/locations",
             "WinHttpOpenRequest path=\"/v1/devices\"", "WinHttpOpenRequest /wg-key",
             "WinHttpOpenRequest /wg-server", "WinHttpOpenRequest /wg-profile", "MoveFileExW telvor.conf.tmp",
             "CreateIpForwardEntry2", "CreateIpForwardEntry2", "CreateIpForwardEntry2",
             "EnumServicesStatusExW bufferSize=0", "CreateProcessW /installtunnelservice", "StartServiceW",
             "CreateProcessW latest-handshakes", "CreateIpForwardEntry2", "SetIpForwardEntry2",
             "CreateIpForwardEntry2", "SetIpForwardEntry2", "CreateIpForwardEntry2", "SetIpForwardEntry2",
             // The address for the log, the baseline's pins, the update's pins.
             "GetAddrInfoW cp.telvor.test", "GetAddrInfoW cp.telvor.test", "FwpmTransactionCommit0",
             "GetAddrInfoW cp.telvor.test", "FwpmTransactionCommit0"}));
}

TEST(Road, LoginSavesTheSessionAndNewKeys) {
  SystemRun run;
  sim::PutFile(kPrivateKeyFile, "OLD");
  sim::PutFile(kPublicKeyFile, "OLD");
  run.StartAndLogIn();
  EXPECT_EQ(sim::Unseal(sim::FileBytes(kSessionFile).value_or("")),
            "{\"access_token\":\"access-1\",\"refresh_token\":\"refresh-1\",\"expires_at\":" +
                std::to_string(sim::UnixTime() + 3600) + "}");
  EXPECT_EQ(sim::FileBytes(kPrivateKeyFile)->size(), 46u);
  EXPECT_EQ(sim::FileBytes(kPublicKeyFile)->size(), 46u);
  EXPECT_TRUE(sim::LogHas("Auth: rotated active WG keypair after /v1/auth/login"));
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(gTunnelEpoch, 0u);
  EXPECT_EQ(State(), "disconnected");
}

TEST(Road, ConnectLeadsToATunnelRoutesAndFilters) {
  SystemRun run;
  run.StartConnected();
  EXPECT_TRUE(gTunnelUp);
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
  const std::string privateKey = sim::FileBytes(kPrivateKeyFile)->substr(0, 44);
  EXPECT_EQ(sim::FileBytes(kTunnelConfigFile),
            "[Interface]\r\nPrivateKey = " + privateKey + "\r\n" + kConfigOfA);
  EXPECT_EQ(run.plane.devicePublicKey, sim::FileBytes(kPublicKeyFile)->substr(0, 44));
  const Lines bypass = {"198.51.100.20", "198.51.100.21", "198.51.100.7"};
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute(bypass[0]), HostRoute(bypass[1]), HostRoute(bypass[2])}));
  EXPECT_EQ(NamesInForce(), ExpectedNames(bypass, 2));
  for (const sim::EngineFilter& filter : sim::FiltersInForce()) {
    EXPECT_EQ(filter.filter.actionType, platform::kFwpActionPermit);
    EXPECT_EQ(filter.filter.providerKey, kProviderKey);
  }
}

TEST(Road, TheLogTellsIt) {
  SystemRun run;
  run.StartConnected();
  EXPECT_TRUE(InOrder(sim::LogLines(),
                      {"SplitTunnelV1: runtime source=seed",
                       "  domains count=1",
                       "    domain: bypass.example",
                       "  ips count=1",
                       "    ip: 198.51.100.7",
                       "SplitTunnelV1: resolve bypass.example -> 2 IPs",
                       "SplitTunnelV1: effective bypass IPv4 count=3",
                       "  bypass4: 198.51.100.20",
                       "  bypass4: 198.51.100.21",
                       "  bypass4: 198.51.100.7",
                       "Worker thread started.",
                       "Worker: top.",
                       "BuildID: BOOTSTRAPFIX-2026-03-20-05:07pm-Z",
                       "SplitTunnelV1: enabled=true, dry_run=false",
                       "IPC: Connect requested",
                       "Bootstrap: wg conf created/updated.",
                       "SplitTunnelV1: pre-tunnel route install ENTER count=3",
                       "GetDefaultGatewayIPv4_WinApi: gw=192.168.1.1 ifIndex=7 (fallback)",
                       "SplitTunnelV1: pre-tunnel route install OK gw=192.168.1.1 ifIndex=7",
                       "WireGuard tunnel service not installed; installing from conf.",
                       "WireGuard: waiting for handshake...",
                       "WireGuard handshake OK.",
                       "WFP: WireGuard adapter ifIndex=42 (tunnelName='telvor')",
                       "WFP: Resolved cp.telvor.test to 10.99.0.1",
                       "VPNSERVICE: about to call EnableFailClosedBaseline",
                       "WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4=10.99.0.1 wgIfIndexV4=42",
                       "WFP: Transaction COMMIT OK",
                       "WFP: updating split-bypass allowlist after baseline: count=3",
                       "WFP: UpdateSplitTunnelBypassAllowlistV4 COMMIT OK",
                       "WFP: split-bypass allowlist update OK"}));
  EXPECT_EQ(sim::LogCount("access-1"), 0u);
  EXPECT_EQ(sim::LogCount("secret"), 0u);
}

TEST(Road, TheViewsShowIt) {
  SystemRun run;
  run.StartConnected();
  sim::SetTransfer(1000, 2000);
  const std::string key = sim::FileBytes(kPublicKeyFile)->substr(0, 44);
  EXPECT_EQ(Ask("GetState"),
            "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{\"deviceId\":\"desktop-ab12\",\"wgPublicKey\":\"" +
                key +
                "\",\"state\":\"connected\",\"protocol\":\"WireGuard\",\"rxBytes\":1000,\"txBytes\":2000,"
                "\"lastError\":null},\"error\":null}\n");
  const std::string server =
      R"({"id":"srv-a","name":"Alpha","country":"DE","city":"Berlin","lat":52.520000,"lon":13.405000,)"
      R"("online":true,"last_seen_at":"2026-01-01T00:00:00Z"})";
  EXPECT_EQ(Ask("GET /ui/status"),
            R"({"jsonrpc":"2.0","id":1,"result":{"auth_state":"AUTH_OK","last_error":null,)"
            R"("tunnel_status":"CONNECTED","protocol":"WireGuard","rx_bytes":1000,"tx_bytes":2000,)"
            R"("public_ip":"203.0.113.10","selected_server_id":"srv-a","selected_server":)" +
                server + "},\"error\":null}\n");
}

// The first three refreshes come 30 seconds apart, then one every 300 seconds, each at the next look.
TEST(Road, TheConnectedLoopRefreshesAtItsPace) {
  SystemRun run;
  run.StartConnected();
  uint64_t last = gLastRefreshTick;
  for (int refresh = 0; refresh < 5; ++refresh) {
    SCOPED_TRACE(refresh);
    ASSERT_TRUE(WaitForLine("WorkerLoop : Started refresh" + std::to_string(refresh), 10 * kMinute));
    const uint64_t interval = refresh < 3 ? 30'000 : 300'000;
    EXPECT_GT(sim::Now() - last, interval);
    EXPECT_LE(sim::Now() - last, interval + 500);
    EXPECT_TRUE(WaitForLine("SplitTunnelV1: refresh iteration=" + std::to_string(refresh), 1000));
    last = sim::Now();
  }
  EXPECT_EQ(gTunnelStatus, kStatusConnected);
}

TEST(Road, ARefreshMovesRoutesAndPermitsAndPinsOnceMore) {
  SystemRun run;
  run.StartConnected();
  sim::SetHost(L"bypass.example", {"198.51.100.21", "198.51.100.30"});
  ASSERT_TRUE(sim::RunUntil([] { return gRefreshIteration == 1; }, kMinute));
  const Lines bypass = {"198.51.100.21", "198.51.100.30", "198.51.100.7"};
  EXPECT_EQ(Sorted(sim::HostRouteTexts()),
            (Lines{HostRoute(bypass[0]), HostRoute(bypass[1]), HostRoute(bypass[2])}));
  // The pins of before stay in force beside the new ones.
  EXPECT_EQ(Sorted(NamesInForce()), Sorted(ExpectedNames(bypass, 3)));
  ASSERT_TRUE(sim::RunUntil([] { return gRefreshIteration == 2; }, kMinute));
  EXPECT_EQ(Sorted(NamesInForce()), Sorted(ExpectedNames(bypass, 4)));
}

TEST(Road, AnotherServerTakesANewConnect) {
  SystemRun run;
  run.StartConnected();
  EXPECT_EQ(SelectLocation("srv-b"), kTrueReply);
  EXPECT_TRUE(InOrder(
      sim::LogLines(),
      {"Bootstrap: selecting server_id=srv-b (persisting to CP)", "Bootstrap: wg conf created/updated.",
       "Select-location: tunnel is up; forcing immediate disconnect due to server change"}));
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(State(), "disconnected");
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_TRUE(WaitForIdle());
  run.Connect();
  EXPECT_EQ(run.plane.assignedServer, "srv-b");
  EXPECT_NE(sim::FileBytes(kTunnelConfigFile)->find("\r\nEndpoint = 203.0.113.20:51820\r\n"),
            std::string::npos);
  const std::string status = Ask("GET /ui/status");
  EXPECT_EQ(Field(status, "selected_server_id"), "srv-b");
  EXPECT_EQ(Field(status, "public_ip"), "203.0.113.20");
}

TEST(Road, DisconnectTakesEverythingDown) {
  SystemRun run;
  run.StartConnected();
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  // What the reply promises, before the worker has looked.
  EXPECT_FALSE(sim::ServiceInstalled(kTunnelService));
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_EQ(State(), "disconnected");
  ASSERT_TRUE(WaitForIdle(2000));
  EXPECT_TRUE(sim::LogHas("WorkerLoop EXIT: gTunnelDesired != Connected"));
  EXPECT_EQ(sim::RouteTexts(), Lines{"0.0.0.0/0 via 192.168.1.1 if 7 metric 25"});
  EXPECT_FALSE(gTunnelUp);
  EXPECT_TRUE(gBypassIpsApplied.empty());
  EXPECT_TRUE(sim::FileExists(kTunnelConfigFile));
}

TEST(Road, TearsDownRoutesThenTunnelThenFirewall) {
  SystemRun run;
  run.StartConnected();
  const uint32_t worker = WorkerThread();
  sim::ClearTrace();
  // As a stop event or the epoch would: nobody else tears down.
  gTunnelEpoch++;
  ASSERT_TRUE(WaitForLine("WorkerLoop EXIT: epoch changed: start=1 cur=2"));
  ASSERT_TRUE(sim::RunUntil([] { return FirewallIsOpen(); }, kMinute));
  EXPECT_EQ(RoadOf(worker), (Lines{"DeleteIpForwardEntry2", "DeleteIpForwardEntry2", "DeleteIpForwardEntry2",
                                   "ControlService control=1", "FwpmTransactionCommit0"}));
  // Desired is still 1: the next pass connects anew, with no wait.
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

TEST(Road, LogoutForgetsTheAccountAndOpensTheFirewall) {
  SystemRun run;
  run.StartConnected();
  EXPECT_EQ(Ask("POST /ui/logout"), kLogoutReply);
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_EQ(State(), "disconnected");
  EXPECT_FALSE(sim::FileExists(kSessionFile));
  const std::string status = Ask("GET /ui/status");
  EXPECT_EQ(Field(status, "auth_state"), "AUTH_REQUIRED");
  EXPECT_EQ(Field(status, "last_error"), "AUTH_REQUIRED");
  ASSERT_TRUE(WaitForIdle());
  for (const wchar_t* kept : {kDeviceIdFile, kPrivateKeyFile, kPublicKeyFile, kTunnelConfigFile}) {
    EXPECT_TRUE(sim::FileExists(kept)) << sim::Narrow(kept);
  }
}

TEST(Road, LeadsBackToAnEmptyMachine) {
  SystemRun run;
  const Lines routes = sim::RouteTexts();
  run.StartConnected();
  EXPECT_EQ(SelectLocation("srv-b"), kTrueReply);
  run.Connect();
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_EQ(Ask("POST /ui/logout"), kLogoutReply);
  ASSERT_TRUE(WaitForIdle());
  run.Stop();
  ExpectNothingLeft();
  EXPECT_EQ(sim::RouteTexts(), routes);
  EXPECT_FALSE(sim::ServiceInstalled(kTunnelService));
}

}  // namespace
