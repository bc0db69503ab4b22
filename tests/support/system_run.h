// The whole service on a simulated machine: started by its manager, driven through its pipe, over a control
// plane, WireGuard's programs, routes and the filtering engine.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/tunnel_state.h"
#include "firewall/wfp_session.h"
#include "service/paths.h"
#include "sim/files.h"
#include "sim/filtering.h"
#include "sim/http.h"
#include "sim/kernel.h"
#include "sim/network.h"
#include "sim/pipes.h"
#include "sim/processes.h"
#include "sim/services.h"
#include "tests/support/sim_failures.h"

using Lines = std::vector<std::string>;

inline constexpr wchar_t kTunnelService[] = L"WireGuardTunnel$telvor";
inline constexpr wchar_t kSeedFile[] = L"C:\\Program Files\\TELVOR\\data\\runtime.seed";

inline constexpr char kTrueReply[] = "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":true,\"error\":null}\n";
inline constexpr char kFalseReply[] = "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":false,\"error\":null}\n";
inline constexpr char kNoRequestReply[] =
    "{\"jsonrpc\":\"2.0\",\"id\":0,\"result\":null,\"error\":{\"message\":\"IPC: no request\"}}\n";
inline constexpr char kLoginReply[] =
    R"({"jsonrpc":"2.0","id":1,"result":{"ok":true,"auth_state":"AUTH_OK","message":"registered"},)"
    R"("error":null})"
    "\n";
inline constexpr char kLogoutReply[] =
    R"({"jsonrpc":"2.0","id":1,"result":{"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"},)"
    R"("error":null})"
    "\n";
inline constexpr uint64_t kMinute = 60'000;

inline std::string Request(const std::string& method, const std::string& parameters = "") {
  const std::string rest = parameters.empty() ? "" : ",\"params\":{" + parameters + "}";
  return "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"" + method + "\"" + rest + "}";
}

// The reply's line; empty if there is none.
inline std::string Ask(const std::string& method, const std::string& parameters = "") {
  return sim::Ask(Request(method, parameters)).value_or("");
}

inline std::string Login() {
  return Ask("POST /ui/login", R"("email":"user@example.com","password":"secret")");
}

inline std::string SelectLocation(const std::string& id) {
  return Ask("POST /ui/select-location", "\"server_id\":\"" + id + "\"");
}

// The text behind a key of a reply; empty for null or none.
inline std::string Field(const std::string& reply, const std::string& key) {
  const std::string mark = "\"" + key + "\":\"";
  const size_t at = reply.find(mark);
  if (at == std::string::npos) return "";
  const size_t begin = at + mark.size();
  return reply.substr(begin, reply.find('"', begin) - begin);
}

// As GetState says it.
inline std::string State() {
  return Field(Ask("GetState"), "state");
}

inline bool WaitForStatus(int32_t status, uint64_t milliseconds = 2 * kMinute) {
  return sim::RunUntil([status] { return gTunnelStatus == status; }, milliseconds);
}

inline bool WaitForLine(const std::string& line, uint64_t milliseconds = kMinute) {
  return sim::RunUntil([&line] { return sim::LogHas(line); }, milliseconds);
}

inline bool WaitForEnd(uint64_t milliseconds = kMinute) {
  return sim::RunUntil([] { return !sim::ProductRunning(); }, milliseconds);
}

// The worker is in its idle branch and has removed the tunnel service.
inline bool WaitForIdle(uint64_t milliseconds = kMinute) {
  return sim::RunUntil(
      [] {
        return gTunnelStatus == kStatusDisconnected && !sim::ServiceInstalled(kTunnelService) &&
               sim::HostRouteTexts().empty() && !gBypassRoutesInstalled;
      },
      milliseconds);
}

// So long the process lives on behind its report of the stop, as a busy computer may let it.
inline void LetTheProcessLiveOn(uint32_t milliseconds) {
  sim::Before(
      "CreateFileW", [milliseconds] { platform::Sleep(milliseconds); }, "13-dispatch-returned.txt");
}

// Nothing of the system is in force in the filtering engine.
inline bool FirewallIsOpen() {
  return sim::FiltersInForce().empty() && !sim::ProviderInForce(kProviderKey) &&
         !sim::SubLayerInForce(kSubLayerKey);
}

inline std::string LastErrorText() {
  const std::lock_guard lock(gLastErrorMutex);
  return sim::Narrow(gLastError);
}

// Whether `wanted` stand in `all` in this order, with anything between them; says which one is missing.
inline testing::AssertionResult InOrder(const Lines& all, const Lines& wanted) {
  auto place = all.begin();
  for (const std::string& line : wanted) {
    place = std::find(place, all.end(), line);
    if (place == all.end()) return testing::AssertionFailure() << "missing, or too early: " << line;
    ++place;
  }
  return testing::AssertionSuccess();
}

// The checks that hold on every machine after an orderly end of the service.
inline void ExpectNothingLeft() {
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_EQ(sim::PipeInstances(), 0u);
  EXPECT_EQ(sim::ProductExitCode(), 0);
  ASSERT_FALSE(sim::StatusReports().empty());
  EXPECT_EQ(sim::StatusReports().back().dwCurrentState, platform::kServiceStopped);
  EXPECT_EQ(sim::StatusReports().back().dwWin32ExitCode, 0u);
}

// A machine with the control plane and a policy of one domain and one address. Nothing runs yet.
class SystemRun {
 public:
  explicit SystemRun(const sim::Options& options = {}) : machine_(options), plane(sim::UseControlPlane()) {
    sim::PutFile(kSeedFile, "[domains]\nbypass.example\n[ips]\n198.51.100.7\n");
    sim::SetHost(L"bypass.example", {"198.51.100.20", "198.51.100.21"});
  }

  // Started by the service manager, and its pipe is there.
  void Start() {
    sim::StartProduct(true);
    ASSERT_TRUE(
        sim::RunUntil([] { return sim::LogHas("Service RUNNING.") && sim::PipeInstances() > 0; }, kMinute));
  }

  void StartAndLogIn() {
    Start();
    ASSERT_EQ(Login(), kLoginReply);
  }

  void Connect() {
    ASSERT_EQ(Ask("Connect"), kTrueReply);
    ASSERT_TRUE(WaitForStatus(kStatusConnected));
  }

  // Started, logged in and connected.
  void StartConnected() {
    StartAndLogIn();
    Connect();
  }

  // By the service manager; until wmain has returned.
  void Stop() {
    ASSERT_TRUE(sim::SendControl(platform::kServiceControlStop));
    ASSERT_TRUE(WaitForEnd());
  }

 private:
  sim::Machine machine_;

 public:
  sim::ControlPlane& plane;
};
