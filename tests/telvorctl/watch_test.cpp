// watch: frames on a terminal and elsewhere, speeds, a service that comes and goes.
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::platform::kErrorFileNotFound;
using telvorctl::platform::kErrorOperationAborted;

std::string Counters(uint64_t received, uint64_t sent) {
  return R"({"auth_state":"AUTH_OK","last_error":null,"tunnel_status":"CONNECTED","protocol":"WireGuard",)"
         R"("rx_bytes":)" +
         std::to_string(received) + R"(,"tx_bytes":)" + std::to_string(sent) +
         R"(,"public_ip":null,"selected_server_id":null,"selected_server":null})";
}

TEST_F(Telvorctl, WatchRedrawsOnATerminal) {
  gScript.outputIsTerminal = true;
  gScript.width = 31;
  Result(kGetStatus, Counters(1000, 5000));
  Result(kGetStatus, Counters(3048, 0));
  InterruptInPause(2);
  EXPECT_EQ(Run({"watch"}), 130);
  const std::string kTitle =
      "TELVOR, looked at every 2     \n"
      "seconds; Ctrl+C ends          \n";
  const std::string kTunnel =
      "Tunnel      CONNECTED         \n"
      "(WireGuard)                   \n"
      "Chosen      no location       \n";
  EXPECT_EQ(gScript.output, "<home><clear><home>" + kTitle + kTunnel +
                                "Received    1000 B            \n"
                                "Sent        4.8 KiB           \n"
                                "Account     logged in         \n"
                                "<clear><home>" +
                                kTitle + kTunnel +
                                "Received    2.9 KiB (1.0      \n"
                                "KiB/s)                        \n"
                                "Sent        0 B               \n"
                                "Account     logged in         \n"
                                "<clear>");
  EXPECT_EQ(gScript.now, 5000u);
}

TEST_F(Telvorctl, WatchWritesBlocksElsewhere) {
  Result(kGetStatus, Counters(0, 0));
  InterruptInPause(1);
  EXPECT_EQ(Run({"watch", "--interval", "60"}), 130);
  EXPECT_EQ(gScript.output,
            "TELVOR, looked at every 1 minute; Ctrl+C ends\n"
            "Tunnel      CONNECTED (WireGuard)\n"
            "Chosen      no location\n"
            "Received    0 B\n"
            "Sent        0 B\n"
            "Account     logged in\n"
            "\n");
}

TEST_F(Telvorctl, WatchOutlivesTheService) {
  CannotOpen(kGetStatus, kErrorFileNotFound);
  Refusal(kGetStatus, "IPC: no request");
  Result(kGetStatus, Counters(1024, 0));
  InterruptInPause(3);  // the first pause is that of opening again
  EXPECT_EQ(Run({"watch"}), 130);
  EXPECT_EQ(gScript.output,
            "TELVOR, looked at every 2 seconds; Ctrl+C ends\n"
            "IPC: no request (the request did not arrive whole; the service may be stopping)\n"
            "\n"
            "TELVOR, looked at every 2 seconds; Ctrl+C ends\n"
            "Tunnel      CONNECTED (WireGuard)\n"
            "Chosen      no location\n"
            "Received    1.0 KiB\n"
            "Sent        0 B\n"
            "Account     logged in\n"
            "\n");
}

std::string LoggedInBut(const std::string& error, const std::string& tunnel = "DISCONNECTED") {
  return Status(tunnel, "AUTH_OK", error);
}

// A session that was found is not looked for again at every look: that asks the control plane.
TEST_F(Telvorctl, WatchLooksForTheSessionWhereTheErrorDoubtsIt) {
  const std::string lost = R"({"ok":false,"status":"AUTH_REQUIRED","message":"no session: x"})";
  Result(kGetStatus, LoggedInBut("AUTH_REQUIRED"));
  Result(kEntitlement, lost);
  Result(kGetStatus, LoggedInBut("AUTH_REQUIRED"));
  Result(kEntitlement, R"({"ok":true,"payment_current":true,"status":"active"})");
  Result(kGetStatus, LoggedInBut("AUTH_REQUIRED"));
  Result(kGetStatus, LoggedInBut("AUTH_REQUIRED", "CONNECTING"));
  Result(kEntitlement, lost);
  InterruptInPause(4);
  EXPECT_EQ(Run({"watch"}), 130);
  std::vector<std::string> accounts;
  for (size_t at = gScript.output.find("Account"); at != std::string::npos;
       at = gScript.output.find("Account", at + 1))
    accounts.push_back(gScript.output.substr(at + 12, gScript.output.find('\n', at) - at - 12));
  EXPECT_EQ(accounts, (std::vector<std::string>{"login needed", "logged in", "logged in", "login needed"}));
}

TEST_F(Telvorctl, WatchForScriptsIsOneLineForEachLook) {
  gScript.outputIsTerminal = true;
  Result(kGetStatus, R"({"rx_bytes":1})");
  Refusal(kGetStatus, "away");
  Result(kGetStatus, R"({"rx_bytes":2})");
  InterruptInPause(3);
  EXPECT_EQ(Run({"watch", "--json"}), 130);
  EXPECT_EQ(gScript.output, "{\"rx_bytes\":1}\n{\"rx_bytes\":2}\n");
  EXPECT_EQ(gScript.errors, "telvorctl: away\n");
}

TEST_F(Telvorctl, WatchEndsWhenNobodyReadsItAnyMore) {
  gScript.writesUntilOutputCloses = 1;
  Result(kGetStatus, Counters(0, 0));
  EXPECT_EQ(Run({"watch"}), 0);
  EXPECT_EQ(gScript.output, "TELVOR, looked at every 2 seconds; Ctrl+C ends\n");
  gScript.output.clear();
  gScript.writesUntilOutputCloses = 1;
  Result(kGetStatus, R"({"rx_bytes":1})");
  Refusal(kGetStatus, "away");  // nothing to write: goes on
  Result(kGetStatus, R"({"rx_bytes":2})");
  EXPECT_EQ(Run({"watch", "--json"}), 0);
  EXPECT_EQ(gScript.output, "{\"rx_bytes\":1}\n");
  EXPECT_EQ(gScript.errors, "telvorctl: away\n");
}

TEST_F(Telvorctl, WatchEndsWithItsTerminal) {
  gScript.outputIsTerminal = true;
  gScript.writesUntilOutputCloses = 0;
  Result(kGetStatus, Counters(0, 0));
  EXPECT_EQ(Run({"watch"}), 0);
  EXPECT_EQ(gScript.output, "<home><clear><home>");
}

TEST_F(Telvorctl, WatchIsInterruptedInTheMiddleOfALook) {
  Broken(kGetStatus, kErrorOperationAborted, "");
  EXPECT_EQ(Run({"watch"}), 130);
  EXPECT_EQ(gScript.output, "");
}

}  // namespace
