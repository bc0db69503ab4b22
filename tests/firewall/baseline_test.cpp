// The fail-closed baseline as it comes into force: its log, its calls, its filters, the control plane's pins.
#include "firewall/baseline.h"

#include <gtest/gtest.h>

#include "engine/tunnel_state.h"
#include "firewall/bypass_allowlist.h"
#include "firewall/rule_set.h"
#include "tests/firewall/firewall_fixture.h"

namespace {

using namespace firewall_test;

constexpr uint32_t kTunnelIndex = 42;

const Lines kBaselineNames = {
    "ALLOW loopback v4",
    "ALLOW loopback v6",
    "ALLOW wireguard.exe UDP (v4)",
    "ALLOW wireguard.exe UDP (v6)",
    "ALLOW DNS UDP/53 (v4)",
    "ALLOW DNS TCP/53 (v4)",
    "ALLOW wireguard.exe UDP (v4)",
    "ALLOW wireguard.exe UDP (v6)",
    "ALLOW WireGuard UDP dst-port (v4)",
    "ALLOW ALL outbound connect via WG interface (v4)",
    "ALLOW ALL outbound connect via WG interface (v6)",
    "ALLOW ALL outbound connect via WG interface (v4)",
    "ALLOW ALL outbound connect via WG interface (v6)",
};

Lines BaselineAndPins(const Lines& addresses) {
  Lines names = kBaselineNames;
  for (const std::string& address : addresses) {
    names.insert(names.end(), 2, "TELVOR:ALLOW cp-pinned v4:" + address);
  }
  return names;
}

// The log of the nine adds that stand before the guard.
const Lines kStart = {
    "WFP: EnableFailClosedBaseline(): OpenEngine OK",
    "WFP: EnsureProviderAndSublayer OK",
    "WFP: Transaction BEGIN OK",
    "WFP: Cleanup old filters ENTER",
    "WFP: Cleanup old filters OK",
    "WFP: AddAllowLoopbackV4 ENTER",
    "WFP: AddAllowLoopbackV4 OK",
    "WFP: AddAllowLoopbackV6 ENTER",
    "WFP: AddAllowLoopbackV6 OK",
    "WFP: AddAllowWireGuardAppUdpV4(wireguard.exe) ENTER",
    "WFP: AddAllowWireGuardAppUdpV4 OK",
    "WFP: AddAllowWireGuardAppUdpV6(wireguard.exe) ENTER",
    "WFP: AddAllowWireGuardAppUdpV6 OK",
    "WFP: AddAllowDnsV4 ENTER",
    "WFP: AddAllowDnsV4 OK",
    "WFP: AddAllowAppUdpV4(wireguard.exe) ENTER",
    "WFP: AddAllowAppUdpV4(wireguard.exe) OK",
    "WFP: AddAllowAppUdpV6(wireguard.exe) ENTER",
    "WFP: AddAllowAppUdpV6(wireguard.exe) OK",
    "WFP: AddAllowWireGuardUdpPortV4(51820) ENTER",
    "WFP: AddAllowWireGuardUdpPortV4 OK",
};

const Lines kInterfaceAdds = {
    "WFP: AddAllowAllOutboundOnIfIndexV4 ENTER",
    "WFP: AddAllowAllOutboundOnIfIndexV4 OK",
    "WFP: AddAllowAllOutboundOnIfIndexV6 ENTER",
    "WFP: AddAllowAllOutboundOnIfIndexV6 OK",
    "WFP: AddAllowAllOutboundOnIfIndexV4(wgIfIndex) ENTER",
    "WFP: AddAllowAllOutboundOnIfIndexV4 OK",
    "WFP: AddAllowAllOutboundOnIfIndexV6(wgIfIndex) ENTER",
    "WFP: AddAllowAllOutboundOnIfIndexV6 OK",
};

const Lines kOnePin = {
    "CP immediate DNS refresh (baseline): base=https://cp.telvor.test:8443",
    "CP immediate DNS refresh (baseline): host=cp.telvor.test count=1",
    "CP pinned ALLOW added (baseline) host=cp.telvor.test ip=10.99.0.1",
    "CP immediate DNS refresh summary (baseline): host=cp.telvor.test added=1 failed=0",
};

void ControlPlaneAt(const Lines& addresses) {
  sim::SetHost(kControlPlaneHost, addresses);
}

const sim::EngineFilter& Filter(size_t number) {
  return sim::FiltersInForce().at(number - 1);
}
const platform::FwpmFilterCondition& Condition(size_t filter, size_t number) {
  return Filter(filter).filter.conditions.at(number - 1);
}

// The condition compares this field for equality with a value of this type.
void ExpectCondition(size_t filter, size_t number, const platform::Guid& field, uint32_t type) {
  SCOPED_TRACE("filter " + std::to_string(filter) + " condition " + std::to_string(number));
  EXPECT_EQ(Condition(filter, number).fieldKey, field);
  EXPECT_EQ(Condition(filter, number).matchType, 0u);
  EXPECT_EQ(Condition(filter, number).type, type);
}

// ---- The log and the calls ----

TEST(EnableFailClosedBaseline, LogsEachStep) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  gCpIpV4 = L"10.99.0.1";
  EXPECT_TRUE(EnableFailClosedBaseline(gCpIpV4, kTunnelIndex));
  const Lines enter = {"WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4=10.99.0.1 wgIfIndexV4=42"};
  EXPECT_EQ(sim::LogLines(), Join({enter, kStart, kInterfaceAdds, kOnePin, {"WFP: Transaction COMMIT OK"}}));
}

TEST(EnableFailClosedBaseline, MakesItsCallsInOrder) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  const std::string add = "FwpmFilterAdd0";
  const std::string appId = "FwpmGetAppIdFromFileName0";
  const Lines start = {"FwpmEngineOpen0",
                       "FwpmProviderAdd0",
                       "FwpmSubLayerAdd0",
                       "FwpmTransactionBegin0",
                       "FwpmFilterCreateEnumHandle0",
                       "FwpmFilterEnum0",
                       "FwpmFilterDestroyEnumHandle0"};
  const Lines adds = {add, add, appId, add, appId, add, add, add, appId, add, appId, add, add};
  EXPECT_EQ(FwpmCalls(),
            Join({start, adds, Lines(4 + 2, add), {"FwpmTransactionCommit0", "FwpmEngineClose0"}}));
}

TEST(EnableFailClosedBaseline, FreesEachAppIdStraightAfterItsFilter) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  const std::vector<sim::TraceEntry>& trace = sim::Trace();
  size_t asked = 0;
  for (size_t i = 0; i < trace.size(); ++i) {
    if (trace[i].operation != "FwpmGetAppIdFromFileName0") continue;
    ++asked;
    EXPECT_NE(trace[i].arguments.find("C:\\Program Files\\WireGuard\\wireguard.exe"), std::string::npos);
    ASSERT_LT(i + 2, trace.size());
    EXPECT_EQ(trace[i + 1].operation, "FwpmFilterAdd0");
    EXPECT_EQ(trace[i + 2].operation, "FwpmFreeMemory0");
  }
  EXPECT_EQ(asked, 4u);
}

TEST(EnableFailClosedBaseline, PrintsTheSharedAddressAndIgnoresItsArgument) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  gCpIpV4 = L"10.88.0.1";
  EXPECT_TRUE(EnableFailClosedBaseline(L"10.77.0.1", kTunnelIndex));
  EXPECT_EQ(sim::LogLines().at(0),
            "WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4=10.88.0.1 wgIfIndexV4=42");
  EXPECT_EQ(InForce(), BaselineAndPins({"10.99.0.1"}));
}

// ---- The filters ----

TEST(EnableFailClosedBaseline, AddsThirteenFiltersAndThePinsInOrder) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.2", "10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(InForce(), BaselineAndPins({"10.99.0.1", "10.99.0.2"}));
}

TEST(EnableFailClosedBaseline, GivesEveryFilterTheCommonFieldsAndPermits) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(sim::FiltersInForce().size(), 15u);
  for (const sim::EngineFilter& entry : sim::FiltersInForce()) {
    SCOPED_TRACE(sim::Narrow(entry.filter.displayData.name));
    EXPECT_EQ(entry.filter.displayData.description, L"");
    EXPECT_EQ(entry.filter.flags, 0u);
    EXPECT_EQ(entry.filter.providerKey, kProviderKey);
    EXPECT_EQ(entry.filter.subLayerKey, kSubLayerKey);
    EXPECT_EQ(entry.filter.weight, 0xF000000000000000u);
    EXPECT_EQ(entry.filter.actionType, 0x1002u);
    EXPECT_EQ(entry.filter.rawContext, 0u);
  }
}

TEST(EnableFailClosedBaseline, UsesTheOutboundConnectLayersAlone) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  std::string families;
  for (const sim::EngineFilter& entry : sim::FiltersInForce()) {
    const bool v4 = entry.filter.layerKey == kLayerAleAuthConnectV4;
    EXPECT_TRUE(v4 || entry.filter.layerKey == kLayerAleAuthConnectV6);
    families += v4 ? '4' : '6';
  }
  EXPECT_EQ(families, "4646444644646");
}

TEST(EnableFailClosedBaseline, PermitsLoopbackWithTheAddressInNetworkByteOrder) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  ASSERT_EQ(Filter(1).filter.conditions.size(), 1u);
  ExpectCondition(1, 1, kConditionIpRemoteAddress, platform::kFwpV4AddrMask);
  // htonl(0x7F000001) on a little-endian machine, placed without a further swap.
  EXPECT_EQ(Condition(1, 1).v4Address, 0x0100007Fu);
  EXPECT_EQ(Condition(1, 1).v4Mask, 0xFFFFFFFFu);
  ASSERT_EQ(Filter(2).filter.conditions.size(), 1u);
  ExpectCondition(2, 1, kConditionIpRemoteAddress, platform::kFwpV6AddrMask);
  std::array<uint8_t, 16> loopback{};
  loopback[15] = 1;
  EXPECT_EQ(Condition(2, 1).v6Address, loopback);
  EXPECT_EQ(Condition(2, 1).v6PrefixLength, 128);
}

TEST(EnableFailClosedBaseline, PermitsTheWireGuardProgramsUdpTwice) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  for (const size_t number : {3u, 4u, 7u, 8u}) {
    ASSERT_EQ(Filter(number).filter.conditions.size(), 2u);
    ExpectCondition(number, 1, kConditionAleAppId, platform::kFwpByteBlobType);
    EXPECT_EQ(Filter(number).blobs.at(0), sim::AppIdFor(kWireGuardProgram));
    ExpectCondition(number, 2, kConditionIpProtocol, platform::kFwpUint8);
    EXPECT_EQ(Condition(number, 2).number, 17u);
  }
}

TEST(EnableFailClosedBaseline, PermitsDnsAndTheWireGuardPortToEveryone) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  struct {
    size_t filter;
    uint32_t protocol, port;
  } const rows[] = {{5, 17, 53}, {6, 6, 53}, {9, 17, 51820}};
  for (const auto& row : rows) {
    ASSERT_EQ(Filter(row.filter).filter.conditions.size(), 2u);
    ExpectCondition(row.filter, 1, kConditionIpProtocol, platform::kFwpUint8);
    EXPECT_EQ(Condition(row.filter, 1).number, row.protocol);
    ExpectCondition(row.filter, 2, kConditionIpRemotePort, platform::kFwpUint16);
    EXPECT_EQ(Condition(row.filter, 2).number, row.port);
  }
}

TEST(EnableFailClosedBaseline, PermitsEverythingThroughTheTunnelTwice) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  for (size_t number = 10; number <= 13; ++number) {
    ASSERT_EQ(Filter(number).filter.conditions.size(), 1u);
    ExpectCondition(number, 1, kConditionInterfaceIndex, platform::kFwpUint32);
    EXPECT_EQ(Condition(number, 1).number, kTunnelIndex);
  }
}

TEST(EnableFailClosedBaseline, PinsTcpThenUdpOfTheControlPlane) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  for (const size_t number : {14u, 15u}) {
    EXPECT_EQ(Filter(number).filter.layerKey, kLayerAleAuthConnectV4);
    ASSERT_EQ(Filter(number).filter.conditions.size(), 2u);
    ExpectCondition(number, 1, kConditionIpRemoteAddress, platform::kFwpV4AddrMask);
    EXPECT_EQ(Condition(number, 1).v4Address, 0x0100630Au);
    EXPECT_EQ(Condition(number, 1).v4Mask, 0xFFFFFFFFu);
    ExpectCondition(number, 2, kConditionIpProtocol, platform::kFwpUint8);
    EXPECT_EQ(Condition(number, 2).number, number == 14 ? 6u : 17u);
  }
}

// ---- Replacing ----

TEST(EnableFailClosedBaseline, ReplacesItselfWithoutGrowth) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_EQ(InForce().size(), 13u + 2 + 2 + 2);
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(InForce(), BaselineAndPins({"10.99.0.1"}));
}

TEST(EnableFailClosedBaseline, SwapsTheRuleSetsInOneTransaction) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  const size_t committed = sim::TransactionsCommitted();
  sim::Before("FwpmTransactionCommit0", [] { EXPECT_EQ(InForce(), kBaselineNames); });
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(sim::TransactionsCommitted(), committed + 1);
}

// ---- The guard ----

TEST(EnableFailClosedBaseline, RefusesAnInterfaceIndexOf0AfterNineAdds) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  EXPECT_FALSE(EnableFailClosedBaseline(L"", 0));
  const Lines enter = {"WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4= wgIfIndexV4=0"};
  const Lines refusal = {
      "WFP: wgIfIndexV4 is 0; refusing to apply fail-closed baseline (would brick connectivity)"};
  const Lines end = {"WFP: EnableFailClosedBaseline(): One of the calls failed; aborting transaction."};
  EXPECT_EQ(sim::LogLines(), Join({enter, kStart, refusal, kOnePin, end}));
  EXPECT_EQ(sim::CountCalls("FwpmFilterAdd0"), 9u + 2);
  EXPECT_EQ(InForce(), Lines{});
  EXPECT_EQ(sim::OpenHandles("engine"), 0u);
}

// ---- Pins ----

TEST(EnableFailClosedBaseline, HoldsWithoutPinsWhenTheHostResolvesToNothing) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_TRUE(sim::LogHas("CP immediate DNS refresh (baseline): host=cp.telvor.test count=0"));
  EXPECT_TRUE(
      sim::LogHas("CP immediate DNS refresh summary (baseline): host=cp.telvor.test added=0 failed=0"));
  EXPECT_EQ(InForce(), kBaselineNames);
}

TEST(EnableFailClosedBaseline, SkipsTheAddressOfNowhere) {
  sim::Machine machine;
  ControlPlaneAt({"0.0.0.0", "10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_TRUE(sim::LogHas("CP immediate DNS refresh (baseline): host=cp.telvor.test count=2"));
  EXPECT_TRUE(
      sim::LogHas("CP immediate DNS refresh summary (baseline): host=cp.telvor.test added=1 failed=0"));
  EXPECT_EQ(InForce(), BaselineAndPins({"10.99.0.1"}));
}

TEST(EnableFailClosedBaseline, GoesOnBehindAPinThatFails) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1", "10.99.0.2", "10.99.0.3"});
  sim::Fail({.operation = "FwpmFilterAdd0", .code = kAccessDenied, .skip = 13});
  sim::ClearLog();
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  const Lines log = sim::LogLines();
  ASSERT_GE(log.size(), 8u);
  EXPECT_EQ(Lines(log.end() - 8, log.end()),
            (Lines{"CP immediate DNS refresh (baseline): base=https://cp.telvor.test:8443",
                   "CP immediate DNS refresh (baseline): host=cp.telvor.test count=3",
                   ErrorLine("FwpmFilterAdd0(ALLOW split-bypass v4)", kAccessDenied),
                   "CP pinned ALLOW FAILED (baseline) host=cp.telvor.test ip=10.99.0.1",
                   "CP pinned ALLOW added (baseline) host=cp.telvor.test ip=10.99.0.2",
                   "CP pinned ALLOW added (baseline) host=cp.telvor.test ip=10.99.0.3",
                   "CP immediate DNS refresh summary (baseline): host=cp.telvor.test added=2 failed=1",
                   "WFP: Transaction COMMIT OK"}));
  EXPECT_EQ(InForce(), BaselineAndPins({"10.99.0.2", "10.99.0.3"}));
}

TEST(EnableFailClosedBaseline, KeepsTheTcpHalfOfAPinWhoseUdpHalfFails) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  sim::Fail({.operation = "FwpmFilterAdd0", .code = kAccessDenied, .skip = 14});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_TRUE(sim::LogHas("CP pinned ALLOW FAILED (baseline) host=cp.telvor.test ip=10.99.0.1"));
  EXPECT_EQ(CountOf(InForce(), "TELVOR:ALLOW cp-pinned v4:10.99.0.1"), 1u);
}

TEST(EnableFailClosedBaseline, ResolvesTheBuiltInUrlInsideTheTransaction) {
  sim::Machine machine;
  ControlPlaneAt({"10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(sim::LookupCount(kControlPlaneHost), 1u);
  Lines order;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == "GetAddrInfoW" || entry.operation.rfind("FwpmTransaction", 0) == 0) {
      order.emplace_back(entry.operation);
    }
  }
  EXPECT_EQ(order, (Lines{"FwpmTransactionBegin0", "GetAddrInfoW", "FwpmTransactionCommit0"}));
}

}  // namespace
