// The engine session, the system's identity in the filtering engine, and the sweep of its own filters.
#include "firewall/wfp_session.h"

#include <gtest/gtest.h>

#include "firewall/baseline.h"
#include "firewall/rule_set.h"
#include "tests/firewall/firewall_fixture.h"

namespace {

using namespace firewall_test;

constexpr platform::Guid kStranger{0x01020304, 0x0506, 0x0708, {1, 2, 3, 4, 5, 6, 7, 8}};

std::string GuidText(const platform::Guid& key) {
  char text[64];
  static_cast<void>(std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                                  key.data1, key.data2, key.data3, key.data4[0], key.data4[1], key.data4[2],
                                  key.data4[3], key.data4[4], key.data4[5], key.data4[6], key.data4[7]));
  return text;
}

// ---- Sessions ----

TEST(OpenWfpEngine, PassesASessionOfZeroesButForItsName) {
  sim::Machine machine;
  platform::Handle engine = nullptr;
  EXPECT_EQ(OpenWfpEngine(engine), 0u);
  EXPECT_NE(engine, nullptr);
  ASSERT_EQ(sim::SessionsOpened().size(), 1u);
  const platform::FwpmSession session = sim::SessionsOpened()[0];
  EXPECT_EQ(session.displayData.name, L"TELVOR WFP dynamic session");
  EXPECT_EQ(session.displayData.description, L"");
  EXPECT_EQ(session.sessionKey, platform::Guid{});
  EXPECT_EQ(session.txnWaitTimeoutInMSec, 0u);
  EXPECT_EQ(platform::FwpmEngineClose0(engine), 0u);
}

TEST(OpenWfpEngine, IsNotDynamicWhateverItsNameSays) {
  sim::Machine machine;
  EXPECT_TRUE(EnableFailClosedBaseline(L"", 42));
  for (const platform::FwpmSession& session : sim::SessionsOpened()) EXPECT_EQ(session.flags, 0u);
  EXPECT_EQ(sim::OpenHandles("engine"), 0u);
  EXPECT_EQ(InForce().size(), 13u);
}

TEST(OpenWfpEngine, AuthenticatesByWinNt) {
  sim::Machine machine;
  platform::Handle engine = nullptr;
  OpenWfpEngine(engine);
  EXPECT_EQ(sim::CountCalls("FwpmEngineOpen0", "=10 "), 1u) << sim::TraceText();
  platform::FwpmEngineClose0(engine);
}

TEST(OpenWfpEngine, GivesThePlatformsStatusAndLogsNothing) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmEngineOpen0", .code = 1753});
  platform::Handle engine = nullptr;
  EXPECT_EQ(OpenWfpEngine(engine), 1753u);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

// ---- Provider and sublayer ----

TEST(EnsureProviderAndSublayer, AddsBothWithTheirFixedFields) {
  sim::Machine machine;
  platform::Handle engine = nullptr;
  OpenWfpEngine(engine);
  EXPECT_TRUE(EnsureProviderAndSublayer(engine));
  platform::FwpmEngineClose0(engine);

  ASSERT_EQ(sim::ProvidersInForce().size(), 1u);
  const platform::FwpmProvider provider = sim::ProvidersInForce()[0];
  EXPECT_EQ(GuidText(provider.providerKey), "{B8D16C9B-7D78-4A2C-9A8B-01F4B1F1B0A1}");
  EXPECT_EQ(provider.displayData.name, L"sorvanik VPN Provider");
  EXPECT_EQ(provider.displayData.description, L"WFP provider for TLV VPN Phase1");
  EXPECT_EQ(provider.flags, 0u);

  ASSERT_EQ(sim::SubLayersInForce().size(), 1u);
  const platform::FwpmSubLayer subLayer = sim::SubLayersInForce()[0];
  EXPECT_EQ(GuidText(subLayer.subLayerKey), "{D5C4F4A2-0C9B-4F6B-A9CE-2E1B2D89E0B2}");
  EXPECT_EQ(subLayer.displayData.name, L"sorvanik VPN Fail-Closed Sublayer");
  EXPECT_EQ(subLayer.displayData.description, L"Fail-closed baseline rules");
  EXPECT_EQ(subLayer.flags, 0u);
  EXPECT_EQ(subLayer.providerKey, provider.providerKey);
  EXPECT_EQ(subLayer.weight, 256);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(EnsureProviderAndSublayer, RunsOutsideAnyTransactionSoThatBothStay) {
  sim::Machine machine;
  EXPECT_FALSE(EnableFailClosedBaseline(L"", 0));  // its transaction is aborted
  EXPECT_EQ(sim::TransactionsAborted(), 1u);
  EXPECT_TRUE(sim::ProviderInForce(kProviderKey));
  EXPECT_TRUE(sim::SubLayerInForce(kSubLayerKey));
  const Lines calls = FwpmCalls();
  ASSERT_GE(calls.size(), 4u);
  EXPECT_EQ(Lines(calls.begin(), calls.begin() + 4),
            (Lines{"FwpmEngineOpen0", "FwpmProviderAdd0", "FwpmSubLayerAdd0", "FwpmTransactionBegin0"}));
}

TEST(EnsureProviderAndSublayer, TakesWhatExistsAsItIs) {
  sim::Machine machine;
  platform::FwpmProvider provider;
  provider.providerKey = kProviderKey;
  provider.displayData.name = L"an older name";
  sim::PutProvider(provider);
  platform::FwpmSubLayer subLayer;
  subLayer.subLayerKey = kSubLayerKey;
  subLayer.weight = 7;
  sim::PutSubLayer(subLayer);

  platform::Handle engine = nullptr;
  OpenWfpEngine(engine);
  EXPECT_TRUE(EnsureProviderAndSublayer(engine));
  platform::FwpmEngineClose0(engine);
  EXPECT_EQ(sim::ProvidersInForce()[0].displayData.name, L"an older name");
  EXPECT_EQ(sim::SubLayersInForce()[0].weight, 7);
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(EnsureProviderAndSublayer, FailsWhenTheProviderCannotBeAdded) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmProviderAdd0", .code = kAccessDenied});
  platform::Handle engine = nullptr;
  OpenWfpEngine(engine);
  EXPECT_FALSE(EnsureProviderAndSublayer(engine));
  platform::FwpmEngineClose0(engine);
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("FwpmProviderAdd0", kAccessDenied)});
  EXPECT_EQ(sim::CountCalls("FwpmSubLayerAdd0"), 0u);
}

TEST(EnsureProviderAndSublayer, FailsWhenTheSublayerCannotBeAddedAndLeavesTheProvider) {
  sim::Machine machine;
  sim::Fail({.operation = "FwpmSubLayerAdd0", .code = kAccessDenied});
  platform::Handle engine = nullptr;
  OpenWfpEngine(engine);
  EXPECT_FALSE(EnsureProviderAndSublayer(engine));
  platform::FwpmEngineClose0(engine);
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("FwpmSubLayerAdd0", kAccessDenied)});
  EXPECT_TRUE(sim::ProviderInForce(kProviderKey));
  EXPECT_FALSE(sim::SubLayerInForce(kSubLayerKey));
}

// ---- The common fields of a filter ----

TEST(PermitFilter, HasTheCommonFields) {
  const platform::FwpmFilter filter = PermitFilter(L"a name", kLayerAleAuthConnectV6);
  EXPECT_EQ(filter.filterKey, platform::Guid{});
  EXPECT_EQ(filter.displayData.name, L"a name");
  EXPECT_EQ(filter.displayData.description, L"");
  EXPECT_EQ(filter.flags, 0u);
  EXPECT_EQ(GuidText(filter.providerKey), "{B8D16C9B-7D78-4A2C-9A8B-01F4B1F1B0A1}");
  EXPECT_EQ(GuidText(filter.subLayerKey), "{D5C4F4A2-0C9B-4F6B-A9CE-2E1B2D89E0B2}");
  EXPECT_EQ(GuidText(filter.layerKey), "{4A72393B-319F-44BC-84C3-BA54DCB3B6B4}");
  EXPECT_EQ(filter.weight, 0xF000000000000000u);
  EXPECT_EQ(filter.actionType, 0x1002u);
  EXPECT_EQ(filter.rawContext, 0u);
}

TEST(RuleSet, KnowsWindowsIdentifiers) {
  EXPECT_EQ(GuidText(kLayerAleAuthConnectV4), "{C38D57D1-05A7-4C33-904F-7FBCEEE60E82}");
  EXPECT_EQ(GuidText(kConditionIpRemoteAddress), "{B235AE9A-1D64-49B8-A44C-5FF3D9095045}");
  EXPECT_EQ(GuidText(kConditionIpProtocol), "{3971EF2B-623E-4F9A-8CB1-6E79B806B9A7}");
  EXPECT_EQ(GuidText(kConditionIpRemotePort), "{C35A604D-D22B-4E1A-91B4-68F674EE674B}");
  EXPECT_EQ(GuidText(kConditionAleAppId), "{D78E1E87-8644-4EA5-9437-D809ECEFC971}");
  EXPECT_EQ(GuidText(kConditionInterfaceIndex), "{667FD755-D695-434A-8AF5-D3835A1259BC}");
}

// ---- The sweep ----

TEST(CleanupOldFilters, RemovesOnlyFiltersWithBothOfItsKeys) {
  sim::Machine machine;
  sim::PutFilter(OldFilter(L"own"));
  sim::PutFilter(OldFilter(L"own provider, other sublayer", kProviderKey, kStranger));
  sim::PutFilter(OldFilter(L"other provider, own sublayer", kStranger, kSubLayerKey));
  sim::PutFilter(OldFilter(L"other", kStranger, kStranger));
  sim::EngineFilter unowned = OldFilter(L"no provider, own sublayer");
  unowned.hasProviderKey = false;
  sim::PutFilter(unowned);
  OpenTransaction transaction;
  EXPECT_TRUE(CleanupOldFilters(transaction.engine));
  transaction.Commit();
  EXPECT_EQ(InForce(), (Lines{"own provider, other sublayer", "other provider, own sublayer", "other",
                              "no provider, own sublayer"}));
  EXPECT_EQ(sim::LogLines(), Lines{});
}

TEST(CleanupOldFilters, DeletesByKeyUnlessTheFirst32BitsOfItAreZero) {
  sim::Machine machine;
  sim::PutFilter(OldFilter(L"keyed"));
  sim::EngineFilter keyless = OldFilter(L"keyless");
  keyless.filter.filterKey = {};
  sim::PutFilter(keyless);
  // A wanted oddity: only Data1 is looked at, so a key that begins with zeroes counts as none.
  sim::EngineFilter halfKeyed = OldFilter(L"half keyed");
  halfKeyed.filter.filterKey = {0, 0x5566, 0x7788, {9, 9, 9, 9, 9, 9, 9, 9}};
  sim::PutFilter(halfKeyed);
  OpenTransaction transaction;
  EXPECT_TRUE(CleanupOldFilters(transaction.engine));
  transaction.Commit();
  EXPECT_EQ(FwpmCalls(), (Lines{"FwpmFilterCreateEnumHandle0", "FwpmFilterEnum0", "FwpmFilterDeleteByKey0",
                                "FwpmFilterDeleteById0", "FwpmFilterDeleteById0", "FwpmFilterEnum0",
                                "FwpmFilterDestroyEnumHandle0", "FwpmTransactionCommit0"}));
  EXPECT_EQ(InForce(), Lines{});
}

TEST(CleanupOldFilters, WalksInBatchesOf256UntilABatchOfNone) {
  sim::Machine machine;
  for (int n = 0; n < 600; ++n) {
    sim::PutFilter(n % 2 == 0 ? OldFilter(L"own") : OldFilter(L"other", kStranger, kStranger));
  }
  OpenTransaction transaction;
  EXPECT_TRUE(CleanupOldFilters(transaction.engine));
  transaction.Commit();
  EXPECT_EQ(sim::CountCalls("FwpmFilterEnum0"), 4u);
  EXPECT_EQ(sim::CountCalls("FwpmFilterEnum0", "=256"), 4u);
  EXPECT_EQ(sim::CountCalls("FwpmFreeMemory0"), 4u);
  EXPECT_EQ(InForce(), Lines(300, "other"));
  EXPECT_EQ(sim::OpenHandles("enumeration"), 0u);
  EXPECT_EQ(sim::OpenHandles("memory"), 0u);
}

TEST(CleanupOldFilters, FailsWhenTheEnumerationDoesNotStart) {
  sim::Machine machine;
  sim::PutFilter(OldFilter(L"own"));
  OpenTransaction transaction;
  sim::Fail({.operation = "FwpmFilterCreateEnumHandle0", .code = kAccessDenied});
  EXPECT_FALSE(CleanupOldFilters(transaction.engine));
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("WFP: FwpmFilterCreateEnumHandle0 failed", kAccessDenied)});
  EXPECT_EQ(FwpmCalls(), Lines{"FwpmFilterCreateEnumHandle0"});
}

TEST(CleanupOldFilters, StopsAtABatchThatCannotBeRead) {
  sim::Machine machine;
  for (int n = 0; n < 300; ++n) sim::PutFilter(OldFilter(L"own"));
  OpenTransaction transaction;
  sim::Fail({.operation = "FwpmFilterEnum0", .code = kAccessDenied, .skip = 1});
  EXPECT_FALSE(CleanupOldFilters(transaction.engine));
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("WFP: FwpmFilterEnum0 failed", kAccessDenied)});
  EXPECT_EQ(sim::CountCalls("FwpmFilterDeleteByKey0"), 256u);
  EXPECT_EQ(sim::CountCalls("FwpmFilterEnum0"), 2u);
  EXPECT_EQ(sim::OpenHandles("enumeration"), 0u);
  EXPECT_EQ(sim::OpenHandles("memory"), 0u);
}

TEST(CleanupOldFilters, GoesOnBehindAFilterThatCannotBeDeleted) {
  sim::Machine machine;
  for (int n = 1; n <= 3; ++n) {
    sim::EngineFilter filter = OldFilter(L"own " + std::to_wstring(n));
    if (n == 2) filter.filter.filterKey = {};
    sim::PutFilter(filter);
  }
  OpenTransaction transaction;
  sim::Fail({.operation = "FwpmFilterDeleteByKey0", .code = kAccessDenied});
  sim::Fail({.operation = "FwpmFilterDeleteById0", .code = 87});
  EXPECT_FALSE(CleanupOldFilters(transaction.engine));
  transaction.Commit();
  EXPECT_EQ(sim::LogLines(), (Lines{ErrorLine("WFP: Filter delete failed", kAccessDenied),
                                    ErrorLine("WFP: Filter delete failed", 87)}));
  EXPECT_EQ(InForce(), (Lines{"own 1", "own 2"}));
}

}  // namespace
