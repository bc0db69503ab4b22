// Operations that several threads may run at once, run so: the log, the firewall, the tunnel service, the
// token, the device id. Made for the thread sanitizer.
#include <atomic>
#include <functional>
#include <set>

#include "controlplane/auth.h"
#include "controlplane/base_url.h"
#include "controlplane/device.h"
#include "firewall/baseline.h"
#include "firewall/bypass_allowlist.h"
#include "service/log.h"
#include "service/wiring.h"
#include "tests/support/system_run.h"
#include "wireguard/tunnel_service.h"
#include "wireguard/wg_probe.h"

namespace {

using Task = std::function<void()>;

// A machine whose threads really run at once, with the tables filled as in the process.
class FreeRun {
 public:
  FreeRun() : run_({.freeRunning = true}) { WireSubsystems(); }

  // Each task on a thread of its own, so many times over.
  void AllAtOnce(const std::vector<Task>& tasks, int times) {
    std::atomic<size_t> running{tasks.size()};
    for (const Task& task : tasks) {
      sim::StartThread("task", [&task, &running, times] {
        for (int i = 0; i < times; ++i) task();
        --running;
      });
    }
    EXPECT_TRUE(sim::RunUntil([&running] { return running == 0; }, 600ULL * kMinute));
  }

 private:
  SystemRun run_;
};

TEST(Operations, LinesOfTheLogDoNotMix) {
  FreeRun run;
  std::vector<Task> tasks;
  for (int writer = 0; writer < 6; ++writer) {
    const std::wstring text = L"writer " + std::to_wstring(writer) + std::wstring(100, L'x');
    tasks.push_back([text, writer] { writer % 2 ? WfpLogLine(text) : LogLine(text); });
  }
  run.AllAtOnce(tasks, 50);
  const Lines lines = sim::LogLines();
  EXPECT_EQ(lines.size(), 300u);
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 6u);
}

TEST(Operations, TheFirewallIsWholeOrOpen) {
  FreeRun run;
  sim::AddAdapter(L"telvor", 42);
  const std::vector<std::wstring> bypass = {L"198.51.100.7", L"198.51.100.8"};
  run.AllAtOnce({[] { EnableFailClosedBaseline(L"10.99.0.1", 42); }, [] { RollbackToOpen(); },
                 [&bypass] { UpdateSplitTunnelBypassAllowlistV4(bypass); }, [] { RollbackToOpen(); }},
                20);
  EXPECT_TRUE(EnableFailClosedBaseline(L"10.99.0.1", 42));
  EXPECT_EQ(sim::FiltersInForce().size(), 15u);
  EXPECT_TRUE(RollbackToOpen());
  EXPECT_TRUE(FirewallIsOpen());
}

TEST(Operations, TheTunnelServiceMayBeTakenDownByTwo) {
  FreeRun run;
  sim::PutFile(kTunnelConfigFile, "conf");
  const Task install = [] {
    sim::Service service;
    service.name = kTunnelService;
    service.state = platform::kServiceRunning;
    if (!sim::ServiceInstalled(service.name)) sim::InstallService(service);
  };
  run.AllAtOnce(
      {install, [] { UninstallTunnelService(L"telvor"); }, [] { StopTunnelService(L"telvor", 8000); },
       [] { UninstallTunnelService(L"telvor"); }, [] { EnforceSingleTunnel(L"other"); }},
      10);
  UninstallTunnelService(L"telvor");
  EXPECT_FALSE(sim::ServiceInstalled(kTunnelService));
}

TEST(Operations, ProbesRunBesideEachOther) {
  FreeRun run;
  sim::AddAdapter(L"telvor", 42);
  sim::SetTransfer(5, 7);
  std::atomic<int> wrong{0};
  const Task counters = [&wrong] {
    uint64_t received = 0;
    uint64_t sent = 0;
    if (!WgGetRxTxBytes(L"telvor", received, sent) || received != 5 || sent != 7) ++wrong;
  };
  const Task handshake = [&wrong] {
    if (!WgHandshakeSeen(L"telvor")) ++wrong;
  };
  run.AllAtOnce({counters, handshake, counters, handshake}, 10);
  EXPECT_EQ(wrong, 0);
}

// Nothing lets only one refresh go, and a file that another thread is writing is no session for a moment.
// What is handed out is a good token.
TEST(Operations, TokensAreRefreshedBySeveralAtOnce) {
  FreeRun run;
  const std::string nearlyExpired = R"({"access_token":"old","refresh_token":"refresh-1","expires_at":)";
  sim::PutFile(kSessionFile, sim::Seal(nearlyExpired + std::to_string(sim::UnixTime() + 10) + "}"));
  std::atomic<int> wrong{0};
  const Task task = [&wrong] {
    std::wstring token;
    std::wstring error;
    if (EnsureValidAccessToken(kDefaultCpBaseUrl, token, error) && token != L"access-1") ++wrong;
  };
  run.AllAtOnce({task, task, task, task}, 10);
  EXPECT_EQ(wrong, 0);
  std::wstring token;
  std::wstring error;
  EXPECT_TRUE(EnsureValidAccessToken(kDefaultCpBaseUrl, token, error)) << sim::Narrow(error);
}

TEST(Operations, DeviceIdsAreMadeAlikeBySeveralAtOnce) {
  FreeRun run;
  std::atomic<int> wrong{0};
  const Task task = [&wrong] {
    std::wstring id;
    if (LoadOrCreateDeviceId(kDeviceIdFile, id) && id != L"desktop-ab12") ++wrong;
  };
  run.AllAtOnce({task, task, task}, 10);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(sim::FileBytes(kDeviceIdFile), "desktop-ab12\r\n");
}

}  // namespace
