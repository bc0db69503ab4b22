#include "firewall/baseline.h"

#include <span>

#include "engine/tunnel_state.h"
#include "firewall/control_plane_pins.h"
#include "firewall/enumeration.h"
#include "firewall/rule_set.h"
#include "firewall/wfp_session.h"
#include "service/log.h"
#include "service/paths.h"

namespace {

constexpr uint32_t kLoopbackAddress = 0x0100007F;  // htonl(0x7F000001): 127.0.0.1 in network byte order
constexpr uint16_t kDnsPort = 53;
constexpr uint16_t kWireGuardPort = 51820;

enum class Address { kAny, kLoopbackV4, kLoopbackV6 };

// One permit of the table; its conditions are those that are set, in this order.
struct Permit {
  const wchar_t* name;
  const platform::Guid& layer;
  Address address;
  bool tunnelProgramOnly;
  uint8_t protocol;              // 0: any
  uint16_t port;                 // 0: any
  const wchar_t* appIdFailure;   // null: there is no such call
  const wchar_t* filterFailure;  // null: no line of its own
};

// A step that is bracketed in the log, with the permits that it adds.
struct Step {
  const wchar_t* enter;
  const wchar_t* ok;
  const wchar_t* failed;
  std::span<const Permit> permits;
};

constexpr Permit kLoopback4[] = {{L"ALLOW loopback v4", kLayerAleAuthConnectV4, Address::kLoopbackV4, false,
                                  0, 0, nullptr, L"WFP: FwpmFilterAdd0 failed (ALLOW loopback v4)"}};
constexpr Permit kLoopback6[] = {
    {L"ALLOW loopback v6", kLayerAleAuthConnectV6, Address::kLoopbackV6, false, 0, 0, nullptr, nullptr}};
constexpr Permit kProgram4[] = {{L"ALLOW wireguard.exe UDP (v4)", kLayerAleAuthConnectV4, Address::kAny, true,
                                 kProtocolUdp, 0, L"WFP: FwpmGetAppIdFromFileName0 failed (wireguard.exe v4)",
                                 L"WFP: FwpmFilterAdd0 failed (ALLOW wireguard.exe UDP v4)"}};
constexpr Permit kProgram6[] = {{L"ALLOW wireguard.exe UDP (v6)", kLayerAleAuthConnectV6, Address::kAny, true,
                                 kProtocolUdp, 0, L"WFP: FwpmGetAppIdFromFileName0 failed (wireguard.exe v6)",
                                 L"WFP: FwpmFilterAdd0 failed (ALLOW wireguard.exe UDP v6)"}};
constexpr Permit kDns4[] = {{L"ALLOW DNS UDP/53 (v4)", kLayerAleAuthConnectV4, Address::kAny, false,
                             kProtocolUdp, kDnsPort, nullptr, L"WFP: FwpmFilterAdd0 failed (ALLOW DNS v4)"},
                            {L"ALLOW DNS TCP/53 (v4)", kLayerAleAuthConnectV4, Address::kAny, false,
                             kProtocolTcp, kDnsPort, nullptr, L"WFP: FwpmFilterAdd0 failed (ALLOW DNS v4)"}};
constexpr Permit kProgramAgain4[] = {{L"ALLOW wireguard.exe UDP (v4)", kLayerAleAuthConnectV4, Address::kAny,
                                      true, kProtocolUdp, 0, L"WFP: FwpmGetAppIdFromFileName0 failed (v4)",
                                      L"WFP: FwpmFilterAdd0 failed (ALLOW app UDP v4)"}};
constexpr Permit kProgramAgain6[] = {{L"ALLOW wireguard.exe UDP (v6)", kLayerAleAuthConnectV6, Address::kAny,
                                      true, kProtocolUdp, 0, L"WFP: FwpmGetAppIdFromFileName0 failed (v6)",
                                      L"WFP: FwpmFilterAdd0 failed (ALLOW app UDP v6)"}};
constexpr Permit kPort4[] = {{L"ALLOW WireGuard UDP dst-port (v4)", kLayerAleAuthConnectV4, Address::kAny,
                              false, kProtocolUdp, kWireGuardPort, nullptr,
                              L"WFP: FwpmFilterAdd0 failed (ALLOW WireGuard UDP port v4)"}};

// Wanted: the program's permits stand twice, each a filter of its own.
constexpr Step kSteps[] = {
    {L"WFP: AddAllowLoopbackV4 ENTER", L"WFP: AddAllowLoopbackV4 OK", L"WFP: AddAllowLoopbackV4 FAILED",
     kLoopback4},
    {L"WFP: AddAllowLoopbackV6 ENTER", L"WFP: AddAllowLoopbackV6 OK", L"WFP: AddAllowLoopbackV6 FAILED",
     kLoopback6},
    {L"WFP: AddAllowWireGuardAppUdpV4(wireguard.exe) ENTER", L"WFP: AddAllowWireGuardAppUdpV4 OK",
     L"WFP: AddAllowWireGuardAppUdpV4 FAILED", kProgram4},
    {L"WFP: AddAllowWireGuardAppUdpV6(wireguard.exe) ENTER", L"WFP: AddAllowWireGuardAppUdpV6 OK",
     L"WFP: AddAllowWireGuardAppUdpV6 FAILED", kProgram6},
    {L"WFP: AddAllowDnsV4 ENTER", L"WFP: AddAllowDnsV4 OK", L"WFP: AddAllowDnsV4 FAILED", kDns4},
    {L"WFP: AddAllowAppUdpV4(wireguard.exe) ENTER", L"WFP: AddAllowAppUdpV4(wireguard.exe) OK",
     L"WFP: AddAllowAppUdpV4(wireguard.exe) FAILED", kProgramAgain4},
    {L"WFP: AddAllowAppUdpV6(wireguard.exe) ENTER", L"WFP: AddAllowAppUdpV6(wireguard.exe) OK",
     L"WFP: AddAllowAppUdpV6(wireguard.exe) FAILED", kProgramAgain6},
    {L"WFP: AddAllowWireGuardUdpPortV4(51820) ENTER", L"WFP: AddAllowWireGuardUdpPortV4 OK",
     L"WFP: AddAllowWireGuardUdpPortV4 FAILED", kPort4},
};

// The permits for everything through the tunnel's interface.
struct InterfacePermit {
  const wchar_t* name;
  const platform::Guid& layer;
  const wchar_t* skip;
  const wchar_t* filterFailure;
};
constexpr InterfacePermit kInterface4{L"ALLOW ALL outbound connect via WG interface (v4)",
                                      kLayerAleAuthConnectV4,
                                      L"WFP: AddAllowAllOutboundOnIfIndexV4: ifIndex=0 (SKIP)",
                                      L"WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v4)"};
constexpr InterfacePermit kInterface6{L"ALLOW ALL outbound connect via WG interface (v6)",
                                      kLayerAleAuthConnectV6,
                                      L"WFP: AddAllowAllOutboundOnIfIndexV6: ifIndex=0 (SKIP)",
                                      L"WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v6)"};

struct InterfaceStep {
  const wchar_t* enter;
  const wchar_t* ok;
  const wchar_t* failed;
  bool (*add)(platform::Handle engine, uint32_t ifIndex);
};
// Wanted: both are added twice.
constexpr InterfaceStep kInterfaceSteps[] = {
    {L"WFP: AddAllowAllOutboundOnIfIndexV4 ENTER", L"WFP: AddAllowAllOutboundOnIfIndexV4 OK",
     L"WFP: AddAllowAllOutboundOnIfIndexV4 FAILED", &AddAllowAllOutboundOnIfIndexV4},
    {L"WFP: AddAllowAllOutboundOnIfIndexV6 ENTER", L"WFP: AddAllowAllOutboundOnIfIndexV6 OK",
     L"WFP: AddAllowAllOutboundOnIfIndexV6 FAILED", &AddAllowAllOutboundOnIfIndexV6},
    {L"WFP: AddAllowAllOutboundOnIfIndexV4(wgIfIndex) ENTER", L"WFP: AddAllowAllOutboundOnIfIndexV4 OK",
     L"WFP: AddAllowAllOutboundOnIfIndexV4 FAILED", &AddAllowAllOutboundOnIfIndexV4},
    {L"WFP: AddAllowAllOutboundOnIfIndexV6(wgIfIndex) ENTER", L"WFP: AddAllowAllOutboundOnIfIndexV6 OK",
     L"WFP: AddAllowAllOutboundOnIfIndexV6 FAILED", &AddAllowAllOutboundOnIfIndexV6},
};

constexpr PinTexts kBaselinePins{
    .base = L"CP immediate DNS refresh (baseline): base=",
    .parseFailed = L"CP immediate DNS refresh (baseline): ParseHttpsBaseUrl FAILED for base=",
    .host = L"CP immediate DNS refresh (baseline): host=",
    .added = L"CP pinned ALLOW added (baseline) host=",
    .failed = L"CP pinned ALLOW FAILED (baseline) host=",
    .summary = L"CP immediate DNS refresh summary (baseline): host=",
};

constexpr Enumeration kCalloutSweep{
    &platform::FwpmCalloutCreateEnumHandle0,  &platform::FwpmCalloutEnum0,
    &platform::FwpmCalloutDestroyEnumHandle0, L"WFP: FwpmCalloutCreateEnumHandle0 failed",
    L"WFP: FwpmCalloutEnum0 failed",
};

// Adds the filter; a failure is logged as that of `failure`, if there is one.
bool AddFilter(platform::Handle engine, const platform::FwpmFilter& filter, const wchar_t* failure) {
  uint64_t filterId = 0;
  const uint32_t code = platform::FwpmFilterAdd0(engine, filter, filterId);
  if (code != platform::kErrorSuccess && failure) WfpLogError(failure, code);
  return code == platform::kErrorSuccess;
}

void FreeAppId(platform::FwpByteBlob* appId) {
  void* memory = appId;
  if (memory) platform::FwpmFreeMemory0(memory);
}

bool AddPermit(platform::Handle engine, const Permit& permit) {
  platform::FwpmFilter filter = PermitFilter(permit.name, permit.layer);
  if (permit.address == Address::kLoopbackV4) filter.conditions.push_back(RemoteAddressV4(kLoopbackAddress));
  if (permit.address == Address::kLoopbackV6) filter.conditions.push_back(RemoteAddressV6Loopback());
  platform::FwpByteBlob* appId = nullptr;
  if (permit.tunnelProgramOnly) {
    const uint32_t code = platform::FwpmGetAppIdFromFileName0(kWireGuardProgram, appId);
    if (code != platform::kErrorSuccess || !appId) {
      WfpLogError(permit.appIdFailure, code);
      FreeAppId(appId);
      return false;
    }
    filter.conditions.push_back(AppId(appId));
  }
  if (permit.protocol) filter.conditions.push_back(Protocol(permit.protocol));
  if (permit.port) filter.conditions.push_back(RemotePort(permit.port));
  const bool added = AddFilter(engine, filter, permit.filterFailure);
  FreeAppId(appId);
  return added;
}

bool RunStep(platform::Handle engine, const Step& step) {
  WfpLogLine(step.enter);
  for (const Permit& permit : step.permits) {
    if (AddPermit(engine, permit)) continue;
    WfpLogLine(step.failed);
    return false;
  }
  WfpLogLine(step.ok);
  return true;
}

bool RunInterfaceStep(platform::Handle engine, const InterfaceStep& step, uint32_t ifIndex) {
  WfpLogLine(step.enter);
  const bool added = step.add(engine, ifIndex);
  WfpLogLine(added ? step.ok : step.failed);
  return added;
}

bool SweepOldFilters(platform::Handle engine) {
  WfpLogLine(L"WFP: Cleanup old filters ENTER");
  const bool swept = CleanupOldFilters(engine);
  WfpLogLine(swept ? L"WFP: Cleanup old filters OK" : L"WFP: Cleanup old filters FAILED");
  return swept;
}

// The old rule set out, the new one in. False at the first failure.
bool ReplaceRules(platform::Handle engine, uint32_t ifIndex) {
  if (!SweepOldFilters(engine)) return false;
  for (const Step& step : kSteps) {
    if (!RunStep(engine, step)) return false;
  }
  if (ifIndex == 0) {
    WfpLogLine(L"WFP: wgIfIndexV4 is 0; refusing to apply fail-closed baseline (would brick connectivity)");
    return false;
  }
  for (const InterfaceStep& step : kInterfaceSteps) {
    if (!RunInterfaceStep(engine, step, ifIndex)) return false;
  }
  return true;
}

bool FinishBaseline(platform::Handle engine, bool good) {
  if (!good) {
    WfpLogLine(L"WFP: EnableFailClosedBaseline(): One of the calls failed; aborting transaction.");
    platform::FwpmTransactionAbort0(engine);
    return false;
  }
  if (const uint32_t code = platform::FwpmTransactionCommit0(engine); code != platform::kErrorSuccess) {
    WfpLogError(L"WFP: FwpmTransactionCommit0 failed", code);
    return false;
  }
  WfpLogLine(L"WFP: Transaction COMMIT OK");
  return true;
}

// With the engine open.
bool ApplyBaseline(platform::Handle engine, uint32_t ifIndex) {
  const bool ensured = EnsureProviderAndSublayer(engine);
  WfpLogLine(ensured ? L"WFP: EnsureProviderAndSublayer OK" : L"WFP: EnsureProviderAndSublayer FAILED");
  if (!ensured) return false;
  if (const uint32_t code = platform::FwpmTransactionBegin0(engine, 0); code != platform::kErrorSuccess) {
    WfpLogError(L"WFP: FwpmTransactionBegin0 failed", code);
    return false;
  }
  WfpLogLine(L"WFP: Transaction BEGIN OK");
  const bool good = ReplaceRules(engine, ifIndex);
  // Wanted: the pins are tried and logged even in a transaction that is then aborted.
  PinControlPlane(engine, kBaselinePins);
  return FinishBaseline(engine, good);
}

bool AddInterfacePermit(platform::Handle engine, uint32_t ifIndex, const InterfacePermit& permit) {
  if (ifIndex == 0) {
    WfpLogLine(permit.skip);
    return false;
  }
  platform::FwpmFilter filter = PermitFilter(permit.name, permit.layer);
  filter.conditions = {InterfaceIndex(ifIndex)};
  return AddFilter(engine, filter, permit.filterFailure);
}

// The system adds no callouts itself; this clears any under its provider.
bool DeleteCallouts(platform::Handle engine) {
  bool allDeleted = true;
  const WalkEnd end = WalkObjects(engine, kCalloutSweep, [&](const platform::FwpmEntry& entry) {
    if (!entry.hasProviderKey || entry.providerKey != kProviderKey) return;
    const uint32_t code = platform::FwpmCalloutDeleteByKey0(engine, entry.key);
    if (code == platform::kErrorSuccess) return;
    WfpLogError(L"WFP: Callout delete failed", code);
    allDeleted = false;
  });
  return end != WalkEnd::kBroken && allDeleted;
}

void LogUnless(const wchar_t* what, uint32_t code, uint32_t notFound) {
  if (code != platform::kErrorSuccess && code != notFound) WfpLogError(what, code);
}

// With the engine open.
bool RemoveAll(platform::Handle engine) {
  if (const uint32_t code = platform::FwpmTransactionBegin0(engine, 0); code != platform::kErrorSuccess) {
    WfpLogError(L"FwpmTransactionBegin0", code);
    return false;
  }
  const bool filtersGone = CleanupOldFilters(engine);
  const bool calloutsGone = DeleteCallouts(engine);
  LogUnless(L"WFP: FwpmSubLayerDeleteByKey0 failed", platform::FwpmSubLayerDeleteByKey0(engine, kSubLayerKey),
            platform::kFwpESublayerNotFound);
  LogUnless(L"WFP: FwpmProviderDeleteByKey0 failed", platform::FwpmProviderDeleteByKey0(engine, kProviderKey),
            platform::kFwpEProviderNotFound);
  // Committed even after failures: what could be removed is gone.
  if (const uint32_t code = platform::FwpmTransactionCommit0(engine); code != platform::kErrorSuccess) {
    WfpLogError(L"FwpmTransactionCommit0", code);
    platform::FwpmTransactionAbort0(engine);
    return false;
  }
  return filtersGone && calloutsGone;
}

}  // namespace

bool EnableFailClosedBaseline(const std::wstring& /*controlPlaneIp*/, uint32_t ifIndex) {
  WfpLogLine(L"WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4=" + gCpIpV4 + L" wgIfIndexV4=" +
             std::to_wstring(ifIndex));
  platform::Handle engine = nullptr;
  if (const uint32_t code = OpenWfpEngine(engine); code != platform::kErrorSuccess) {
    WfpLogError(L"FwpmEngineOpen0", code);
    WfpLogLine(L"WFP: EnableFailClosedBaseline(): OpenEngine not OK");
    return false;
  }
  WfpLogLine(L"WFP: EnableFailClosedBaseline(): OpenEngine OK");
  const bool committed = ApplyBaseline(engine, ifIndex);
  platform::FwpmEngineClose0(engine);
  return committed;
}

bool RollbackToOpen() {
  platform::Handle engine = nullptr;
  if (const uint32_t code = OpenWfpEngine(engine); code != platform::kErrorSuccess) {
    WfpLogError(L"FwpmEngineOpen0", code);
    return false;
  }
  const bool removed = RemoveAll(engine);
  platform::FwpmEngineClose0(engine);
  return removed;
}

bool AddAllowAllOutboundOnIfIndexV4(platform::Handle engine, uint32_t ifIndex) {
  return AddInterfacePermit(engine, ifIndex, kInterface4);
}

bool AddAllowAllOutboundOnIfIndexV6(platform::Handle engine, uint32_t ifIndex) {
  return AddInterfacePermit(engine, ifIndex, kInterface6);
}
