// status, connect, disconnect, stop, request.
#include "tests/telvorctl/scripted_machine.h"
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::platform::kErrorFileNotFound;
using telvorctl::platform::kErrorOperationAborted;

constexpr uint32_t kErrorBrokenPipe = 109;
const std::string kNothingYet =
    "telvorctl: nothing yet: the control plane may be slow, or the service sits out the pause (up to 30 "
    "seconds) after a failed attempt, also an earlier one; see telvorctl logs\n";
const std::string kAnAttemptHasFailed =
    "telvorctl: nothing yet; an attempt has failed, the service goes on trying; see telvorctl logs\n";
const std::string kPaid = R"({"ok":true,"payment_current":true,"status":"active","period_end":null})";
const std::string kUnreachable = R"({"ok":false,"payment_current":false,"status":"AUTH_REQUIRED",)"
                                 R"("message":"refresh transport failure"})";
const std::string kStop = R"({"jsonrpc":"2.0","id":1,"method":"StopService"})";

class Tunnel : public Telvorctl {
 protected:
  void SetUp() override {
    Telvorctl::SetUp();
    gMachine = ScriptedMachine();
    gMachine.files = {{kWireGuard + "wireguard.exe", "MZ"}, {kWireGuard + "wg.exe", "MZ"}};
  }

  // `lastError` is of before; what was asked for has not changed it yet.
  static void AskedToConnect(const std::string& lastError = "") {
    Result(kGetState, State("disconnected", lastError));
    Result(kConnect, "true");
  }

  static void States(int times, const std::string& word, const std::string& lastError = "") {
    for (int i = 0; i < times; ++i) Result(kGetState, State(word, lastError));
  }

  // How often the text was written to the standard error.
  static size_t TimesTold(const std::string& text) {
    size_t times = 0;
    for (size_t at = gScript.errors.find(text); at != std::string::npos;
         at = gScript.errors.find(text, at + 1))
      ++times;
    return times;
  }

  inline static const std::string kWireGuard = "C:\\Program Files\\WireGuard\\";
};

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

// The service's own word is that of a token that it remembers, whatever has become of the session's file.
TEST_F(Telvorctl, StatusLooksForTheSessionWhereTheErrorDoubtsIt) {
  struct Row {
    const char* error;
    const std::string& session;
    const char* account;
  };
  const Row rows[] = {{"AUTH_REQUIRED", kNoSession, "Account     login needed\n"},
                      {"no session: C:\\\\x", kNoSession, "Account     login needed\n"},
                      {"AUTH_REQUIRED", kPaid, "Account     logged in\n"},
                      {"AUTH_REQUIRED", kUnreachable, "Account     logged in\n"}};
  for (const Row& row : rows) {
    gScript.output.clear();
    Result(kGetStatus, Status("DISCONNECTED", "AUTH_OK", row.error));
    Result(kEntitlement, row.session);
    Result(kGetState, State("disconnected"));
    EXPECT_EQ(Run({"status"}), 0);
    EXPECT_NE(gScript.output.find(row.account), std::string::npos) << gScript.output;
  }
  Result(kGetStatus, Status("DISCONNECTED", "AUTH_OK", "AUTH_REQUIRED"));
  EXPECT_EQ(Run({"status", "--json"}), 0);  // the service's own words
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

TEST_F(Tunnel, ConnectWaitsForTheTunnel) {
  AskedToConnect();
  Result(kGetState, State("connecting"));
  Result(kGetState, State("connecting"));
  Result(kGetState, State("connected"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
  EXPECT_EQ(gScript.output, "Connected. Chosen location: Paris, FR (fr-par-1).\n");
  EXPECT_EQ(gScript.errors, "Connecting\n");  // no terminal: one line, not one for each look
  EXPECT_EQ(gScript.now, 2000u);
}

TEST_F(Tunnel, ConnectRedrawsItsProgressOnATerminal) {
  gScript.errorsAreTerminal = true;
  AskedToConnect();
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

TEST_F(Tunnel, ConnectForScriptsGivesTheLastState) {
  AskedToConnect();
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

TEST_F(Tunnel, ConnectTellsWhyItFailed) {
  AskedToConnect();
  Result(kGetState, State("error", "HANDSHAKE_TIMEOUT"));
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(gScript.errors,
            "telvorctl: the connection failed: HANDSHAKE_TIMEOUT (the VPN server does not answer; see "
            "telvorctl locations for another)\n"
            "telvorctl: the service may go on connecting; telvorctl disconnect ends it\n");
  gScript.errors.clear();
  AskedToConnect();
  Result(kGetState, State("error"));
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(gScript.errors,
            "telvorctl: the connection failed: the service does not say why; see telvorctl logs\n"
            "telvorctl: the service may go on connecting; telvorctl disconnect ends it\n");
}

TEST_F(Tunnel, ConnectTellsWhatTheMachineLacks) {
  gMachine.files.erase(kWireGuard + "wg.exe");
  AskedToConnect();
  Result(kGetState, State("error", "HANDSHAKE_TIMEOUT"));
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(
      TimesTold("telvorctl: the connection failed: WireGuard is damaged: there is no C:\\Program Files\\"
                "WireGuard\\wg.exe\n"),
      1u)
      << gScript.errors;
  gMachine.files.clear();
  AskedToConnect();
  Result(kGetState, State("error"));
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(TimesTold("telvorctl: the connection failed: WireGuard is not installed: there is no C:\\Program "
                      "Files\\WireGuard\\wireguard.exe\n"),
            1u)
      << gScript.errors;
  // A folder that nobody may look into tells nothing.
  gMachine.unreadable = {{kWireGuard + "wireguard.exe", 5}, {kWireGuard + "wg.exe", 5}};
  AskedToConnect();
  Result(kGetState, State("error"));
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(TimesTold("the connection failed: the service does not say why; see telvorctl logs\n"), 1u)
      << gScript.errors;
}

// For want of a login the service would show another state.
TEST_F(Tunnel, ConnectTakesNoOldLoginErrorForTheReason) {
  AskedToConnect("AUTH_REQUIRED");
  Result(kGetState, State("error", "AUTH_REQUIRED"));
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(TimesTold("the connection failed: the service does not say why; see telvorctl logs\n"), 1u)
      << gScript.errors;
}

TEST_F(Tunnel, ConnectNeedsALogin) {
  AskedToConnect();
  Result(kGetState, State("connecting"));
  Result(kGetState, State("disconnected", "AUTH_REQUIRED"));
  Result(kEntitlement, kNoSession);
  EXPECT_EQ(Run({"connect"}), 6);
  EXPECT_EQ(gScript.errors,
            "Connecting\n"
            "telvorctl: AUTH_REQUIRED (nobody is logged in; see telvorctl login)\n"
            "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
}

TEST_F(Tunnel, ConnectNeedsANewLoginForAnExpiredSession) {
  AskedToConnect();
  Result(kGetState, State("disconnected", "SESSION_EXPIRED"));
  Result(kEntitlement, R"({"ok":false,"status":"AUTH_REQUIRED","message":"SESSION_EXPIRED"})");
  EXPECT_EQ(Run({"connect"}), 6);
}

// The registration leaves the last error as it was: it alone does not tell that a login is needed.
TEST_F(Tunnel, ConnectGoesOnDespiteAnOldError) {
  AskedToConnect("AUTH_REQUIRED");
  Result(kGetState, State("connecting", "AUTH_REQUIRED"));
  Result(kEntitlement, kPaid);
  Result(kGetState, State("disconnected", "AUTH_REQUIRED"));
  Result(kEntitlement, kPaid);
  States(3, "disconnected", "AUTH_REQUIRED");  // asked once between two attempts
  Result(kGetState, State("connecting", "AUTH_REQUIRED"));
  Result(kGetState, State("connected", "AUTH_REQUIRED"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
}

// No need to sit out the pause after an earlier attempt for that.
TEST_F(Tunnel, ConnectNeedsALoginAtOnceWhenAnAttemptOfBeforeSaidSo) {
  AskedToConnect("AUTH_REQUIRED");
  Result(kGetState, State("connecting", "AUTH_REQUIRED"));
  Result(kEntitlement, kNoSession);
  EXPECT_EQ(Run({"connect"}), 6);
  EXPECT_EQ(gScript.now, 1000u);
}

// A session that could not be renewed for want of a network is one all the same.
TEST_F(Tunnel, ConnectGoesOnWhenTheSessionCannotBeRenewedYet) {
  AskedToConnect();
  Result(kGetState, State("disconnected", "AUTH_REQUIRED"));
  Result(kEntitlement, kUnreachable);
  Result(kGetState, State("connecting", "AUTH_REQUIRED"));
  Result(kGetState, State("connected", "AUTH_REQUIRED"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
  EXPECT_EQ(gScript.errors,
            "Connecting, last error: refresh transport failure (the control plane cannot be reached, or it "
            "refused)\n");
}

TEST_F(Tunnel, ConnectCallsTheErrorOfBeforeAnEarlierOne) {
  AskedToConnect("HANDSHAKE_TIMEOUT");
  States(3, "connecting", "HANDSHAKE_TIMEOUT");
  EXPECT_EQ(Run({"connect", "--timeout", "1"}), 5);
  const std::string error =
      "earlier error: HANDSHAKE_TIMEOUT (the VPN server does not answer; see telvorctl locations for "
      "another)\n";
  EXPECT_EQ(gScript.errors, "Connecting, " + error + "telvorctl: not connected after 1 second, " + error +
                                "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
  gScript.errors.clear();
  AskedToConnect("slow");
  States(1, "connecting", "slow");
  States(1, "connecting");
  States(1, "connecting", "slow");
  EXPECT_EQ(Run({"connect", "--timeout", "1"}), 5);
  EXPECT_EQ(gScript.errors,
            "Connecting, earlier error: slow\nConnecting\n"
            "telvorctl: not connected after 1 second, last error: slow\n"
            "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
}

// The service tells nobody of its pauses.
TEST_F(Tunnel, ConnectHintsOnceAtAPauseThatMayGoOn) {
  AskedToConnect();
  States(9, "connecting");
  EXPECT_EQ(Run({"connect", "--timeout", "4"}), 5);
  EXPECT_EQ(TimesTold("nothing yet"), 0u);
  gScript.errors.clear();
  AskedToConnect();
  States(40, "connecting");
  Result(kGetState, State("connected"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
  EXPECT_EQ(gScript.errors, "Connecting\n" + kNothingYet);
}

TEST_F(Tunnel, ConnectHintsOnceAtAttemptsThatFailWithoutAReason) {
  AskedToConnect();
  for (int attempt = 0; attempt < 6; ++attempt) {
    States(1, "connecting");
    States(3, "disconnected");
  }
  Result(kGetState, State("connected"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
  EXPECT_EQ(gScript.errors, "Connecting\n" + kAnAttemptHasFailed);
}

TEST_F(Tunnel, ConnectHintsAboveItsProgressOnATerminal) {
  gScript.errorsAreTerminal = true;
  AskedToConnect();
  States(11, "connecting");
  Result(kGetState, State("connected"));
  Result(kGetStatus, Status("CONNECTED"));
  EXPECT_EQ(Run({"connect"}), 0);
  const std::string erased = "\r                \r";
  EXPECT_TRUE(
      gScript.errors.ends_with("\rConnecting (4 s)" + erased + kNothingYet + "\rConnecting (5 s)" + erased))
      << gScript.errors;
}

TEST_F(Telvorctl, DisconnectHintsAtNothing) {
  TunnelIs("connected");
  Result(kDisconnect, "true");
  for (int look = 0; look < 20; ++look) Result(kGetState, State("connected"));
  Result(kGetState, State("disconnected"));
  EXPECT_EQ(Run({"disconnect"}), 0);
  EXPECT_EQ(gScript.errors, "Disconnecting\n");
}

TEST_F(Tunnel, ConnectTimesOut) {
  AskedToConnect();
  for (int look = 0; look < 7; ++look) Result(kGetState, State("connecting", "slow"));
  EXPECT_EQ(Run({"connect", "--timeout", "3"}), 5);
  EXPECT_EQ(gScript.errors,
            "Connecting, last error: slow\n"
            "telvorctl: not connected after 3 seconds, last error: slow\n"
            "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
  EXPECT_EQ(gScript.now, 4000u);
}

TEST_F(Tunnel, ConnectIsInterrupted) {
  AskedToConnect();
  Result(kGetState, State("connecting"));
  InterruptInPause(1);
  EXPECT_EQ(Run({"connect"}), 130);
  EXPECT_EQ(gScript.errors,
            "Connecting\ntelvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
}

TEST_F(Tunnel, ConnectIsInterruptedInTheMiddleOfALook) {
  AskedToConnect();
  Broken(kGetState, kErrorOperationAborted, "");
  EXPECT_EQ(Run({"connect"}), 130);
  EXPECT_EQ(gScript.errors, "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n");
}

// What the catalogue says of the chosen location must not be taken for where the tunnel leads.
TEST_F(Tunnel, ConnectClaimsNothingWithoutAChosenLocation) {
  AskedToConnect();
  Result(kGetState, State("connected"));
  Result(kGetStatus, R"({"public_ip":"203.0.113.1","selected_server_id":null,"selected_server":null})");
  EXPECT_EQ(Run({"connect"}), 0);
  EXPECT_EQ(gScript.output, "Connected.\n");
}

TEST_F(Tunnel, ConnectEndsWhenTheServiceDoesSo) {
  AskedToConnect();
  CannotOpen(kGetState, kErrorFileNotFound, true);
  EXPECT_EQ(Run({"connect"}), 3);
  EXPECT_EQ(gScript.errors.find("goes on"), std::string::npos) << gScript.errors;
}

TEST_F(Tunnel, ConnectIsRefused) {
  Result(kGetState, State("disconnected"));
  Result(kConnect, "false");
  EXPECT_EQ(Run({"connect"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: the TELVOR service refused without a reason\n");
}

TEST_F(Telvorctl, DisconnectWaits) {
  TunnelIs("connected");
  Result(kDisconnect, "true");
  Result(kGetState, State("connected"));
  Result(kGetState, State("disconnected"));
  EXPECT_EQ(Run({"disconnect"}), 0);
  EXPECT_EQ(gScript.output, "Disconnected.\n");
  EXPECT_EQ(gScript.errors, "Disconnecting\n");
}

TEST_F(Telvorctl, DisconnectIsFastWhenNoAttemptIsUnderWay) {
  for (const char* before : {"connected", "disconnected"}) {
    TunnelIs(before);
    Result(kDisconnect, "true");
    TunnelIs("disconnected");
    EXPECT_EQ(Run({"disconnect"}), 0);
  }
  EXPECT_EQ(gScript.now, 1000u);
}

// The worker may be past the point where it would notice: the tunnel comes up before it is taken down.
TEST_F(Tunnel, DisconnectOutlastsAnAttemptThatIsUnderWay) {
  for (const char* before : {"connecting", "error"}) {
    gScript.output.clear();
    const uint64_t start = gScript.now;
    TunnelIs(before);
    Result(kDisconnect, "true");
    States(4, "disconnected");
    States(1, "connected");
    States(6, "disconnected");
    EXPECT_EQ(Run({"disconnect"}), 0);
    EXPECT_EQ(gScript.output, "Disconnected.\n");
    EXPECT_EQ(gScript.now - start, 5000u);
  }
}

TEST_F(Tunnel, DisconnectWaitsNoLongerForThatThanItIsToldTo) {
  TunnelIs("connecting");
  Result(kDisconnect, "true");
  States(3, "disconnected");
  EXPECT_EQ(Run({"disconnect", "--timeout", "1"}), 0);
  EXPECT_EQ(gScript.now, 2000u);
}

TEST_F(Telvorctl, DisconnectAsksNothingMoreAfterCtrlC) {
  Broken(kGetState, kErrorOperationAborted, "");
  EXPECT_EQ(Run({"disconnect"}), 130);
}

TEST_F(Telvorctl, DisconnectWithoutAWait) {
  Result(kDisconnect, "true");
  EXPECT_EQ(Run({"disconnect", "--no-wait"}), 0);
  EXPECT_EQ(gScript.output, "The service was asked to disconnect.\n");
}

TEST_F(Telvorctl, DisconnectTimesOut) {
  TunnelIs("connected");
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
