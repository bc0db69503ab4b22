// What each failing step of the baseline logs and leaves in force.
#include <gtest/gtest.h>

#include "firewall/baseline.h"
#include "firewall/bypass_allowlist.h"
#include "tests/firewall/firewall_fixture.h"

namespace {

using namespace firewall_test;

constexpr uint32_t kTunnelIndex = 42;
const char kAborting[] = "WFP: EnableFailClosedBaseline(): One of the calls failed; aborting transaction.";

// A machine on which the rule set of an earlier connection is in force, bypass permits and pins included.
struct ConnectedBefore {
  ConnectedBefore() {
    sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
    EnableFailClosedBaseline(L"", kTunnelIndex);
    UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"});
    before = InForce();
    sim::ClearLog();
    sim::ClearTrace();
  }

  sim::Machine machine;
  Lines before;
};

// The lines from the failing step up to the pins.
Lines LinesOfTheFailure() {
  const Lines log = sim::LogLines();
  size_t last = 0;
  for (size_t i = 0; i < log.size(); ++i) {
    if (log[i].find("(baseline): base=") != std::string::npos) last = i;
  }
  size_t first = last;
  while (first > 0 && log[first - 1].find(" ENTER") == std::string::npos) --first;
  return Lines(log.begin() + static_cast<ptrdiff_t>(first), log.begin() + static_cast<ptrdiff_t>(last));
}

// The baseline fails in its transaction: these are the failing step's lines, the pins are tried all the same,
// and all is as before.
void ExpectAbort(const ConnectedBefore& machine, const Lines& failure) {
  EXPECT_FALSE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(LinesOfTheFailure(), failure);
  EXPECT_TRUE(sim::LogHas("CP pinned ALLOW added (baseline) host=cp.telvor.test ip=10.99.0.1"));
  EXPECT_EQ(sim::LogLines().back(), kAborting);
  EXPECT_EQ(InForce(), machine.before);
  const Lines calls = FwpmCalls();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(Lines(calls.end() - 2, calls.end()), (Lines{"FwpmTransactionAbort0", "FwpmEngineClose0"}));
  EXPECT_EQ(sim::OpenHandles("engine"), 0u);
  EXPECT_EQ(sim::OpenHandles("memory"), 0u);
}

// ---- Before the transaction ----

TEST(EnableFailClosedBaselineFailure, EngineDoesNotOpen) {
  ConnectedBefore machine;
  sim::Fail({.operation = "FwpmEngineOpen0", .code = 1753});
  EXPECT_FALSE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(
      sim::LogLines(),
      (Lines{"WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4= wgIfIndexV4=42",
             ErrorLine("FwpmEngineOpen0", 1753), "WFP: EnableFailClosedBaseline(): OpenEngine not OK"}));
  EXPECT_EQ(FwpmCalls(), Lines{"FwpmEngineOpen0"});
  EXPECT_EQ(InForce(), machine.before);
}

TEST(EnableFailClosedBaselineFailure, ProviderOrSublayerCannotBeAdded) {
  for (const std::string operation : {"FwpmProviderAdd0", "FwpmSubLayerAdd0"}) {
    SCOPED_TRACE(operation);
    ConnectedBefore machine;
    sim::Fail({.operation = operation, .code = kAccessDenied});
    EXPECT_FALSE(EnableFailClosedBaseline(L"", kTunnelIndex));
    EXPECT_EQ(sim::LogLines(),
              (Lines{"WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4= wgIfIndexV4=42",
                     "WFP: EnableFailClosedBaseline(): OpenEngine OK", ErrorLine(operation, kAccessDenied),
                     "WFP: EnsureProviderAndSublayer FAILED"}));
    EXPECT_EQ(FwpmCalls().back(), "FwpmEngineClose0");
    EXPECT_EQ(InForce(), machine.before);
  }
}

TEST(EnableFailClosedBaselineFailure, TransactionDoesNotBegin) {
  ConnectedBefore machine;
  sim::Fail({.operation = "FwpmTransactionBegin0", .code = kAccessDenied});
  EXPECT_FALSE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(sim::LogLines(),
            (Lines{"WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4= wgIfIndexV4=42",
                   "WFP: EnableFailClosedBaseline(): OpenEngine OK", "WFP: EnsureProviderAndSublayer OK",
                   ErrorLine("WFP: FwpmTransactionBegin0 failed", kAccessDenied)}));
  EXPECT_EQ(FwpmCalls().back(), "FwpmEngineClose0");
  EXPECT_EQ(InForce(), machine.before);
}

// ---- The sweep ----

TEST(EnableFailClosedBaselineFailure, SweepFails) {
  const struct {
    std::string operation, line;
  } rows[] = {{"FwpmFilterCreateEnumHandle0", "WFP: FwpmFilterCreateEnumHandle0 failed"},
              {"FwpmFilterEnum0", "WFP: FwpmFilterEnum0 failed"},
              {"FwpmFilterDeleteByKey0", "WFP: Filter delete failed"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.operation);
    ConnectedBefore machine;
    sim::Fail({.operation = row.operation, .code = kAccessDenied});
    ExpectAbort(machine, {ErrorLine(row.line, kAccessDenied), "WFP: Cleanup old filters FAILED"});
    EXPECT_EQ(sim::CountCalls("FwpmFilterAdd0"), 2u);  // the pin's
  }
}

// ---- The adds ----

struct FailingAdd {
  std::string error;  // what the error line says; empty: there is none
  std::string failed;
};

const FailingAdd kFailingAdds[] = {
    {"WFP: FwpmFilterAdd0 failed (ALLOW loopback v4)", "WFP: AddAllowLoopbackV4 FAILED"},
    {"", "WFP: AddAllowLoopbackV6 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW wireguard.exe UDP v4)", "WFP: AddAllowWireGuardAppUdpV4 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW wireguard.exe UDP v6)", "WFP: AddAllowWireGuardAppUdpV6 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW DNS v4)", "WFP: AddAllowDnsV4 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW DNS v4)", "WFP: AddAllowDnsV4 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW app UDP v4)", "WFP: AddAllowAppUdpV4(wireguard.exe) FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW app UDP v6)", "WFP: AddAllowAppUdpV6(wireguard.exe) FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW WireGuard UDP port v4)", "WFP: AddAllowWireGuardUdpPortV4 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v4)",
     "WFP: AddAllowAllOutboundOnIfIndexV4 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v6)",
     "WFP: AddAllowAllOutboundOnIfIndexV6 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v4)",
     "WFP: AddAllowAllOutboundOnIfIndexV4 FAILED"},
    {"WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v6)",
     "WFP: AddAllowAllOutboundOnIfIndexV6 FAILED"},
};

TEST(EnableFailClosedBaselineFailure, AnyOfTheThirteenAddsFails) {
  uint32_t number = 0;
  for (const FailingAdd& row : kFailingAdds) {
    SCOPED_TRACE("filter " + std::to_string(number + 1));
    ConnectedBefore machine;
    sim::Fail({.operation = "FwpmFilterAdd0", .code = kAccessDenied, .skip = number});
    Lines lines;
    if (!row.error.empty()) lines.push_back(ErrorLine(row.error, kAccessDenied));
    lines.push_back(row.failed);
    ExpectAbort(machine, lines);
    // What is left of the thirteen is skipped, the pin's two are tried.
    EXPECT_EQ(sim::CountCalls("FwpmFilterAdd0"), number + 1 + 2);
    ++number;
  }
}

const FailingAdd kFailingAppIds[] = {
    {"WFP: FwpmGetAppIdFromFileName0 failed (wireguard.exe v4)", "WFP: AddAllowWireGuardAppUdpV4 FAILED"},
    {"WFP: FwpmGetAppIdFromFileName0 failed (wireguard.exe v6)", "WFP: AddAllowWireGuardAppUdpV6 FAILED"},
    {"WFP: FwpmGetAppIdFromFileName0 failed (v4)", "WFP: AddAllowAppUdpV4(wireguard.exe) FAILED"},
    {"WFP: FwpmGetAppIdFromFileName0 failed (v6)", "WFP: AddAllowAppUdpV6(wireguard.exe) FAILED"},
};

TEST(EnableFailClosedBaselineFailure, TheAppIdIsNotGiven) {
  uint32_t number = 0;
  for (const FailingAdd& row : kFailingAppIds) {
    SCOPED_TRACE(row.error);
    ConnectedBefore machine;
    sim::Fail({.operation = "FwpmGetAppIdFromFileName0", .code = 3, .skip = number});
    ExpectAbort(machine, {ErrorLine(row.error, 3), row.failed});
    ++number;
  }
}

TEST(EnableFailClosedBaselineFailure, AnAppIdThatIsMissingInASuccessCounts) {
  ConnectedBefore machine;
  sim::GiveNoAppId(true);
  ExpectAbort(machine, {ErrorLine("WFP: FwpmGetAppIdFromFileName0 failed (wireguard.exe v4)", 0),
                        "WFP: AddAllowWireGuardAppUdpV4 FAILED"});
}

TEST(EnableFailClosedBaselineFailure, AMissingProgramStopsTheAddsAtTheThird) {
  ConnectedBefore machine;
  sim::RemoveFile(kWireGuardProgram);
  EXPECT_FALSE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(sim::LogLines().back(), kAborting);
  EXPECT_EQ(sim::CountCalls("FwpmFilterAdd0"), 2u + 2);
  EXPECT_TRUE(sim::LogHas("WFP: AddAllowLoopbackV6 OK"));
  EXPECT_TRUE(sim::LogHas("WFP: AddAllowWireGuardAppUdpV4 FAILED"));
  EXPECT_TRUE(sim::LogHas("CP pinned ALLOW added (baseline) host=cp.telvor.test ip=10.99.0.1"));
  EXPECT_EQ(InForce(), machine.before);
}

// ---- The end ----

TEST(EnableFailClosedBaselineFailure, ACommitThatFailsIsNotFollowedByAnAbort) {
  ConnectedBefore machine;
  sim::Fail({.operation = "FwpmTransactionCommit0", .code = kAccessDenied});
  EXPECT_FALSE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_EQ(sim::LogLines().back(), ErrorLine("WFP: FwpmTransactionCommit0 failed", kAccessDenied));
  const Lines calls = FwpmCalls();
  EXPECT_EQ(Lines(calls.end() - 2, calls.end()), (Lines{"FwpmTransactionCommit0", "FwpmEngineClose0"}));
  EXPECT_EQ(sim::CountCalls("FwpmTransactionAbort0"), 0u);
  EXPECT_EQ(InForce(), machine.before);
}

// ---- The permit of an interface ----

TEST(AddAllowAllOutboundOnIfIndex, SkipsAnIndexOf0) {
  sim::Machine machine;
  OpenTransaction transaction;
  EXPECT_FALSE(AddAllowAllOutboundOnIfIndexV4(transaction.engine, 0));
  EXPECT_FALSE(AddAllowAllOutboundOnIfIndexV6(transaction.engine, 0));
  EXPECT_EQ(sim::LogLines(), (Lines{"WFP: AddAllowAllOutboundOnIfIndexV4: ifIndex=0 (SKIP)",
                                    "WFP: AddAllowAllOutboundOnIfIndexV6: ifIndex=0 (SKIP)"}));
  EXPECT_EQ(sim::CountCalls("FwpmFilterAdd0"), 0u);
}

TEST(AddAllowAllOutboundOnIfIndex, LogsNothingWhenItSucceeds) {
  sim::Machine machine;
  PutOwnProviderAndSublayer();
  OpenTransaction transaction;
  EXPECT_TRUE(AddAllowAllOutboundOnIfIndexV4(transaction.engine, 9));
  EXPECT_TRUE(AddAllowAllOutboundOnIfIndexV6(transaction.engine, 9));
  transaction.Commit();
  EXPECT_EQ(sim::LogLines(), Lines{});
  EXPECT_EQ(InForce(), (Lines{"ALLOW ALL outbound connect via WG interface (v4)",
                              "ALLOW ALL outbound connect via WG interface (v6)"}));
}

TEST(AddAllowAllOutboundOnIfIndex, LogsItsFailureAlone) {
  sim::Machine machine;
  OpenTransaction transaction;
  sim::Fail({.operation = "FwpmFilterAdd0", .code = kAccessDenied, .times = 2});
  EXPECT_FALSE(AddAllowAllOutboundOnIfIndexV4(transaction.engine, 9));
  EXPECT_FALSE(AddAllowAllOutboundOnIfIndexV6(transaction.engine, 9));
  EXPECT_EQ(
      sim::LogLines(),
      (Lines{ErrorLine("WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v4)", kAccessDenied),
             ErrorLine("WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v6)", kAccessDenied)}));
}

}  // namespace
