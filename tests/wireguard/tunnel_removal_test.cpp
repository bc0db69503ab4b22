#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/processes.h"
#include "tests/wireguard/tunnel_service_fixture.h"
#include "wireguard/tunnel_service.h"

namespace {

using Lines = std::vector<std::string>;

constexpr char kExtra[] = "Single-tunnel invariant: stopping extra tunnel service: ";
constexpr char kNoStop[] = "WireGuard tunnel service did not reach STOPPED within timeout.";

// The installer ends so; with `removes` the service is gone by then.
void ScriptUninstaller(uint32_t exitCode, bool removes, const std::string& out = "",
                       const std::string& err = "") {
  sim::SetProcessHandler([=](const std::wstring&) {
    if (removes) sim::RemoveService(kOwnTunnelService);
    return sim::ProcessResult{.exitCode = exitCode, .standardOutput = out, .standardError = err};
  });
}

TEST(UninstallTunnelService, StopsTheServiceAndThenRunsTheUninstallerWithTheBareName) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  uint32_t stateAtRun = 0;
  sim::SetProcessHandler([&stateAtRun](const std::wstring&) {
    stateAtRun = StateOf();
    sim::RemoveService(kOwnTunnelService);
    return sim::ProcessResult{};
  });
  EXPECT_TRUE(UninstallTunnelService(L"telvor"));
  EXPECT_EQ(stateAtRun, 1U);
  ASSERT_EQ(sim::StartedProcesses().size(), 1U);
  EXPECT_EQ(sim::StartedProcesses()[0].commandLine,
            L"\"C:\\Program Files\\WireGuard\\wireguard.exe\" /uninstalltunnelservice telvor");
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(UninstallTunnelService, WithoutAServiceStillRunsTheUninstallerAndIsContentWithItsError) {
  sim::Machine machine;
  ScriptUninstaller(1, false, "out", "Error: The specified service does not exist");
  EXPECT_TRUE(UninstallTunnelService(L"telvor"));
  EXPECT_EQ(sim::StartedProcesses().size(), 1U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(UninstallTunnelService, CountsAServiceThatIsGoneAsSuccessWhateverTheExitCode) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  ScriptUninstaller(5, true, "out", "err");
  EXPECT_TRUE(UninstallTunnelService(L"telvor"));
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(UninstallTunnelService, LogsAFailedUninstallerWithWhatItWrote) {
  const struct {
    std::string out, err;
    Lines behind;
  } cases[] = {{"some output", "some error", {"stdout: some output", "stderr: some error"}},
               {"", "some error", {"stderr: some error"}},
               {"some output", "", {"stdout: some output"}},
               {"", "", {}}};
  for (const auto& output : cases) {
    sim::Machine machine;
    sim::InstallService(TunnelService(4));
    ScriptUninstaller(1603, false, output.out, output.err);
    EXPECT_FALSE(UninstallTunnelService(L"telvor"));
    Lines expected = {"wireguard.exe uninstalltunnelservice failed ec=1603 tunnel=telvor"};
    expected.insert(expected.end(), output.behind.begin(), output.behind.end());
    EXPECT_EQ(sim::LogLines(), expected);
  }
}

TEST(UninstallTunnelService, LogsAnUninstallerThatCouldNotBeStarted) {
  sim::Machine machine;
  sim::SetProcessHandler([](const std::wstring&) { return sim::ProcessResult{.starts = false}; });
  EXPECT_FALSE(UninstallTunnelService(L"telvor"));  // although there is no service
  EXPECT_EQ(sim::LogLines(),
            (Lines{"wireguard.exe uninstalltunnelservice failed to execute for tunnel=telvor"}));
}

TEST(UninstallTunnelService, IsAQuietFailureWhenTheServiceOutlivesASuccessfulUninstaller) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  ScriptUninstaller(0, false, "out", "err");
  EXPECT_FALSE(UninstallTunnelService(L"telvor"));
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(UninstallTunnelService, RunsTheUninstallerAlsoAfterAStopThatTookTooLong) {
  sim::Machine machine;
  sim::Service service = TunnelService(4);
  service.hangsOnStop = true;
  sim::InstallService(service);
  ScriptUninstaller(0, true);
  const uint64_t start = sim::Now();
  EXPECT_TRUE(UninstallTunnelService(L"telvor"));
  EXPECT_EQ(sim::StartedProcesses().size(), 1U);
  EXPECT_EQ(sim::StartedProcesses()[0].time - start, 8250U);
  EXPECT_EQ(sim::LogLines(), (Lines{kNoStop}));
}

TEST(EnforceSingleTunnel, StopsEveryOtherRunningTunnelAndRemovesNone) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  sim::InstallService(TunnelService(4, L"WireGuardTunnel$office"));
  sim::InstallService(TunnelService(4, L"WireGuardTunnel$home net"));
  EnforceSingleTunnel(L"telvor");
  EXPECT_EQ(StateOf(), 4U);
  EXPECT_EQ(StateOf(L"WireGuardTunnel$office"), 1U);
  EXPECT_EQ(StateOf(L"WireGuardTunnel$home net"), 1U);
  EXPECT_TRUE(sim::StartedProcesses().empty());
  EXPECT_EQ(sim::LogLines().size(), 2U);
  EXPECT_TRUE(sim::LogHas(std::string(kExtra) + "WireGuardTunnel$office"));
  EXPECT_TRUE(sim::LogHas(std::string(kExtra) + "WireGuardTunnel$home net"));
}

TEST(EnforceSingleTunnel, LeavesAloneWhatIsNoOtherRunningTunnel) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4));
  const std::pair<const wchar_t*, uint32_t> others[] = {
      {L"WireGuardTunnel$one", 1},   {L"WireGuardTunnel$two", 2}, {L"WireGuardTunnel$three", 3},
      {L"WireGuardTunnel$seven", 7}, {L"WireGuardManager", 4},    {L"wireguardtunnel$lower", 4},
      {L"WIREGUARDTUNNEL$upper", 4}, {L"WireGuardTunnel", 4},     {L"MyWireGuardTunnel$inside", 4}};
  for (const auto& [name, state] : others) sim::InstallService(TunnelService(state, name));
  EnforceSingleTunnel(L"telvor");
  EXPECT_EQ(StateOf(), 4U);
  for (const auto& [name, state] : others) EXPECT_EQ(StateOf(name), state) << sim::Narrow(name);
  EXPECT_EQ(sim::CountCalls("ControlService"), 0U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(EnforceSingleTunnel, KeepsARunningTunnelWhoseNameDiffersOnlyInCase) {
  sim::Machine machine;
  sim::InstallService(TunnelService(4, L"WireGuardTunnel$TELVOR"));
  EnforceSingleTunnel(L"telvor");
  EXPECT_EQ(StateOf(L"WireGuardTunnel$TELVOR"), 4U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(EnforceSingleTunnel, GoesOnBehindATunnelThatDoesNotStop) {
  sim::Machine machine;
  sim::Service hanging = TunnelService(4, L"WireGuardTunnel$aaa");
  hanging.hangsOnStop = true;
  sim::InstallService(hanging);
  sim::InstallService(TunnelService(4, L"WireGuardTunnel$bbb"));
  const uint64_t start = sim::Now();
  EnforceSingleTunnel(L"telvor");
  EXPECT_EQ(sim::Now() - start, 30250U + 250U);
  EXPECT_EQ(StateOf(L"WireGuardTunnel$bbb"), 1U);
  EXPECT_EQ(sim::LogCount(kExtra), 2U);
  EXPECT_EQ(sim::LogCount(kNoStop), 1U);
}

TEST(EnforceSingleTunnel, ListsAllServicesWithTheRightsForIt) {
  sim::Machine machine;
  EnforceSingleTunnel(L"telvor");
  EXPECT_EQ(sim::CountCalls("OpenSCManagerW", "access=5"), 1U);
  EXPECT_EQ(sim::CountCalls("EnumServicesStatusExW", "level=0 type=48 state=3"), 2U);
  EXPECT_EQ(sim::CountCalls("EnumServicesStatusExW", "bufferSize=0"), 1U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(EnforceSingleTunnel, ListsAlsoWhenThereIsNoServiceAndNoSizeIsNeeded) {
  sim::Machine machine;
  sim::RemoveService(L"TELVOR");
  EnforceSingleTunnel(L"telvor");
  EXPECT_EQ(sim::CountCalls("EnumServicesStatusExW", "bufferSize=0"), 2U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(EnforceSingleTunnel, LogsTheManagerAndTheListingButNotTheQuestionForTheSize) {
  const struct {
    sim::Fault fault;
    Lines lines;
  } cases[] = {
      {{.operation = "OpenSCManagerW", .code = 5}, {AccessDenied("OpenSCManagerW(enum)")}},
      {{.operation = "EnumServicesStatusExW", .code = 5}, {}},
      {{.operation = "EnumServicesStatusExW", .code = 5, .skip = 1}, {AccessDenied("EnumServicesStatusExW")}},
  };
  for (const auto& step : cases) {
    sim::Machine machine;
    sim::InstallService(TunnelService(4, L"WireGuardTunnel$office"));
    sim::Fail(step.fault);
    EnforceSingleTunnel(L"telvor");
    EXPECT_EQ(sim::LogLines(), step.lines);
    EXPECT_EQ(StateOf(L"WireGuardTunnel$office"), 4U);
  }
}

TEST(TunnelService, StopsFromTwoThreadsAtOnceAreHarmless) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    sim::Machine machine({.seed = seed});
    sim::InstallService(TunnelService(4));
    int ended = 0;
    for (int i = 0; i < 2; ++i) {
      sim::StartThread("stop", [&ended] {
        StopTunnelService(L"telvor", 8000);
        ++ended;
      });
    }
    EXPECT_TRUE(sim::RunUntil([&ended] { return ended == 2; }, 20000));
    EXPECT_EQ(StateOf(), 1U);
  }
}

}  // namespace
