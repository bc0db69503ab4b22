#include "sim/services.h"

#include "engine/tunnel_state.h"
#include "sim/files.h"
#include "sim/filtering.h"
#include "sim/http.h"
#include "sim/network.h"
#include "sim/pipes.h"
#include "sim_fixture.h"
#include "wireguard/platform.h"

namespace {

constexpr uint32_t kAllServiceRights =
    platform::kServiceQueryStatus | platform::kServiceStart | platform::kServiceStop;

// A service opened for the scope.
struct OpenedService {
  explicit OpenedService(const std::wstring& name, uint32_t access = kAllServiceRights)
      : manager(platform::OpenSCManagerW(platform::kScManagerConnect | platform::kScManagerEnumerateService)),
        service(platform::OpenServiceW(manager, name, access)) {}
  ~OpenedService() {
    if (service) platform::CloseServiceHandle(service);
    platform::CloseServiceHandle(manager);
  }
  OpenedService(const OpenedService&) = delete;
  OpenedService& operator=(const OpenedService&) = delete;
  uint32_t State() const {
    uint32_t state = 0;
    platform::QueryServiceStatusEx(service, state);
    return state;
  }
  platform::Handle manager;
  platform::Handle service;
};

void Install(const std::wstring& name, uint32_t state) {
  sim::Service service;
  service.name = name;
  service.state = state;
  sim::InstallService(service);
}

TEST(Services, AServiceGoesThroughItsPendingStates) {
  sim::Machine machine;
  Install(L"Other", platform::kServiceStopped);
  OpenedService other(L"OTHER");
  EXPECT_FALSE(platform::ControlService(other.service, platform::kServiceControlStop));
  EXPECT_EQ(platform::GetLastError(), 1062u);
  EXPECT_TRUE(platform::StartServiceW(other.service));
  EXPECT_EQ(other.State(), platform::kServiceStartPending);
  EXPECT_FALSE(platform::StartServiceW(other.service));
  EXPECT_EQ(platform::GetLastError(), 1056u);
  sim::Run(20);
  EXPECT_EQ(other.State(), platform::kServiceRunning);
  EXPECT_TRUE(platform::ControlService(other.service, platform::kServiceControlStop));
  EXPECT_EQ(other.State(), platform::kServiceStopPending);
  EXPECT_FALSE(platform::ControlService(other.service, platform::kServiceControlStop));
  EXPECT_EQ(platform::GetLastError(), 1061u);
  sim::Run(20);
  EXPECT_EQ(other.State(), platform::kServiceStopped);
}

TEST(Services, RightsAreNeededAsGivenAtTheOpening) {
  sim::Machine machine;
  Install(L"Other", platform::kServiceRunning);
  OpenedService other(L"Other", platform::kServiceQueryStatus);
  EXPECT_FALSE(platform::ControlService(other.service, platform::kServiceControlStop));
  EXPECT_EQ(platform::GetLastError(), 5u);
  EXPECT_FALSE(platform::StartServiceW(other.service));
  EXPECT_EQ(platform::GetLastError(), 5u);
}

TEST(Services, OnlyTheManagerSendsShutdownAndAMissingServiceIs1060) {
  sim::Machine machine;
  Install(L"Other", platform::kServiceRunning);
  OpenedService other(L"Other");
  EXPECT_FALSE(platform::ControlService(other.service, 5));
  EXPECT_EQ(platform::GetLastError(), 87u);
  EXPECT_FALSE(platform::ControlService(other.service, 15));
  EXPECT_EQ(platform::OpenServiceW(other.manager, L"Missing", kAllServiceRights), nullptr);
  EXPECT_EQ(platform::GetLastError(), 1060u);
}

TEST(Services, TheEnumerationAsksForItsSizeFirst) {
  sim::Machine machine;
  Install(L"Other", platform::kServiceRunning);
  const platform::Handle manager = platform::OpenSCManagerW(platform::kScManagerEnumerateService);
  uint32_t needed = 0;
  std::vector<platform::ServiceEntry> entries;
  const auto enumerate = [&](uint32_t size) {
    return platform::EnumServicesStatusExW(manager, platform::kScEnumProcessInfo, platform::kServiceWin32,
                                           platform::kServiceStateAll, size, needed, entries);
  };
  EXPECT_FALSE(enumerate(0));
  EXPECT_EQ(platform::GetLastError(), 234u);
  const uint32_t size = needed;
  EXPECT_GT(size, 0u);
  EXPECT_FALSE(enumerate(size - 1));
  EXPECT_TRUE(enumerate(size));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, L"Other");
  EXPECT_EQ(entries[1].name, L"TELVOR");
  platform::CloseServiceHandle(manager);
}

TEST(WholeService, OutsideTheManagerTheDispatcherFails) {
  sim::Machine machine;
  EXPECT_FALSE(platform::StartServiceCtrlDispatcherW(L"TELVOR", [] {}));
  EXPECT_EQ(platform::GetLastError(), 1063u);
}

bool StartService() {
  sim::StartProduct(true);
  return sim::RunUntil(
      [] { return sim::ServiceState(L"TELVOR") == platform::kServiceRunning && sim::PipeInstances() > 0; },
      10'000);
}

TEST(WholeService, StartsAndStopsOnAControl) {
  sim::Machine machine;
  ASSERT_TRUE(StartService());
  EXPECT_TRUE(sim::SendControl(platform::kServiceControlStop));
  EXPECT_TRUE(sim::RunUntil([] { return !sim::ProductRunning(); }, 60'000));
  EXPECT_EQ(sim::ProductExitCode(), 0);
  EXPECT_EQ(sim::ServiceState(L"TELVOR"), platform::kServiceStopped);
  EXPECT_EQ(sim::StatusReports().back().dwCurrentState, platform::kServiceStopped);
  EXPECT_EQ(sim::OpenHandles(), 0u);
  EXPECT_FALSE(sim::SendControl(platform::kServiceControlStop));
}

TEST(WholeService, TheAtExitHooksRunBeforeTheProcessEnds) {
  sim::Machine machine;
  ASSERT_TRUE(StartService());
  const size_t hooks = sim::InstalledCrashHooks().atExit.size();
  EXPECT_EQ(hooks, 1u);
  sim::SendControl(platform::kServiceControlStop);
  sim::RunUntil([] { return sim::CountCalls("SetServiceStatus", "state=1") > 0; }, 60'000);
  const size_t opensBefore = sim::CountCalls("FwpmEngineOpen0");
  EXPECT_TRUE(sim::RunUntil([] { return !sim::ProductRunning(); }, 60'000));
  EXPECT_GT(sim::CountCalls("FwpmEngineOpen0"), opensBefore);
}

TEST(WholeService, AKilledServiceStartsAgainOnTheSameMachine) {
  sim::Machine machine;
  ASSERT_TRUE(StartService());
  sim::KillProcess();
  EXPECT_FALSE(sim::ProductRunning());
  EXPECT_EQ(sim::ServiceState(L"TELVOR"), platform::kServiceStopped);
  EXPECT_EQ(sim::PipeInstances(), 0u);
  ASSERT_TRUE(StartService());
}

std::string RoadOfOneConnection(uint64_t seed, bool freeRunning) {
  sim::Options options;
  options.seed = seed;
  options.freeRunning = freeRunning;
  sim::Machine machine(options);
  sim::UseControlPlane();
  sim::PutFile(L"C:\\Program Files\\TELVOR\\data\\runtime.seed", "[ips]\n198.51.100.7\n");
  EXPECT_TRUE(StartService());
  const auto login = sim::Ask(
      R"({"id":1,"method":"POST /ui/login","params":{"email":"user@example.com","password":"secret"}})");
  EXPECT_TRUE(login && login->find("\"ok\":true") != std::string::npos) << login.value_or("no reply");
  EXPECT_TRUE(sim::Ask(R"({"id":2,"method":"Connect"})"));
  EXPECT_TRUE(sim::RunUntil([] { return gTunnelStatus == kStatusConnected; }, 60'000)) << sim::LogBytes();
  EXPECT_EQ(sim::FilterNames().size(), 13u + 2 + 2 + 2);
  EXPECT_EQ(sim::HostRouteTexts(), std::vector<std::string>{"198.51.100.7/32 via 192.168.1.1 if 7 metric 5"});
  EXPECT_TRUE(sim::Ask(R"({"id":4,"method":"Disconnect"})"));
  sim::Run(2000);
  EXPECT_TRUE(sim::FilterNames().empty());
  EXPECT_TRUE(sim::HostRouteTexts().empty());
  EXPECT_FALSE(sim::ServiceInstalled(L"WireGuardTunnel$telvor"));
  EXPECT_TRUE(sim::SendControl(platform::kServiceControlStop));
  EXPECT_TRUE(sim::RunUntil([] { return !sim::ProductRunning(); }, 60'000));
  return sim::TraceText();
}

TEST(WholeService, TheRoadOfOneConnectionRunsOnEverySeedAndIsReproducible) {
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    EXPECT_EQ(RoadOfOneConnection(seed, false), RoadOfOneConnection(seed, false));
  }
}

TEST(WholeService, TheRoadOfOneConnectionRunsFreely) {
  RoadOfOneConnection(1, true);
}

}  // namespace
