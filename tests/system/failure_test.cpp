// What fails on the way to a connection, over the whole system: handshakes, the control plane, the account,
// WireGuard's programs, the resolver and the filtering engine. The service goes on trying and says what the
// user has to do.
#include "tests/support/system_run.h"

namespace {

sim::HttpResponse Status(uint32_t status, const std::string& body = "") {
  sim::HttpResponse response;
  response.status = status;
  response.body = body;
  return response;
}

sim::HttpResponse Nothing() {
  sim::HttpResponse response;
  response.failSend = 12029;
  return response;
}

// Times at which the worker has begun a pass that wants a tunnel.
std::vector<uint64_t> PassTimes() {
  std::vector<uint64_t> times;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    const bool begins =
        entry.operation == "CreateDirectoryW" && entry.arguments == R"(path="C:\ProgramData\TELVOR\wg")";
    if (begins) times.push_back(entry.time);
  }
  return times;
}

// ---- Handshakes ----

TEST(Handshake, ThreeFailuresParkTheWorkerInError) {
  SystemRun run;
  sim::HandshakeAnswers(false);
  run.StartAndLogIn();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForStatus(kStatusError));
  EXPECT_TRUE(InOrder(sim::LogLines(), {"WireGuard handshake not seen (attempt 1); will retry.",
                                        "WireGuard handshake not seen (attempt 2); will retry.",
                                        "WireGuard handshake not seen (attempt 3); will retry."}));
  ASSERT_TRUE(WaitForLine("Handshake timed out repeatedly; entering ERROR until user action."));
  const std::string state = Ask("GetState");
  EXPECT_EQ(Field(state, "state"), "error");
  EXPECT_EQ(Field(state, "lastError"), "HANDSHAKE_TIMEOUT");
  EXPECT_TRUE(FirewallIsOpen());
  // It stays there, with the tunnel service running, for as long as nobody acts.
  const size_t passes = sim::LogCount("WireGuard: waiting for handshake...");
  sim::Run(60 * kMinute);
  EXPECT_EQ(gTunnelStatus, kStatusError);
  EXPECT_EQ(sim::LogCount("WireGuard: waiting for handshake..."), passes);
  EXPECT_EQ(passes, 3u);
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
}

TEST(Handshake, ConnectLeadsOutOfError) {
  SystemRun run;
  sim::HandshakeAnswers(false);
  run.StartAndLogIn();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForStatus(kStatusError));
  sim::HandshakeAnswers(true);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  EXPECT_EQ(gTunnelEpoch, 2u);
  ASSERT_TRUE(WaitForStatus(kStatusConnected));
  EXPECT_EQ(LastErrorText(), "");
  EXPECT_EQ(sim::LogCount("(attempt "), 3u);
}

TEST(Handshake, AConnectJustAsTheErrorShowsIsNotMissed) {
  SystemRun run;
  sim::HandshakeAnswers(false);
  run.StartAndLogIn();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  sim::Before(
      "WriteFile",
      [] {
        EXPECT_EQ(gTunnelStatus, kStatusError);
        sim::HandshakeAnswers(true);
        gTunnelDesired = 1;
        gTunnelEpoch++;
        gTunnelStatus = 1;
      },
      "entering ERROR until user action");
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

TEST(Handshake, AfterErrorTheAttemptsAreCountedAnew) {
  SystemRun run;
  sim::HandshakeAnswers(false);
  run.StartAndLogIn();
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    ASSERT_TRUE(sim::RunUntil(
        [round] { return sim::LogCount("Handshake timed out repeatedly") == static_cast<size_t>(round); },
        10 * kMinute));
  }
  EXPECT_EQ(sim::LogCount("WireGuard handshake not seen (attempt 1); will retry."), 2u);
  EXPECT_EQ(sim::LogCount("WireGuard handshake not seen (attempt 3); will retry."), 2u);
}

TEST(Handshake, DisconnectLeadsOutOfErrorToo) {
  SystemRun run;
  sim::HandshakeAnswers(false);
  run.StartAndLogIn();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForStatus(kStatusError));
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_FALSE(sim::ServiceInstalled(kTunnelService));
  EXPECT_EQ(State(), "disconnected");
  sim::Run(1000);
  EXPECT_EQ(gTunnelStatus, kStatusDisconnected);
  // Routes of a failed pass stay until the next connected teardown; so does the word of the failure.
  EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
  EXPECT_EQ(LastErrorText(), "HANDSHAKE_TIMEOUT");
}

TEST(Handshake, OnTheSecondAttemptClearsTheError) {
  SystemRun run;
  sim::HandshakeAnswers(false);
  run.StartAndLogIn();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForLine("WireGuard handshake not seen (attempt 1); will retry."));
  sim::HandshakeAnswers(true);
  ASSERT_TRUE(WaitForStatus(kStatusConnected));
  EXPECT_EQ(LastErrorText(), "");
}

// A dead tunnel stays connected, with the rule set in force, until someone acts.
TEST(Handshake, IsNotLookedAtAnyMoreOnceConnected) {
  SystemRun run;
  run.StartConnected();
  sim::HandshakeAnswers(false);
  sim::SetServiceState(kTunnelService, platform::kServiceStopped);
  sim::Run(20 * kMinute);
  EXPECT_EQ(gTunnelStatus, kStatusConnected);
  EXPECT_FALSE(FirewallIsOpen());
  // wg.exe fails now, and the counters show nothing.
  EXPECT_NE(Ask("GetState").find("\"rxBytes\":0,\"txBytes\":0"), std::string::npos);
}

// ---- The account and the control plane ----

TEST(Account, ConnectWithoutASessionWaitsForALogin) {
  SystemRun run;
  run.Start();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(sim::RunUntil([] { return LastErrorText() == "AUTH_REQUIRED"; }, kMinute));
  ASSERT_TRUE(WaitForStatus(kStatusDisconnected));
  const std::string status = Ask("GET /ui/status");
  EXPECT_EQ(Field(status, "auth_state"), "AUTH_REQUIRED");
  EXPECT_EQ(Field(status, "last_error"), "AUTH_REQUIRED");
  EXPECT_EQ(gTunnelDesired, 1);
  EXPECT_EQ(Login(), kLoginReply);
  EXPECT_EQ(LastErrorText(), "");
  // The login starts nothing; the worker finds the token at its next pass.
  EXPECT_EQ(gTunnelEpoch, 1u);
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

TEST(Account, AWrongPasswordChangesNothing) {
  SystemRun run;
  run.Start();
  EXPECT_EQ(Ask("POST /ui/login", R"("email":"user@example.com","password":"wrong")"),
            R"({"jsonrpc":"2.0","id":1,"result":{"ok":false,"message":"login non-2xx: 401"},"error":null})"
            "\n");
  EXPECT_FALSE(sim::FileExists(kSessionFile));
  EXPECT_FALSE(sim::FileExists(kPrivateKeyFile));
  EXPECT_EQ(LastErrorText(), "");
}

TEST(Account, AnExpiredSessionSaysSoUntilTheNextLogin) {
  SystemRun run;
  run.plane.lifetimeSeconds = 400;
  run.StartAndLogIn();
  sim::SetUnixTime(sim::UnixTime() + 200);
  run.plane.refreshToken = "refresh-2";
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(sim::RunUntil([] { return LastErrorText() == "SESSION_EXPIRED"; }, kMinute));
  // A token in memory counts, though it cannot be refreshed.
  EXPECT_EQ(Field(Ask("GET /ui/status"), "auth_state"), "AUTH_OK");
  EXPECT_TRUE(sim::FileExists(kSessionFile));
  EXPECT_EQ(Login(), kLoginReply);
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

TEST(Account, ATokenThatTheControlPlaneRefusesEndsAtTheProfile) {
  SystemRun run;
  run.StartAndLogIn();
  run.plane.accessToken = "access-2";
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(WaitForLine("EnsureDeviceRegistered: HTTP 401 head={\"error\":\"unauthorized\"}"));
  ASSERT_TRUE(WaitForLine("Bootstrap: EnsureDeviceRegistered failed"));
  EXPECT_EQ(LastErrorText(), "");
  // Only time or a login ends the use of the old token.
  sim::Run(kMinute);
  EXPECT_NE(gTunnelStatus, kStatusConnected);
  EXPECT_EQ(Login(), kLoginReply);
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

TEST(ControlPlane, AFailureOfItsCostsAttemptsAndNothingElse) {
  const struct {
    const char* request;
    sim::HttpResponse answer;
    const char* line;
  } cases[] = {
      {"POST /v1/devices", Status(500, "down"), "Bootstrap: EnsureDeviceRegistered failed"},
      {"POST /v1/devices", Nothing(), "EnsureDeviceRegistered: failed (transport)"},
      {"/wg-key", Status(500, "down"), "Bootstrap: EnsureWgKeyUploaded failed"},
      {"/wg-key", Nothing(), "EnsureWgKeyUploaded: failed (transport)"},
      {"/wg-profile", Status(500, "down"), "Bootstrap: wg-profile HTTP 500 head=down"},
      {"/wg-profile", Nothing(), "Bootstrap: wg-profile HTTP 0 head="},
      {"/wg-profile", Status(200, "\x80 {broken"),
       "Bootstrap: missing client_address in wg-profile response"},
      {"/wg-profile", Status(200, R"({"client_address":"10.8.0.2/32"})"),
       "Bootstrap: could not select server_public_key/endpoint from wg-profile response"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.line);
    SystemRun run;
    run.StartAndLogIn();
    run.plane.overrides = {{row.request, row.answer}};
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    ASSERT_TRUE(WaitForLine(row.line));
    ASSERT_TRUE(
        WaitForLine("Bootstrap not ready (likely AUTH_REQUIRED); staying DISCONNECTED/CONNECTING and "
                    "retrying."));
    EXPECT_TRUE(FirewallIsOpen());
    EXPECT_EQ(LastErrorText(), "");
    run.plane.overrides.clear();
    EXPECT_TRUE(WaitForStatus(kStatusConnected));
  }
}

TEST(ControlPlane, WithoutACatalogueTheConnectionComesUpAllTheSame) {
  SystemRun run;
  run.StartAndLogIn();
  run.plane.overrides = {{"/v1/servers/locations", Status(200, "{\"servers\" :[]}")}};
  run.Connect();
  EXPECT_TRUE(sim::LogHas("CpGetServerLocations: missing/invalid servers[]"));
  EXPECT_TRUE(sim::LogHas("Bootstrap: CpGetServerLocations failed (non-fatal)."));
}

// 1, 2, 4, 8, 16, then every 30 seconds; a shorter way is only a good handshake or a new thread.
TEST(ControlPlane, IsAskedAgainAtTheBackOffsPace) {
  SystemRun run;
  run.StartAndLogIn();
  run.plane.overrides = {{"POST /v1/devices", Nothing()}};
  sim::ClearTrace();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  sim::Run(3 * kMinute);
  const std::vector<uint64_t> times = PassTimes();
  const uint64_t expected[] = {1000, 2000, 4000, 8000, 16'000, 30'000, 30'000};
  ASSERT_GE(times.size(), 8u);
  for (size_t i = 0; i < 7; ++i) {
    EXPECT_GE(times[i + 1] - times[i], expected[i]);
    EXPECT_LT(times[i + 1] - times[i], expected[i] + 500);
  }
}

TEST(ControlPlane, ANetworkThatComesBackIsNoticed) {
  SystemRun run;
  run.StartAndLogIn();
  sim::SetHost(L"cp.telvor.test", {});
  run.plane.overrides = {{"", Nothing()}};
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  sim::Run(kMinute);
  EXPECT_NE(gTunnelStatus, kStatusConnected);
  run.plane.overrides.clear();
  sim::SetHost(L"cp.telvor.test", {"10.99.0.2"});
  ASSERT_TRUE(WaitForStatus(kStatusConnected));
  EXPECT_TRUE(sim::LogHas("WFP: Resolved cp.telvor.test to 10.99.0.2"));
}

// The reply does not tell; the selection is stored all the same.
TEST(ControlPlane, AnUnknownServerIsTakenFromTheUser) {
  SystemRun run;
  run.StartAndLogIn();
  run.plane.overrides = {{"/wg-profile", Status(404)}};
  EXPECT_EQ(SelectLocation("no-such-server"), kTrueReply);
  EXPECT_TRUE(
      sim::LogHas("Unable to pull bootstrap state either AUTH_REQUIRED or other error; staying "
                  "DISCONNECTED/CONNECTING."));
  EXPECT_EQ(gSelectedServerId, "no-such-server");
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(gTunnelEpoch, 0u);
}

// With a tunnel wanted the disconnect follows the failed bootstrap.
TEST(ControlPlane, AServerChangeThatFailsDisconnectsAllTheSame) {
  SystemRun run;
  run.StartConnected();
  run.plane.overrides = {{"/wg-profile", Status(500)}};
  EXPECT_EQ(SelectLocation("srv-b"), kTrueReply);
  EXPECT_TRUE(InOrder(
      sim::LogLines(),
      {"Unable to pull bootstrap state either AUTH_REQUIRED or other error; staying DISCONNECTED/CONNECTING.",
       "Select-location: tunnel is up; forcing immediate disconnect due to server change"}));
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_TRUE(WaitForIdle());
}

}  // namespace
