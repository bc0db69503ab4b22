// telvorctl on a scripted terminal and pipe, in virtual time: each test tells what is asked and answered.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "telvorctl/command_line.h"
#include "telvorctl/platform.h"

namespace telvorctl_test {

// `request` is the line that must be asked, without its line feed.
struct Exchange {
  std::string request;
  telvorctl::platform::PipeAnswer answer;
  bool forever = false;  // answered so each time from now on
  uint32_t takesMs = 0;  // of virtual time
};

struct Script {
  std::deque<Exchange> exchanges;
  std::deque<std::string> typed;  // at hidden prompts; when there are no more, Ctrl+C is
  std::deque<std::string> input;  // lines of an input that is no terminal
  bool inputIsTerminal = false;
  bool outputIsTerminal = false;
  bool errorsAreTerminal = false;
  size_t width = 80;
  int pausesUntilInterrupt = 1000000;
  int writesUntilOutputCloses = 1000000;
  // What telvorctl did.
  bool interrupted = false;
  uint64_t now = 1000;
  std::string output;
  std::string errors;
};

inline Script gScript;

class Telvorctl : public testing::Test {
 protected:
  void SetUp() override { gScript = Script(); }

  void TearDown() override {
    for (const Exchange& exchange : gScript.exchanges) {
      EXPECT_TRUE(exchange.forever) << "never asked: " << exchange.request;
    }
  }

  static void Raw(const std::string& request, const std::string& reply) {
    gScript.exchanges.push_back({request, {0, 0, reply}});
  }

  static void Result(const std::string& request, const std::string& result) {
    Raw(request, R"({"jsonrpc":"2.0","id":1,"result":)" + result +
                     R"(,"error":null})"
                     "\n");
  }

  static void Refusal(const std::string& request, const std::string& message) {
    Raw(request, R"({"jsonrpc":"2.0","id":1,"result":null,"error":{"message":")" + message +
                     R"("}})"
                     "\n");
  }

  static void CannotOpen(const std::string& request, uint32_t error, bool forever = false) {
    gScript.exchanges.push_back({request, {error, 0, {}}, forever});
  }

  static void Broken(const std::string& request, uint32_t error, const std::string& arrived) {
    gScript.exchanges.push_back({request, {0, error, arrived}});
  }

  static int Run(std::vector<std::string> arguments) {
    return telvorctl::RunCommandLine(std::move(arguments));
  }

  // The service is asked whether a tunnel is up before what takes it down.
  static void TunnelIs(const std::string& word);

  // Ctrl+C comes in the pause of this number, counted from 1.
  static void InterruptInPause(int number) { gScript.pausesUntilInterrupt = number - 1; }
};

inline const std::string kGetState = R"({"jsonrpc":"2.0","id":1,"method":"GetState"})";
inline const std::string kGetStatus = R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/status"})";
inline const std::string kConnect = R"({"jsonrpc":"2.0","id":1,"method":"Connect"})";
inline const std::string kDisconnect = R"({"jsonrpc":"2.0","id":1,"method":"Disconnect"})";
inline const std::string kEntitlement = R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/entitlement"})";

// Of kEntitlement.
inline const std::string kNoSession =
    R"({"ok":false,"payment_current":false,"status":"AUTH_REQUIRED",)"
    R"("message":"no session: C:\\ProgramData\\TELVOR\\auth\\session.dat"})";

inline std::string State(const std::string& word, const std::string& lastError = "") {
  return R"({"deviceId":"dev-1","wgPublicKey":"KEY=","state":")" + word +
         R"(","protocol":"WireGuard","rxBytes":2048,"txBytes":10,"lastError":)" +
         (lastError.empty() ? "null" : "\"" + lastError + "\"") + "}";
}

inline std::string Status(const std::string& word, const std::string& auth = "AUTH_OK",
                          const std::string& lastError = "") {
  return R"({"auth_state":")" + auth + R"(","last_error":)" +
         (lastError.empty() ? "null" : "\"" + lastError + "\"") + R"(,"tunnel_status":")" + word +
         R"(","protocol":"WireGuard","rx_bytes":2048,"tx_bytes":10,"public_ip":"203.0.113.1",)"
         R"("selected_server_id":"fr-par-1","selected_server":{"id":"fr-par-1","name":"Paris 1",)"
         R"("country":"FR","city":"Paris","lat":48.850000,"lon":2.350000,"online":true,)"
         R"("last_seen_at":"2026-01-02T03:04:05Z"}})";
}

inline void Telvorctl::TunnelIs(const std::string& word) {
  Result(kGetState, State(word));
}

}  // namespace telvorctl_test
