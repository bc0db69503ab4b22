// Permits for single addresses: how one is made, and how a family of them is found again by its names.
#include "firewall/bypass_allowlist.h"

#include <gtest/gtest.h>

#include "firewall/baseline.h"
#include "firewall/rule_set.h"
#include "tests/firewall/firewall_fixture.h"

namespace {

using namespace firewall_test;

constexpr platform::Guid kStranger{0x01020304, 0x0506, 0x0708, {1, 2, 3, 4, 5, 6, 7, 8}};

// ---- AddAllowRemoteIpV4 ----

TEST(BypassPrefixes, HaveTheirFixedTextsAndLengths) {
  EXPECT_EQ(std::wstring(kSplitBypassPrefix), L"TELVOR:ALLOW split-bypass v4:");
  EXPECT_EQ(std::wstring(kSplitBypassPrefix).size(), 29u);
  EXPECT_EQ(std::wstring(kControlPlanePinPrefix), L"TELVOR:ALLOW cp-pinned v4:");
  EXPECT_EQ(std::wstring(kControlPlanePinPrefix).size(), 26u);
}

TEST(AddAllowRemoteIpV4, AddsTcpThenUdpUnderOneName) {
  sim::Machine machine;
  PutOwnProviderAndSublayer();
  OpenTransaction transaction;
  EXPECT_TRUE(AddAllowRemoteIpV4(transaction.engine, L"10.1.2.3", kSplitBypassPrefix));
  transaction.Commit();
  ASSERT_EQ(InForce(), Lines(2, "TELVOR:ALLOW split-bypass v4:10.1.2.3"));
  uint32_t protocol = 6;
  for (const sim::EngineFilter& entry : sim::FiltersInForce()) {
    const platform::FwpmFilter& filter = entry.filter;
    EXPECT_EQ(filter.filterKey == platform::Guid{}, false);  // the engine's own, as ours was zero
    EXPECT_EQ(filter.layerKey, kLayerAleAuthConnectV4);
    EXPECT_EQ(filter.subLayerKey, kSubLayerKey);
    EXPECT_EQ(filter.providerKey, kProviderKey);
    EXPECT_EQ(filter.weight, 0xF000000000000000u);
    EXPECT_EQ(filter.actionType, 0x1002u);
    EXPECT_EQ(filter.flags, 0u);
    ASSERT_EQ(filter.conditions.size(), 2u);
    EXPECT_EQ(filter.conditions[0].fieldKey, kConditionIpRemoteAddress);
    EXPECT_EQ(filter.conditions[0].matchType, 0u);
    EXPECT_EQ(filter.conditions[0].type, platform::kFwpV4AddrMask);
    EXPECT_EQ(filter.conditions[0].v4Address, 0x0302010Au);  // as it lies in memory, not swapped
    EXPECT_EQ(filter.conditions[0].v4Mask, 0xFFFFFFFFu);
    EXPECT_EQ(filter.conditions[1].fieldKey, kConditionIpProtocol);
    EXPECT_EQ(filter.conditions[1].type, platform::kFwpUint8);
    EXPECT_EQ(filter.conditions[1].number, protocol);
    protocol = 17;
  }
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(AddAllowRemoteIpV4, CutsAtTheFirstSlashAndTrims) {
  for (const std::wstring text :
       {L"10.1.2.3/32", L" 10.1.2.3 ", L"\t\r\n\v\f10.1.2.3 /24/7", L"10.1.2.3/not/a/mask"}) {
    SCOPED_TRACE(sim::Narrow(text));
    sim::Machine machine;
    PutOwnProviderAndSublayer();
    OpenTransaction transaction;
    EXPECT_TRUE(AddAllowRemoteIpV4(transaction.engine, text, kControlPlanePinPrefix));
    transaction.Commit();
    EXPECT_EQ(InForce(), Lines(2, "TELVOR:ALLOW cp-pinned v4:10.1.2.3"));
  }
}

TEST(AddAllowRemoteIpV4, RefusesWhatIsNoAddressWithoutALine) {
  sim::Machine machine;
  PutOwnProviderAndSublayer();
  OpenTransaction transaction;
  for (const std::wstring text : {L"not-an-ip", L"", L"/32", L"10.1.2", L"10.1.2.256", L"::1"}) {
    SCOPED_TRACE(sim::Narrow(text));
    EXPECT_FALSE(AddAllowRemoteIpV4(transaction.engine, text, kSplitBypassPrefix));
  }
  EXPECT_EQ(sim::CountCalls("FwpmFilterAdd0"), 0u);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(AddAllowRemoteIpV4, StopsAtATcpAddThatFailsUnderTheSameTextForBothFamilies) {
  for (const wchar_t* prefix : {kSplitBypassPrefix, kControlPlanePinPrefix}) {
    sim::Machine machine;
    PutOwnProviderAndSublayer();
    OpenTransaction transaction;
    sim::Fail({.operation = "FwpmFilterAdd0", .code = kAccessDenied});
    EXPECT_FALSE(AddAllowRemoteIpV4(transaction.engine, L"10.1.2.3", prefix));
    EXPECT_EQ(sim::CountCalls("FwpmFilterAdd0"), 1u);
    EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("FwpmFilterAdd0(ALLOW split-bypass v4)", kAccessDenied)});
  }
}

TEST(AddAllowRemoteIpV4, LeavesTheTcpFilterWhenTheUdpAddFails) {
  sim::Machine machine;
  PutOwnProviderAndSublayer();
  OpenTransaction transaction;
  sim::Fail({.operation = "FwpmFilterAdd0", .code = kAccessDenied, .skip = 1});
  EXPECT_FALSE(AddAllowRemoteIpV4(transaction.engine, L"10.1.2.3", kSplitBypassPrefix));
  transaction.Commit();
  ASSERT_EQ(sim::FiltersInForce().size(), 1u);
  EXPECT_EQ(sim::FiltersInForce()[0].filter.conditions[1].number, 6u);
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("FwpmFilterAdd0(ALLOW split-bypass v4)", kAccessDenied)});
}

// ---- DeleteFiltersByNamePrefix ----

TEST(DeleteFiltersByNamePrefix, ComparesThePrefixCaseSensitively) {
  sim::Machine machine;
  sim::PutFilter(OldFilter(L"TELVOR:ALLOW split-bypass v4:10.0.0.1"));
  sim::PutFilter(OldFilter(L"TELVOR:ALLOW split-bypass v4:"));
  sim::PutFilter(OldFilter(L"TELVOR:ALLOW split-bypass v4"));
  sim::PutFilter(OldFilter(L"telvor:allow split-bypass v4:10.0.0.2"));
  sim::PutFilter(OldFilter(L" TELVOR:ALLOW split-bypass v4:10.0.0.3"));
  sim::PutFilter(OldFilter(L"TELVOR:ALLOW cp-pinned v4:10.0.0.4"));
  sim::EngineFilter nameless = OldFilter(L"");
  nameless.named = false;
  sim::PutFilter(nameless);
  OpenTransaction transaction;
  EXPECT_TRUE(DeleteFiltersByNamePrefix(transaction.engine, kSplitBypassPrefix));
  transaction.Commit();
  EXPECT_EQ(InForce(),
            (Lines{"TELVOR:ALLOW split-bypass v4", "telvor:allow split-bypass v4:10.0.0.2",
                   " TELVOR:ALLOW split-bypass v4:10.0.0.3", "TELVOR:ALLOW cp-pinned v4:10.0.0.4", ""}));
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(DeleteFiltersByNamePrefix, TouchesOnlyFiltersWithBothOfItsKeys) {
  sim::Machine machine;
  const std::wstring name = L"TELVOR:ALLOW split-bypass v4:10.0.0.1";
  sim::PutFilter(OldFilter(name, kStranger, kSubLayerKey));
  sim::PutFilter(OldFilter(name, kProviderKey, kStranger));
  sim::EngineFilter unowned = OldFilter(name);
  unowned.hasProviderKey = false;
  sim::PutFilter(unowned);
  OpenTransaction transaction;
  EXPECT_TRUE(DeleteFiltersByNamePrefix(transaction.engine, kSplitBypassPrefix));
  transaction.Commit();
  EXPECT_EQ(InForce().size(), 3u);
}

TEST(DeleteFiltersByNamePrefix, DeletesByIdInBatchesOf256) {
  sim::Machine machine;
  for (int n = 0; n < 257; ++n) sim::PutFilter(OldFilter(L"TELVOR:ALLOW split-bypass v4:10.0.0.1"));
  OpenTransaction transaction;
  EXPECT_TRUE(DeleteFiltersByNamePrefix(transaction.engine, kSplitBypassPrefix));
  transaction.Commit();
  EXPECT_EQ(InForce(), Lines{});
  EXPECT_EQ(sim::CountCalls("FwpmFilterDeleteById0"), 257u);
  EXPECT_EQ(sim::CountCalls("FwpmFilterDeleteByKey0"), 0u);
  EXPECT_EQ(sim::CountCalls("FwpmFilterEnum0", "=256"), 3u);
  EXPECT_EQ(sim::OpenHandles("enumeration"), 0u);
  EXPECT_EQ(sim::OpenHandles("memory"), 0u);
}

TEST(DeleteFiltersByNamePrefix, GoesOnBehindAFilterThatCannotBeDeleted) {
  sim::Machine machine;
  for (const wchar_t* address : {L"1", L"2", L"3"}) {
    sim::PutFilter(OldFilter(std::wstring(kSplitBypassPrefix) + address));
  }
  OpenTransaction transaction;
  sim::Fail({.operation = "FwpmFilterDeleteById0", .code = kAccessDenied, .skip = 1});
  EXPECT_FALSE(DeleteFiltersByNamePrefix(transaction.engine, kSplitBypassPrefix));
  transaction.Commit();
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("FwpmFilterDeleteById0", kAccessDenied)});
  EXPECT_EQ(InForce(), Lines{"TELVOR:ALLOW split-bypass v4:2"});
}

TEST(DeleteFiltersByNamePrefix, FailsWhenTheWalkDoes) {
  // Unlike the sweep of all filters, these lines have their prefix once.
  for (const std::string operation : {"FwpmFilterCreateEnumHandle0", "FwpmFilterEnum0"}) {
    SCOPED_TRACE(operation);
    sim::Machine machine;
    OpenTransaction transaction;
    sim::Fail({.operation = operation, .code = kAccessDenied});
    EXPECT_FALSE(DeleteFiltersByNamePrefix(transaction.engine, kSplitBypassPrefix));
    EXPECT_EQ(sim::LogLines(), Lines{ErrorLine(operation, kAccessDenied)});
    EXPECT_EQ(sim::OpenHandles("enumeration"), 0u);
  }
}

}  // namespace
