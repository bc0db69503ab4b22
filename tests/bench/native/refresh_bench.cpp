// Routes and permits of many addresses, beside the bare calls of the platform that they take.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "firewall/bypass_allowlist.h"
#include "firewall/rule_set.h"
#include "firewall/wfp_session.h"
#include "sim/files.h"
#include "sim/filtering.h"
#include "sim/kernel.h"
#include "sim/network.h"
#include "splittunnel/bypass_refresh.h"
#include "splittunnel/routes.h"
#include "tests/splittunnel/policy_fixture.h"

namespace {

constexpr wchar_t kGateway[] = L"192.168.1.1";
constexpr uint32_t kIfIndex = 7;

std::vector<std::wstring> Addresses(int64_t count) {
  std::vector<std::wstring> addresses;
  for (int64_t number = 0; number < count; ++number) {
    addresses.push_back(L"10.1." + std::to_wstring(number / 256) + L"." + std::to_wstring(number % 256));
  }
  std::sort(addresses.begin(), addresses.end());
  return addresses;
}

std::wstring Policy(const std::vector<std::wstring>& addresses) {
  std::wstring text = L"[ips]\n";
  for (const std::wstring& address : addresses) text += address + L"\n";
  return text;
}

// A machine whose gateway is known. Only one that is looked at, and not timed, notes the calls.
std::unique_ptr<sim::Machine> FreshMachine(bool keepsTrace = true) {
  auto machine = std::make_unique<sim::Machine>(sim::Options{.keepsTrace = keepsTrace});
  gDefaultGatewayV4 = kGateway;
  gDefaultIfIndex = kIfIndex;
  return machine;
}

uint32_t NetworkAddress(const std::wstring& text) {
  uint32_t address = 0;
  platform::InetPtonW(platform::kAfInet, text, address);
  return address;
}

// Times `work` on a machine that `prepare` has made ready each time.
void TimeOnFreshMachines(benchmark::State& state, const std::function<void()>& prepare,
                         const std::function<void()>& work) {
  for (auto _ : state) {
    state.PauseTiming();
    auto machine = FreshMachine(false);
    prepare();
    state.ResumeTiming();
    work();
    state.PauseTiming();
    machine.reset();
    state.ResumeTiming();
  }
}

// ---- A first install of the routes ----

void RoutesTelvor(benchmark::State& state) {
  const std::vector<std::wstring> addresses = Addresses(state.range(0));
  TimeOnFreshMachines(
      state, [] {}, [&] { ApplyBypassRoutes(addresses); });
  const auto machine = FreshMachine();
  if (!ApplyBypassRoutes(addresses) || sim::HostRouteTexts().size() != addresses.size()) {
    state.SkipWithError("not all routes are there");
  }
  if (sim::CountCalls("GetIpForwardTable2") != 0) state.SkipWithError("the table was read");
}

void RoutesBare(benchmark::State& state) {
  const std::vector<std::wstring> addresses = Addresses(state.range(0));
  TimeOnFreshMachines(
      state, [] {},
      [&] {
        for (const std::wstring& address : addresses) {
          uint32_t networkAddress = 0;
          uint32_t gateway = 0;
          platform::InetPtonW(platform::kAfInet, address, networkAddress);
          platform::InetPtonW(platform::kAfInet, kGateway, gateway);
          platform::MibIpForwardRow2 row;
          platform::InitializeIpForwardEntry(row);
          row.destinationPrefix = {platform::kAfInet, networkAddress};
          row.destinationPrefixLength = 32;
          row.nextHop = {platform::kAfInet, gateway};
          row.interfaceIndex = kIfIndex;
          row.metric = 5;
          row.protocol = platform::kMibIpProtoNetMgmt;
          platform::CreateIpForwardEntry2(row);
        }
      });
}

// ---- The permits ----

void PermitsTelvor(benchmark::State& state) {
  const std::vector<std::wstring> addresses = Addresses(state.range(0));
  TimeOnFreshMachines(
      state, [] {}, [&] { UpdateSplitTunnelBypassAllowlistV4(addresses); });
  const auto machine = FreshMachine();
  if (!UpdateSplitTunnelBypassAllowlistV4(addresses) || sim::FilterNames().size() != 2 * addresses.size()) {
    state.SkipWithError("not all permits are there");
  }
}

// Names and conditions are made beforehand.
void PermitsBare(benchmark::State& state) {
  const std::vector<std::wstring> addresses = Addresses(state.range(0));
  std::vector<platform::FwpmFilter> filters;
  {
    const auto machine = FreshMachine();
    for (const std::wstring& address : addresses) {
      for (const uint8_t protocol : {kProtocolTcp, kProtocolUdp}) {
        filters.push_back(PermitFilter(kSplitBypassPrefix + address, kLayerAleAuthConnectV4));
        filters.back().conditions = {RemoteAddressV4(NetworkAddress(address)), Protocol(protocol)};
      }
    }
  }
  platform::Handle engine = nullptr;
  const auto begin = [&] {
    OpenWfpEngine(engine);
    EnsureProviderAndSublayer(engine);
  };
  TimeOnFreshMachines(state, begin, [&] {
    platform::FwpmTransactionBegin0(engine, 0);
    for (size_t i = 0; i < filters.size(); ++i) {
      uint32_t networkAddress = 0;
      if (i % 2 == 0) platform::InetPtonW(platform::kAfInet, addresses[i / 2], networkAddress);
      uint64_t filterId = 0;
      platform::FwpmFilterAdd0(engine, filters[i], filterId);
    }
    platform::FwpmTransactionCommit0(engine);
    platform::FwpmEngineClose0(engine);
  });
}

// ---- A refresh in which one address changed ----

bool NoPermits(const std::vector<std::wstring>& /*addresses*/) {
  return true;
}

// As after a connection with one address that has gone from the policy since, and without one that has come.
void PrepareRefresh(const std::vector<std::wstring>& addresses) {
  gWorkerOperations.UpdateSplitTunnelBypassAllowlistV4 = &NoPermits;  // they are measured by themselves
  std::vector<std::wstring> applied = addresses;
  applied.back() = L"9.9.9.9";
  ApplyBypassRoutes(applied);
  std::sort(applied.begin(), applied.end());
  gBypassIpsApplied = applied;
  PutPolicy(Policy(addresses));
  sim::ClearLog();
}

void RefreshTelvor(benchmark::State& state) {
  const std::vector<std::wstring> addresses = Addresses(state.range(0));
  TimeOnFreshMachines(
      state, [&] { PrepareRefresh(addresses); }, &RefreshSplitTunnelRoutes);
  const auto machine = FreshMachine();
  PrepareRefresh(addresses);
  sim::ClearTrace();
  RefreshSplitTunnelRoutes();
  if (sim::CountCalls("GetIpForwardTable2") != 1 || sim::CountCalls("CreateIpForwardEntry2") != 1 ||
      sim::CountCalls("DeleteIpForwardEntry2") != 1) {
    state.SkipWithError("other calls than one read, one deletion and one creation");
  }
}

void AppendBare(const std::string& bytes) {
  platform::GetLocalTime();
  wchar_t value[260];
  platform::GetEnvironmentVariableW(L"ProgramData", value, 260);
  platform::CreateDirectoryW(L"C:\\ProgramData\\sorvanik-vpn");
  platform::Handle file =
      platform::CreateFileW(L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log", platform::kFileAppendData,
                            platform::kFileShareRead | platform::kFileShareWrite, platform::kOpenAlways,
                            platform::kFileAttributeNormal);
  uint32_t written = 0;
  platform::WriteFile(file, bytes.data(), static_cast<uint32_t>(bytes.size()), written);
  platform::CloseHandle(file);
}

// The calls of a refresh: the policy, one read of the table, one deletion, one creation, and a log line for
// each address.
void RefreshBare(benchmark::State& state) {
  const std::vector<std::wstring> addresses = Addresses(state.range(0));
  std::vector<std::string> lines;
  for (const std::wstring& address : addresses) {
    lines.push_back("[2026-01-01 00:00:00] SplitTunnelV1: Update WFP bypass IP = " +
                    std::string(address.begin(), address.end()) + "\r\n");
  }
  TimeOnFreshMachines(
      state, [&] { PrepareRefresh(addresses); },
      [&] {
        platform::Handle file =
            platform::CreateFileW(kRuntimePolicyFile, platform::kGenericRead, 3, platform::kOpenExisting,
                                  platform::kFileAttributeNormal);
        int64_t size = 0;
        platform::GetFileSizeEx(file, size);
        std::string blob(static_cast<size_t>(size), '\0');
        uint32_t read = 0;
        platform::ReadFile(file, blob.data(), static_cast<uint32_t>(size), read);
        platform::CloseHandle(file);
        std::string plain;
        platform::CryptUnprotectData(blob, 0, plain);
        platform::MibIpForwardTable2 table;
        platform::GetIpForwardTable2(platform::kAfInet, table);
        platform::MibIpForwardRow2 row = table.rows.back();
        platform::DeleteIpForwardEntry2(row);
        platform::FreeMibTable(table);
        row.destinationPrefix.v4Address = NetworkAddress(addresses.back());
        platform::CreateIpForwardEntry2(row);
        for (const std::string& line : lines) AppendBare(line);
      });
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->RangeMultiplier(10)->Range(10, 10000)->Iterations(3)->Unit(benchmark::kMillisecond);
}

BENCHMARK(RoutesTelvor)->Apply(&Sizes);
BENCHMARK(RoutesBare)->Apply(&Sizes);
BENCHMARK(PermitsTelvor)->Apply(&Sizes);
BENCHMARK(PermitsBare)->Apply(&Sizes);
BENCHMARK(RefreshTelvor)->Apply(&Sizes);
BENCHMARK(RefreshBare)->Apply(&Sizes);

}  // namespace
