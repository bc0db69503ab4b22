// status, connect, disconnect, stop, request.
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::platform::kErrorFileNotFound;
using telvorctl::platform::kErrorOperationAborted;

constexpr uint32_t kErrorBrokenPipe = 109;
const std::string kStop = R"({"jsonrpc":"2.0","id":1,"method":"StopService"})";

TEST_F(Telvorctl, StatusTellsAll) {
  Result(kGetStatus, Status("CONNECTED"));
  Result(kGetState, State("connected"));
  EXPECT_EQ(Run({"status"}), 0);
  EXPECT_EQ(gScript.output,
            "Tunnel      CONNECTED (WireGuard)\n"
            "Chosen      Paris, FR (fr-par-1)\n"
            "Its IP      203.0.113.1\n"
            "Received    2.0 KiB\n"
            "Sent        10 B\n"
            "Account     logged in\n"
            "Device id   dev-1\n"
            "Public key  KEY=\n");
}

TEST_F(Telvorctl, StatusWithoutAnything) {
  Result(kGetStatus,
         R"({"auth_state":"AUTH_REQUIRED","last_error":"no session: C:\\x","tunnel_status":"DISCONNECTED",)"
         R"("protocol":"WireGuard","rx_bytes":0,"tx_bytes":0,"public_ip":null,"selected_server_id":null,)"
         R"("selected_server":null})");
  Result(kGetState, R"({"deviceId":null,"wgPublicKey":null,"state":"disconnected"})");
  EXPECT_EQ(Run({"status"}), 0);
  EXPECT_EQ(gScript.output,
            "Tunnel      DISCONNECTED (WireGuard)\n"
            "Chosen      no location\n"
            "Received    0 B\n"
            "Sent        0 B\n"
            "Account     login needed\n"
            "Last error  no session: C:\\x (nobody is logged in; see telvorctl login)\n");
}

// A connect may wait for a login, and nothing that the service tells is different then.
TEST_F(Telvorctl, StatusTellsOfAConnectThatMayStillBeWaiting) {
  const std::string note =
      "Note        an earlier connect may still be waiting for a login; telvorctl disconnect ends it\n";
  struct Row {
    const char* tunnel;
    const char* error;
    bool noted;
  };
  const Row rows[] = {{"DISCONNECTED", "AUTH_REQUIRED", true},
                      {"DISCONNECTED", "SESSION_EXPIRED", true},
                      {"DISCONNECTED", "no session: x", false},
                      {"DISCONNECTED", "HANDSHAKE_TIMEOUT", false},
                      {"CONNECTED", "AUTH_REQUIRED", false}};
  for (const Row& row : rows) {
    gScript.output.clear();
    Result(kGetStatus, Status(row.tunnel, "AUTH_REQUIRED", row.error));
    Result(kGetState, State("disconnected"));
    EXPECT_EQ(Run({"status"}), 0);
    EXPECT_EQ(gScript.output.find(note) != std::string::npos, row.noted) << gScript.output;
  }
}

TEST_F(Telvorctl, StatusNamesASelectedServerThatIsNotInTheCatalogue) {
  Result(kGetStatus, R"({"tunnel_status":"CONNECTED","selected_server_id":"xx-1","selected_server":null})");
  Result(kGetState, State("connected"));
  EXPECT_EQ(Run({"status"}), 0);
  EXPECT_NE(gScript.output.find("Chosen      xx-1\n"), std::string::npos) << gScript.output;
}

TEST_F(Telvorctl, StatusForScriptsIsTheResultAlone) {
  Result(kGetStatus, R"({"auth_state":"AUTH_OK","rx_bytes":1})");
  EXPECT_EQ(Run({"status", "--json"}), 0);
  EXPECT_EQ(gScript.output, "{\"auth_state\":\"AUTH_OK\",\"rx_bytes\":1}\n");
  gScript.output.clear();
  Result(kGetState, R"({"state":"error","lastError":null})");
  EXPECT_EQ(Run({"--json", "status", "--brief"}), 0);
  EXPECT_EQ(gScript.output, "{\"state\":\"error\",\"lastError\":null}\n");
}

TEST_F(Telvorctl, StatusEndsWithTheFirstAnswerThatFails) {
  Result(kGetStatus, Status("CONNECTED"));
  Refusal(kGetState, "boom");
  EXPECT_EQ(Run({"status"}), 1);
  EXPECT_EQ(gScript.output, "");
  EXPECT_EQ(gScript.errors, "telvorctl: boom\n");
}

TEST_F(Telvorctl, ConnectWaitsForTheTunnel) {
  Result(kConnect, "true");
  Result(kGetState, State("connecting"));
  Result(kGetState, State("connecting"));
  Result(kGetState, State("connected"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
  EXPECT_EQ(gScript.output, "Connected. Chosen location: Paris, FR (fr-par-1).\n");
  EXPECT_EQ(gScript.errors, "Connecting\n");  // no terminal: one line, not one for each look
  EXPECT_EQ(gScript.now, 2000u);
}

TEST_F(Telvorctl, ConnectRedrawsItsProgressOnATerminal) {
  gScript.errorsAreTerminal = true;
  Result(kConnect, "true");
  Result(kGetState, State("connecting", "HANDSHAKE_TIMEOUT"));
  Result(kGetState, State("connecting"));
  Result(kGetState, State("connecting"));
  Result(kGetState, State("connected"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
  const std::string longLine =
      "Connecting, last error: HANDSHAKE_TIMEOUT (the VPN server does not answer; see ";
  ASSERT_EQ(longLine.size(), 79u);
  const std::string blanks(79, ' ');
  EXPECT_EQ(gScript.errors, "\r" + longLine + "\rConnecting (0 s)" + blanks.substr(16) +
                                "\rConnecting (1 s)" + "\r                \r");
}

TEST_F(Telvorctl, ConnectForScriptsGivesTheLastState) {
  Result(kConnect, "true");
  Result(kGetState, R"({"state":"connected"})");
  EXPECT_EQ(Run({"connect", "--json"}), 0);
  EXPECT_EQ(gScript.output, "{\"state\":\"connected\"}\n");
}

TEST_F(Telvorctl, ConnectWithoutAWait) {
  Result(kConnect, "true");
  EXPECT_EQ(Run({"connect", "--no-wait"}), 0);
  EXPECT_EQ(gScript.output, "The service was asked to connect.\n");
  gScript.output.clear();
  Result(kConnect, "true");
  EXPECT_EQ(Run({"connect", "--no-wait", "--json"}), 0);
  EXPECT_EQ(gScript.output, "true\n");
}

TEST_F(Telvorctl, ConnectTellsWhyItFailed) {
  Result(kConnect, "true");
  Result(kGetState, State("error", "HANDSHAKE_TIMEOUT"));
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(gScript.errors,
            "telvorctl: the connection failed: HANDSHAKE_TIMEOUT (the VPN server does not answer; see "
            "telvorctl locations for another)\n"
            "telvorctl: the service may go on connecting; telvorctl disconnect ends it\n");
  gScript.errors.clear();
  Result(kConnect, "true");
  Result(kGetState, State("error"));
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(gScript.errors,
            "telvorctl: the connection failed: the service does not say why; see telvorctl logs\n"
            "telvorctl: the service may go on connecting; telvorctl disconnect ends it\n");
}

TEST_F(Telvorctl, ConnectNeedsALogin) {
  Result(kConnect, "true");
  Result(kGetState, State("disconnected", "AUTH_REQUIRED"));
  Result(kGetStatus, Status("DISCONNECTED", "AUTH_REQUIRED"));
  EXPECT_EQ(Run({"connect"}), 6);
  EXPECT_EQ(gScript.errors,
            "telvorctl: AUTH_REQUIRED (nobody is logged in; see telvorctl login)\n"
            "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
}

TEST_F(Telvorctl, ConnectNeedsANewLoginForAnExpiredSession) {
  Result(kConnect, "true");
  Result(kGetState, State("disconnected", "SESSION_EXPIRED"));
  EXPECT_EQ(Run({"connect"}), 6);
}

// The registration leaves the last error as it was: it alone does not tell that a login is needed.
TEST_F(Telvorctl, ConnectGoesOnDespiteAnOldError) {
  Result(kConnect, "true");
  Result(kGetState, State("disconnected", "AUTH_REQUIRED"));
  Result(kGetStatus, Status("DISCONNECTED", "AUTH_OK"));
  Result(kGetState, State("connecting", "AUTH_REQUIRED"));
  Result(kGetState, State("connected", "AUTH_REQUIRED"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
}

TEST_F(Telvorctl, ConnectTimesOut) {
  Result(kConnect, "true");
  for (int look = 0; look < 7; ++look) Result(kGetState, State("connecting", "slow"));
  EXPECT_EQ(Run({"connect", "--timeout", "3"}), 5);
  EXPECT_EQ(gScript.errors,
            "Connecting, last error: slow\n"
            "telvorctl: not connected after 3 seconds, last error: slow\n"
            "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
  EXPECT_EQ(gScript.now, 4000u);
}

TEST_F(Telvorctl, ConnectIsInterrupted) {
  Result(kConnect, "true");
  Result(kGetState, State("connecting"));
  InterruptInPause(1);
  EXPECT_EQ(Run({"connect"}), 130);
  EXPECT_EQ(gScript.errors,
            "Connecting\ntelvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
}

TEST_F(Telvorctl, ConnectIsInterruptedInTheMiddleOfALook) {
  Result(kConnect, "true");
  Broken(kGetState, kErrorOperationAborted, "");
  EXPECT_EQ(Run({"connect"}), 130);
  EXPECT_EQ(gScript.errors, "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
}

// What the catalogue says of the chosen location must not be taken for where the tunnel leads.
TEST_F(Telvorctl, ConnectClaimsNothingWithoutAChosenLocation) {
  Result(kConnect, "true");
  Result(kGetState, State("connected"));
  Result(kGetStatus, R"({"public_ip":"203.0.113.1","selected_server_id":null,"selected_server":null})");
  EXPECT_EQ(Run({"connect"}), 0);
  EXPECT_EQ(gScript.output, "Connected.\n");
}

TEST_F(Telvorctl, ConnectEndsWhenTheServiceDoesSo) {
  Result(kConnect, "true");
  CannotOpen(kGetState, kErrorFileNotFound, true);
  EXPECT_EQ(Run({"connect"}), 3);
  EXPECT_EQ(gScript.errors.find("goes on"), std::string::npos) << gScript.errors;
}

TEST_F(Telvorctl, ConnectIsRefused) {
  Result(kConnect, "false");
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: the TELVOR service refused without a reason\n");
}

TEST_F(Telvorctl, DisconnectWaits) {
  Result(kDisconnect, "true");
  Result(kGetState, State("connected"));
  Result(kGetState, State("disconnected"));
  EXPECT_EQ(Run({"disconnect"}), 0);
  EXPECT_EQ(gScript.output, "Disconnected.\n");
  EXPECT_EQ(gScript.errors, "Disconnecting\n");
}

TEST_F(Telvorctl, DisconnectWithoutAWait) {
  Result(kDisconnect, "true");
  EXPECT_EQ(Run({"disconnect", "--no-wait"}), 0);
  EXPECT_EQ(gScript.output, "The service was asked to disconnect.\n");
}

TEST_F(Telvorctl, DisconnectTimesOut) {
  Result(kDisconnect, "true");
  for (int look = 0; look < 3; ++look) Result(kGetState, State("connected"));
  EXPECT_EQ(Run({"disconnect", "--timeout", "1"}), 5);
  EXPECT_EQ(gScript.errors,
            "Disconnecting\ntelvorctl: not disconnected after 1 second\n"
            "telvorctl: the service goes on disconnecting\n");
}

TEST_F(Telvorctl, StopBelievesTheReply) {
  Result(kStop, "true");
  EXPECT_EQ(Run({"stop"}), 0);
  EXPECT_EQ(gScript.output, "The service has stopped.\n");
  gScript.output.clear();
  Result(kStop, "false");
  EXPECT_EQ(Run({"stop", "--json"}), 1);
  EXPECT_EQ(gScript.output, "false\n");
  EXPECT_EQ(
      gScript.errors,
      "telvorctl: the service was told to stop, but had not stopped after 8 seconds; see sc query TELVOR\n");
}

// The process may be gone before its reply is read.
TEST_F(Telvorctl, StopLooksForItselfWhenTheReplyIsLost) {
  Broken(kStop, kErrorBrokenPipe, "");
  Raw(kGetState, R"({"jsonrpc":"2.0","id":0,"result":null,"error":{"message":"IPC: no request"}})"
                 "\n");
  Broken(kGetState, kErrorBrokenPipe, "");
  CannotOpen(kGetState, kErrorFileNotFound, true);
  EXPECT_EQ(Run({"stop", "--json"}), 0);
  EXPECT_EQ(gScript.output, "true\n");
}

TEST_F(Telvorctl, StopTimesOutWhenTheServiceStays) {
  Broken(kStop, kErrorBrokenPipe, "");
  gScript.exchanges.push_back({kGetState, {0, kErrorBrokenPipe, ""}, true});
  EXPECT_EQ(Run({"stop"}), 5);
  EXPECT_EQ(gScript.errors,
            "Stopping\ntelvorctl: not stopped after 15 seconds\n"
            "telvorctl: the service may go on stopping\n");
}

TEST_F(Telvorctl, StopDoesNotTakeAnAbsentServiceForAStoppedOne) {
  CannotOpen(kStop, kErrorFileNotFound, true);
  EXPECT_EQ(Run({"stop"}), 3);
}

TEST_F(Telvorctl, RequestSendsTheLineAsItStands) {
  Raw(R"({"method" : "GetState"})",
      R"({"jsonrpc":"2.0","id":0,"result":null,"error":{"message":"IPC: missing method"}})"
      "\n");
  EXPECT_EQ(Run({"request", R"({"method" : "GetState"})"}), 1);
  EXPECT_EQ(gScript.output,
            R"({"jsonrpc":"2.0","id":0,"result":null,"error":{"message":"IPC: missing method"}})"
            "\n");
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(Telvorctl, RequestShowsAlsoWhatIsNoJson) {
  const std::string reply = R"({"jsonrpc":"2.0","id":7,"result":,"error":null})";
  Raw("x", reply + "\n");
  EXPECT_EQ(Run({"request", "x"}), 1);
  EXPECT_EQ(gScript.output, reply + "\n");
  gScript.output.clear();
  Raw("y", R"({"id":7,"result":true,"error":null})"
           "\n");
  EXPECT_EQ(Run({"request", "y"}), 0);
}

TEST_F(Telvorctl, RequestIsOneLine) {
  EXPECT_EQ(Run({"request", "a\nb"}), 2);
  EXPECT_EQ(gScript.errors, "telvorctl: a request is one line\n");
}

}  // namespace
