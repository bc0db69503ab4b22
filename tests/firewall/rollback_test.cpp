// The full removal of the system's objects from the filtering engine.
#include <gtest/gtest.h>

#include "firewall/baseline.h"
#include "firewall/bypass_allowlist.h"
#include "tests/firewall/firewall_fixture.h"

namespace {

using namespace firewall_test;

constexpr uint32_t kTunnelIndex = 42;
constexpr platform::Guid kStranger{0x01020304, 0x0506, 0x0708, {1, 2, 3, 4, 5, 6, 7, 8}};

platform::Guid Key(uint32_t number) {
  return {number, 1, 2, {}};
}

void PutOwnCallouts(uint32_t count) {
  for (uint32_t n = 1; n <= count; ++n) sim::PutCallout(Key(n), &kProviderKey);
}

void ExpectNothingOfOurs() {
  EXPECT_EQ(InForce(), Lines{});
  EXPECT_FALSE(sim::SubLayerInForce(kSubLayerKey));
  EXPECT_FALSE(sim::ProviderInForce(kProviderKey));
  EXPECT_EQ(sim::OpenHandles("engine"), 0u);
  EXPECT_EQ(sim::OpenHandles("enumeration"), 0u);
  EXPECT_EQ(sim::OpenHandles("memory"), 0u);
}

const Lines kCallsOnACleanMachine = {
    "FwpmEngineOpen0",          "FwpmTransactionBegin0",         "FwpmFilterCreateEnumHandle0",
    "FwpmFilterEnum0",          "FwpmFilterDestroyEnumHandle0",  "FwpmCalloutCreateEnumHandle0",
    "FwpmCalloutEnum0",         "FwpmCalloutDestroyEnumHandle0", "FwpmSubLayerDeleteByKey0",
    "FwpmProviderDeleteByKey0", "FwpmTransactionCommit0",        "FwpmEngineClose0"};

TEST(RollbackToOpen, IsQuietAndGoodOnACleanMachine) {
  sim::Machine machine;
  EXPECT_TRUE(RollbackToOpen());
  EXPECT_EQ(sim::LogLines(), Lines{});
  EXPECT_EQ(FwpmCalls(), kCallsOnACleanMachine);
  EXPECT_EQ(sim::SessionsOpened().at(0).displayData.name, L"TELVOR WFP dynamic session");
}

TEST(RollbackToOpen, RemovesTheWholeRuleSet) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  sim::ClearLog();
  EXPECT_TRUE(RollbackToOpen());
  ExpectNothingOfOurs();
  EXPECT_TRUE(RollbackToOpen());
  ExpectNothingOfOurs();
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(RollbackToOpen, LeavesOthersAlone) {
  sim::Machine machine;
  platform::FwpmProvider provider;
  provider.providerKey = kStranger;
  sim::PutProvider(provider);
  platform::FwpmSubLayer subLayer;
  subLayer.subLayerKey = kStranger;
  sim::PutSubLayer(subLayer);
  sim::PutFilter(OldFilter(L"TELVOR:ALLOW cp-pinned v4:10.0.0.1", kStranger, kStranger));
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_TRUE(RollbackToOpen());
  EXPECT_EQ(InForce(), Lines{"TELVOR:ALLOW cp-pinned v4:10.0.0.1"});
  EXPECT_TRUE(sim::ProviderInForce(kStranger));
  EXPECT_TRUE(sim::SubLayerInForce(kStranger));
}

TEST(RollbackToOpen, KnowsItsProviderByTheWholeKey) {
  sim::Machine machine;
  platform::Guid alike[4] = {kProviderKey, kProviderKey, kProviderKey, kProviderKey};
  alike[0].data1 ^= 1;
  alike[1].data2 ^= 1;
  alike[2].data3 ^= 1;
  alike[3].data4.back() ^= 1;
  for (const platform::Guid& provider : alike) sim::PutFilter(OldFilter(L"another's", provider, kStranger));
  EXPECT_TRUE(RollbackToOpen());
  EXPECT_EQ(InForce(), Lines(4, "another's"));
}

// ---- Callouts ----

TEST(RollbackToOpen, RemovesTheCalloutsOfItsProvider) {
  sim::Machine machine;
  PutOwnCallouts(300);
  sim::PutCallout(Key(1000), &kStranger);
  sim::PutCallout(Key(1001), nullptr);
  EXPECT_TRUE(RollbackToOpen());
  EXPECT_EQ(sim::CalloutCount(), 2u);
  EXPECT_EQ(sim::CountCalls("FwpmCalloutDeleteByKey0"), 300u);
  EXPECT_EQ(sim::CountCalls("FwpmCalloutEnum0", "=256"), 3u);
  EXPECT_EQ(sim::OpenHandles("enumeration"), 0u);
  EXPECT_EQ(sim::OpenHandles("memory"), 0u);
}

TEST(RollbackToOpen, CountsACalloutWalkThatDoesNotStartAsGood) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmCalloutCreateEnumHandle0", .code = kAccessDenied});
  EXPECT_TRUE(RollbackToOpen());
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("WFP: FwpmCalloutCreateEnumHandle0 failed", kAccessDenied)});
  EXPECT_EQ(sim::CountCalls("FwpmCalloutEnum0"), 0u);
  EXPECT_EQ(sim::CountCalls("FwpmTransactionCommit0"), 1u);
}

TEST(RollbackToOpen, GoesOnBehindACalloutThatCannotBeDeleted) {
  sim::Machine machine;
  PutOwnCallouts(3);
  sim::Fail({.operation = "FwpmCalloutDeleteByKey0", .code = kAccessDenied});
  EXPECT_FALSE(RollbackToOpen());
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("WFP: Callout delete failed", kAccessDenied)});
  EXPECT_EQ(sim::CalloutCount(), 1u);
  EXPECT_EQ(sim::TransactionsCommitted(), 1u);
}

TEST(RollbackToOpen, CountsABrokenCalloutWalkAsBadAndCommits) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmCalloutEnum0", .code = kAccessDenied});
  EXPECT_FALSE(RollbackToOpen());
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("WFP: FwpmCalloutEnum0 failed", kAccessDenied)});
  EXPECT_EQ(sim::TransactionsCommitted(), 1u);
  EXPECT_EQ(sim::OpenHandles("enumeration"), 0u);
}

// ---- Failures ----

TEST(RollbackToOpen, FailsWhenTheEngineDoesNotOpen) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmEngineOpen0", .code = 1753});
  EXPECT_FALSE(RollbackToOpen());
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("FwpmEngineOpen0", 1753)});
  EXPECT_EQ(FwpmCalls(), Lines{"FwpmEngineOpen0"});
}

TEST(RollbackToOpen, FailsWhenTheTransactionDoesNotBegin) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmTransactionBegin0", .code = kAccessDenied});
  EXPECT_FALSE(RollbackToOpen());
  // Unlike the baseline's line, this one has its prefix once.
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("FwpmTransactionBegin0", kAccessDenied)});
  EXPECT_EQ(FwpmCalls(), (Lines{"FwpmEngineOpen0", "FwpmTransactionBegin0", "FwpmEngineClose0"}));
}

TEST(RollbackToOpen, RemovesWhatItCanWhenTheSweepFails) {
  sim::Machine machine;
  PutOwnProviderAndSublayer();
  sim::PutFilter(OldFilter(L"first"));
  sim::PutFilter(OldFilter(L"second"));
  PutOwnCallouts(1);
  sim::Fail({.operation = "FwpmFilterDeleteByKey0", .code = kAccessDenied});
  EXPECT_FALSE(RollbackToOpen());
  EXPECT_EQ(InForce(), Lines{"first"});
  EXPECT_EQ(sim::CalloutCount(), 0u);
  // The sublayer and the provider are still referenced by the filter that stayed.
  EXPECT_EQ(sim::LogLines(),
            (Lines{ErrorLine("WFP: Filter delete failed", kAccessDenied),
                   ErrorLine("WFP: FwpmSubLayerDeleteByKey0 failed", platform::kFwpEInUse),
                   ErrorLine("WFP: FwpmProviderDeleteByKey0 failed", platform::kFwpEInUse)}));
  EXPECT_EQ(sim::TransactionsCommitted(), 1u);
}

TEST(RollbackToOpen, OnlyLogsASublayerOrProviderThatStays) {
  const struct {
    std::string operation, line;
  } rows[] = {{"FwpmSubLayerDeleteByKey0", "WFP: FwpmSubLayerDeleteByKey0 failed"},
              {"FwpmProviderDeleteByKey0", "WFP: FwpmProviderDeleteByKey0 failed"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.operation);
    sim::Machine machine;
    sim::Fail({.operation = row.operation, .code = kAccessDenied});
    EXPECT_TRUE(RollbackToOpen());
    EXPECT_EQ(sim::LogLines(), Lines{ErrorLine(row.line, kAccessDenied)});
    EXPECT_EQ(sim::TransactionsCommitted(), 1u);
  }
}

TEST(RollbackToOpen, TakesEachNotFoundCodeForItsOwnObjectOnly) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmSubLayerDeleteByKey0", .code = platform::kFwpEProviderNotFound});
  sim::Fail({.operation = "FwpmProviderDeleteByKey0", .code = platform::kFwpESublayerNotFound});
  EXPECT_TRUE(RollbackToOpen());
  EXPECT_EQ(sim::LogLines(),
            (Lines{ErrorLine("WFP: FwpmSubLayerDeleteByKey0 failed", platform::kFwpEProviderNotFound),
                   ErrorLine("WFP: FwpmProviderDeleteByKey0 failed", platform::kFwpESublayerNotFound)}));
}

TEST(RollbackToOpen, AbortsWhenTheCommitFails) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  const Lines before = InForce();
  sim::ClearLog();
  sim::ClearTrace();
  sim::Fail({.operation = "FwpmTransactionCommit0", .code = kAccessDenied});
  EXPECT_FALSE(RollbackToOpen());
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("FwpmTransactionCommit0", kAccessDenied)});
  const Lines calls = FwpmCalls();
  EXPECT_EQ(Lines(calls.end() - 3, calls.end()),
            (Lines{"FwpmTransactionCommit0", "FwpmTransactionAbort0", "FwpmEngineClose0"}));
  EXPECT_EQ(InForce(), before);
}

// ---- Two at once ----

TEST(RollbackToOpen, IsHarmlessFromTwoThreads) {
  for (uint64_t seed = 1; seed <= 50; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    sim::Machine machine({.seed = seed});
    EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
    int good = 0;
    for (const char* name : {"handler", "worker"}) {
      sim::StartThread(name, [&good] { good += RollbackToOpen() ? 1 : 0; });
    }
    EXPECT_TRUE(sim::RunUntil([&good] { return good == 2; }, 60000));
    ExpectNothingOfOurs();
  }
}

TEST(RollbackToOpen, BesideABaselineLeavesAWholeRuleSetOrNone) {
  for (uint64_t seed = 1; seed <= 50; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    sim::Machine machine({.seed = seed});
    int ended = 0;
    sim::StartThread("worker", [&ended] {
      EnableFailClosedBaseline(L"", kTunnelIndex);
      ++ended;
    });
    sim::StartThread("pipe", [&ended] {
      RollbackToOpen();
      ++ended;
    });
    EXPECT_TRUE(sim::RunUntil([&ended] { return ended == 2; }, 60000));
    EXPECT_TRUE(InForce().empty() || InForce().size() == 13) << InForce().size();
    EXPECT_EQ(sim::OpenHandles("engine"), 0u);
    EXPECT_TRUE(RollbackToOpen());
    ExpectNothingOfOurs();
  }
}

}  // namespace
