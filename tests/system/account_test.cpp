// The account over the whole system: all methods through the pipe, and what the account does to a tunnel.
#include "tests/support/system_run.h"

namespace {

sim::HttpResponse Answer(uint32_t status, const std::string& body = "") {
  sim::HttpResponse response;
  response.status = status;
  response.body = body;
  return response;
}

// The account side that the small control plane does not have.
void AnswerAccountCalls(sim::ControlPlane& plane) {
  plane.overrides = {
      {"GET /v1/auth/registered", Answer(200, R"({"registered":true})")},
      {"POST /v1/auth/register", Answer(201)},
      {"POST /v1/auth/password/reset/start",
       Answer(200, R"({"request_id":"r-1","masked_email":"u***@example.com","expires_in_seconds":600})")},
      {"POST /v1/auth/password/reset/confirm", Answer(204)},
      {"GET /v1/me/entitlement",
       Answer(200, R"({"payment_current":true,"status":"active","period_end":"2027-01-01"})")},
      {"GET /v1/me/quota", Answer(200, R"({"quota_current":true})")},
      {"POST /v1/billing/checkout", Answer(200, R"({"checkout_url":"https:\/\/pay.test\/1"})")},
  };
}

std::string Result(const std::string& result) {
  return "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":" + result + ",\"error\":null}\n";
}

constexpr char kUser[] = R"("email":"user@example.com","password":"secret")";

TEST(Account, AllMethodsAnswerOverThePipe) {
  SystemRun run;
  AnswerAccountCalls(run.plane);
  run.Start();
  const struct {
    const char* method;
    const char* parameters;
    const char* result;
  } exact[] = {
      {"GET /ui/is-registered", kUser, R"({"email":"user@example.com","registered":true})"},
      {"POST /ui/register", kUser, R"({"ok":true,"auth_state":"AUTH_OK","message":"registered"})"},
      {"POST /ui/password-reset/start", kUser,
       R"({"ok":true,"request_id":"r-1","masked_email":"u***@example.com","expires_in_seconds":600,)"
       R"("message":"ok"})"},
      {"POST /ui/password-reset/confirm",
       R"("email":"user@example.com","request_id":"r-1","code":"123456","new_password":"secret")",
       R"({"ok":true,"message":"password reset complete"})"},
      {"POST /ui/login", kUser, R"({"ok":true,"auth_state":"AUTH_OK","message":"registered"})"},
      {"GET /ui/entitlement", "",
       R"({"ok":true,"payment_current":true,"status":"active","period_end":"2027-01-01"})"},
      {"GET /ui/quota", "", R"({"ok":true,"quota_current":true})"},
      {"POST /ui/billing/checkout", "", R"({"ok":true,"checkout_url":"https://pay.test/1","message":"ok"})"},
      {"GET /ui/account-page-url", "",
       R"({"ok":true,"account_url":"https://cp.telvor.test:8443/account?access_token=access-1",)"
       R"("message":"ok"})"},
      {"POST /ui/select-location", R"("server_id":"srv-b")", "true"},
      {"Connect", "", "true"},
      {"Disconnect", "", "true"},
  };
  for (const auto& one : exact) EXPECT_EQ(Ask(one.method, one.parameters), Result(one.result)) << one.method;
  EXPECT_EQ(State(), "disconnected");
  EXPECT_EQ(Field(Ask("GET /ui/status"), "auth_state"), "AUTH_OK");
  EXPECT_NE(Ask("GET /ui/locations").find(R"("srv-b")"), std::string::npos);
  for (const char* method : {"GetRecentLogs", "GET /ui/logs"})
    EXPECT_NE(Ask(method, R"("limit":5)").find("IPC: Disconnect requested"), std::string::npos) << method;
  EXPECT_EQ(Ask("POST /ui/logout"), kLogoutReply);
  LetTheProcessLiveOn(500);
  EXPECT_EQ(Ask("StopService"), kTrueReply);
  EXPECT_TRUE(WaitForEnd());
  ExpectNothingLeft();
}

TEST(Account, NoSecretReachesTheLog) {
  SystemRun run;
  AnswerAccountCalls(run.plane);
  run.Start();
  Ask("POST /ui/register", kUser);
  Ask("POST /ui/password-reset/confirm",
      R"("email":"user@example.com","request_id":"request-1","code":"code-1","new_password":"fresh-1")");
  for (const char* method : {"GET /ui/entitlement", "GET /ui/quota", "POST /ui/billing/checkout",
                             "GET /ui/account-page-url", "POST /ui/logout"}) {
    Ask(method);
  }
  for (const char* text : {"secret", "request-1", "code-1", "fresh-1", "access-1", "refresh-1"})
    EXPECT_EQ(sim::LogBytes().find(text), std::string::npos) << text;
}

TEST(Account, ALogoutShowsBeforeTheWorkerHasStoppedTheTunnel) {
  for (uint64_t seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE(seed);
    SystemRun run({.seed = seed});
    run.StartConnected();
    // The worker has not looked at the changed intent yet.
    EXPECT_EQ(Ask("POST /ui/logout"), kLogoutReply);
    EXPECT_EQ(State(), "disconnected");
    EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
    EXPECT_TRUE(FirewallIsOpen());
    EXPECT_TRUE(WaitForIdle());
  }
}

// A pass under way runs on, and whatever it still brings up goes again.
TEST(Account, ALogoutDuringTheConnectPassWins) {
  const char* const kMoments[] = {"Bootstrap: CP base URL = https://cp.telvor.test:8443",
                                  "EnsureDeviceRegistered: ok (201)", "WireGuard: waiting for handshake...",
                                  "VPNSERVICE: about to call EnableFailClosedBaseline"};
  for (const char* moment : kMoments) {
    SCOPED_TRACE(moment);
    SystemRun run;
    run.StartAndLogIn();
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    ASSERT_TRUE(WaitForLine(moment));
    EXPECT_EQ(Ask("POST /ui/logout"), kLogoutReply);
    sim::Run(2 * kMinute);
    EXPECT_EQ(gTunnelDesired, kDesiredDisconnected);
    EXPECT_TRUE(WaitForIdle());
    EXPECT_TRUE(FirewallIsOpen());
    EXPECT_FALSE(sim::FileExists(kSessionFile));
    EXPECT_EQ(LastErrorText(), "AUTH_REQUIRED");
    run.Stop();
    ExpectNothingLeft();
  }
}

TEST(Account, ALogoutWithoutASessionSucceeds) {
  SystemRun run;
  run.Start();
  EXPECT_EQ(Ask("POST /ui/logout"), kLogoutReply);
  EXPECT_EQ(gTunnelEpoch, 1u);
  EXPECT_EQ(LastErrorText(), "AUTH_REQUIRED");
}

// With the tunnel down it adds routes and permits all the same: wanted, so that a browser reaches the page.
TEST(Account, TheAccountPageRefreshesTheRoutesAlsoWithoutATunnel) {
  SystemRun run;
  run.StartAndLogIn();
  EXPECT_EQ(sim::HostRouteTexts(), Lines());
  EXPECT_EQ(Field(Ask("GET /ui/account-page-url"), "message"), "ok");
  EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
  EXPECT_FALSE(sim::FiltersInForce().empty());
  EXPECT_TRUE(sim::LogHas("SplitTunnelV1: RefreshSplitTunnelRoutes ENTER"));
  EXPECT_EQ(State(), "disconnected");
}

TEST(Account, ARefusedTokenChangesNothingForTheTunnel) {
  SystemRun run;
  run.StartConnected();
  run.plane.overrides = {{"GET /v1/me/", Answer(401)}};
  EXPECT_EQ(Field(Ask("GET /ui/quota"), "message"), "quota transport failure");
  EXPECT_EQ(Field(Ask("GET /ui/entitlement"), "message"), "entitlement transport failure");
  EXPECT_EQ(State(), "connected");
  EXPECT_EQ(Field(Ask("GET /ui/status"), "auth_state"), "AUTH_OK");
}

// A login never connects, but a worker that is at it finds the new token at its next pass.
TEST(Account, ALoginHelpsAWorkerThatIsTrying) {
  SystemRun run;
  run.Start();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  sim::Run(5000);
  EXPECT_NE(gTunnelStatus, kStatusConnected);
  EXPECT_EQ(Login(), kLoginReply);
  EXPECT_EQ(gTunnelEpoch, 1u);
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
}

}  // namespace
