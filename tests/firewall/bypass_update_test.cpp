// The update of the split-bypass permits, with the control plane's in the same transaction.
#include <gtest/gtest.h>

#include "controlplane/base_url.h"
#include "firewall/baseline.h"
#include "firewall/bypass_allowlist.h"
#include "tests/firewall/firewall_fixture.h"

namespace {

using namespace firewall_test;

// Two filters for each address, of the family.
Lines Pairs(const std::string& prefix, const Lines& addresses) {
  Lines names;
  for (const std::string& address : addresses) names.insert(names.end(), 2, prefix + address);
  return names;
}
Lines Bypass(const Lines& addresses) {
  return Pairs("TELVOR:ALLOW split-bypass v4:", addresses);
}
Lines Pins(const Lines& addresses) {
  return Pairs("TELVOR:ALLOW cp-pinned v4:", addresses);
}

const Lines kNoPins = {
    "CP immediate DNS refresh (update): base=https://cp.telvor.test:8443",
    "CP immediate DNS refresh: host=cp.telvor.test count=0",
    "CP immediate DNS refresh summary: host=cp.telvor.test added=0 failed=0",
};
const Lines kOnePin = {
    "CP immediate DNS refresh (update): base=https://cp.telvor.test:8443",
    "CP immediate DNS refresh: host=cp.telvor.test count=1",
    "CP pinned ALLOW added for host=cp.telvor.test ip=10.99.0.1",
    "CP immediate DNS refresh summary: host=cp.telvor.test added=1 failed=0",
};
const Lines kCommitted = {"WFP: UpdateSplitTunnelBypassAllowlistV4 COMMIT OK"};
const Lines kAborted = {"WFP: UpdateSplitTunnelBypassAllowlistV4 ABORT"};

Lines Enter(size_t count) {
  return {"WFP: UpdateSplitTunnelBypassAllowlistV4 ENTER count=" + std::to_string(count)};
}

TEST(UpdateSplitTunnelBypassAllowlistV4, ReplacesTheListAndPinsTheControlPlane) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3", L"10.1.2.2"}));
  EXPECT_EQ(sim::LogLines(), Join({Enter(2), kOnePin, kCommitted}));
  EXPECT_EQ(InForce(), Join({Bypass({"10.1.2.3", "10.1.2.2"}), Pins({"10.99.0.1"})}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, MakesItsCallsInOrder) {
  sim::Machine machine;
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_EQ(FwpmCalls(),
            (Lines{"FwpmEngineOpen0", "FwpmProviderAdd0", "FwpmSubLayerAdd0", "FwpmTransactionBegin0",
                   "FwpmFilterCreateEnumHandle0", "FwpmFilterEnum0", "FwpmFilterDestroyEnumHandle0",
                   "FwpmFilterAdd0", "FwpmFilterAdd0", "FwpmTransactionCommit0", "FwpmEngineClose0"}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, RemovesAllBypassPermitsForAnEmptyList) {
  sim::Machine machine;
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
  sim::ClearLog();
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({}));
  EXPECT_EQ(sim::LogLines(), Join({Enter(0), kOnePin, kCommitted}));
  EXPECT_EQ(InForce(), Pins({"10.99.0.1"}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, SkipsEmptyTextsAndTheExactAddressOfNowhere) {
  sim::Machine machine;
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"", L"0.0.0.0", L"10.1.2.3"}));
  EXPECT_EQ(InForce(), Bypass({"10.1.2.3"}));
  EXPECT_EQ(sim::LogLines(), Join({Enter(3), kNoPins, kCommitted}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, LooksAtTheTextAsItStandsWhenItSkips) {
  sim::Machine machine;
  // Not the exact text: it goes on to the permit's own cleaning and is an address there.
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"0.0.0.0/0", L"10.1.2.3"}));
  EXPECT_EQ(InForce(), Bypass({"0.0.0.0", "10.1.2.3"}));
  // Blank, but not empty: no address, so it ends the list.
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3", L" ", L"10.1.2.4"}));
  EXPECT_EQ(InForce(), Bypass({"10.1.2.3"}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, NamesFiltersByTheCleanAddress) {
  sim::Machine machine;
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3/32", L"  10.1.2.3\t"}));
  EXPECT_EQ(InForce(), Bypass({"10.1.2.3", "10.1.2.3"}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, EndsTheListSilentlyAtAnEntryThatIsNoAddress) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3", L"not-an-ip", L"10.1.2.4"}));
  EXPECT_EQ(InForce(), Join({Bypass({"10.1.2.3"}), Pins({"10.99.0.1"})}));
  EXPECT_EQ(sim::LogLines(), Join({Enter(3), kOnePin, kCommitted}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, EndsTheListAtAnAddThatFailsAndCommits) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmFilterAdd0", .code = kAccessDenied, .skip = 3});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3", L"10.1.2.4", L"10.1.2.5"}));
  EXPECT_EQ(InForce(), Join({Bypass({"10.1.2.3"}), {"TELVOR:ALLOW split-bypass v4:10.1.2.4"}}));
  EXPECT_EQ(sim::LogLines(), Join({Enter(3),
                                   {ErrorLine("FwpmFilterAdd0(ALLOW split-bypass v4)", kAccessDenied)},
                                   kNoPins,
                                   kCommitted}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, GathersPinsFromUpdateToUpdate) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"10.99.0.1", "10.99.0.2"});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_EQ(InForce(),
            Join({Pins({"10.99.0.1", "10.99.0.2"}), Bypass({"10.1.2.3"}), Pins({"10.99.0.1", "10.99.0.2"})}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, LeavesTheBaselineAlone) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", 42));
  const Lines baseline = InForce();
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_EQ(InForce(), Join({baseline, Bypass({"10.1.2.3"})}));
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({}));
  EXPECT_EQ(InForce(), baseline);
}

// ---- The control plane's pins ----

TEST(UpdateSplitTunnelBypassAllowlistV4, TakesTheBuiltInUrlAndNotTheAccountCalls) {
  sim::Machine machine;
  gCpBaseUrl = L"https://elsewhere.test";
  sim::SetHost(L"elsewhere.test", {"10.66.0.1"});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({}));
  EXPECT_EQ(sim::LogLines(), Join({Enter(0), kNoPins, kCommitted}));
  EXPECT_EQ(sim::LookupCount(L"elsewhere.test"), 0u);
}

TEST(UpdateSplitTunnelBypassAllowlistV4, GoesOnBehindAPinThatFails) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"0.0.0.0", "10.99.0.1", "10.99.0.2"});
  sim::Fail({.operation = "FwpmFilterAdd0", .code = kAccessDenied});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({}));
  EXPECT_EQ(sim::LogLines(), Join({Enter(0),
                                   {"CP immediate DNS refresh (update): base=https://cp.telvor.test:8443",
                                    "CP immediate DNS refresh: host=cp.telvor.test count=3",
                                    ErrorLine("FwpmFilterAdd0(ALLOW split-bypass v4)", kAccessDenied),
                                    "CP pinned ALLOW FAILED for host=cp.telvor.test ip=10.99.0.1",
                                    "CP pinned ALLOW added for host=cp.telvor.test ip=10.99.0.2",
                                    "CP immediate DNS refresh summary: host=cp.telvor.test added=1 failed=1"},
                                   kCommitted}));
  EXPECT_EQ(InForce(), Pins({"10.99.0.2"}));
}

// ---- Failures ----

// A machine with the permits of an earlier update.
struct UpdatedBefore {
  UpdatedBefore() {
    UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3", L"10.1.2.4"});
    before = InForce();
    sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
    sim::ClearLog();
    sim::ClearTrace();
  }

  sim::Machine machine;
  Lines before;
};

TEST(UpdateSplitTunnelBypassAllowlistV4, FailsBeforeItsTransaction) {
  const struct {
    std::string operation;
    Lines calls;
  } rows[] = {
      {"FwpmEngineOpen0", {"FwpmEngineOpen0"}},
      {"FwpmProviderAdd0", {"FwpmEngineOpen0", "FwpmProviderAdd0", "FwpmEngineClose0"}},
      {"FwpmSubLayerAdd0", {"FwpmEngineOpen0", "FwpmProviderAdd0", "FwpmSubLayerAdd0", "FwpmEngineClose0"}},
      {"FwpmTransactionBegin0",
       {"FwpmEngineOpen0", "FwpmProviderAdd0", "FwpmSubLayerAdd0", "FwpmTransactionBegin0",
        "FwpmEngineClose0"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.operation);
    UpdatedBefore machine;
    sim::Fail({.operation = row.operation, .code = kAccessDenied});
    EXPECT_FALSE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.5"}));
    EXPECT_EQ(sim::LogLines(), Join({Enter(1), {ErrorLine(row.operation, kAccessDenied)}}));
    EXPECT_EQ(FwpmCalls(), row.calls);
    EXPECT_EQ(InForce(), machine.before);
  }
}

TEST(UpdateSplitTunnelBypassAllowlistV4, TriesThePinsAndAbortsWhenTheOldOnesCannotBeDeleted) {
  for (const std::string operation :
       {"FwpmFilterCreateEnumHandle0", "FwpmFilterEnum0", "FwpmFilterDeleteById0"}) {
    SCOPED_TRACE(operation);
    UpdatedBefore machine;
    sim::Fail({.operation = operation, .code = kAccessDenied});
    EXPECT_FALSE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.5"}));
    EXPECT_EQ(sim::LogLines(), Join({Enter(1), {ErrorLine(operation, kAccessDenied)}, kOnePin, kAborted}));
    EXPECT_EQ(sim::CountCalls("FwpmFilterAdd0"), 2u);  // the pin's
    const Lines calls = FwpmCalls();
    EXPECT_EQ(Lines(calls.end() - 2, calls.end()), (Lines{"FwpmTransactionAbort0", "FwpmEngineClose0"}));
    EXPECT_EQ(InForce(), machine.before);
    EXPECT_EQ(sim::OpenHandles("enumeration"), 0u);
  }
}

TEST(UpdateSplitTunnelBypassAllowlistV4, LeavesAllAsItWasWhenTheCommitFails) {
  UpdatedBefore machine;
  sim::Fail({.operation = "FwpmTransactionCommit0", .code = kAccessDenied});
  EXPECT_FALSE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.5"}));
  EXPECT_EQ(sim::LogLines(),
            Join({Enter(1),
                  kOnePin,
                  {ErrorLine("WFP: UpdateSplitTunnelBypassAllowlistV4 commit FAILED", kAccessDenied)}}));
  EXPECT_EQ(InForce(), machine.before);
  EXPECT_EQ(sim::CountCalls("FwpmTransactionAbort0"), 0u);
  EXPECT_EQ(sim::OpenHandles("engine"), 0u);
}

TEST(UpdateSplitTunnelBypassAllowlistV4, PutsProviderAndSublayerBackAfterARollback) {
  sim::Machine machine;
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_TRUE(RollbackToOpen());
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_TRUE(sim::ProviderInForce(kProviderKey));
  EXPECT_TRUE(sim::SubLayerInForce(kSubLayerKey));
  EXPECT_EQ(InForce(), Bypass({"10.1.2.3"}));
}

TEST(UpdateSplitTunnelBypassAllowlistV4, ResolvesInsideItsTransaction) {
  sim::Machine machine;
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({}));
  Lines order;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == "GetAddrInfoW" || entry.operation.rfind("FwpmTransaction", 0) == 0) {
      order.emplace_back(entry.operation);
    }
  }
  EXPECT_EQ(order, (Lines{"FwpmTransactionBegin0", "GetAddrInfoW", "FwpmTransactionCommit0"}));
}

}  // namespace
