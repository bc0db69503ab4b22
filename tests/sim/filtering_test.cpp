#include "sim/filtering.h"

#include "firewall/rule_set.h"
#include "firewall/wfp_session.h"
#include "sim_fixture.h"

namespace {

platform::Handle OpenEngine(uint32_t flags = 0) {
  platform::FwpmSession session;
  session.flags = flags;
  platform::Handle engine = nullptr;
  EXPECT_EQ(platform::FwpmEngineOpen0(platform::kRpcCAuthnWinNt, session, engine), 0u);
  return engine;
}

uint32_t AddProvider(platform::Handle engine) {
  return platform::FwpmProviderAdd0(engine, {kProviderKey, {L"provider", L""}, 0});
}

uint32_t AddSubLayer(platform::Handle engine) {
  return platform::FwpmSubLayerAdd0(engine, {kSubLayerKey, {L"sublayer", L""}, 0, kProviderKey, 1});
}

uint32_t AddFilter(platform::Handle engine, const std::wstring& name = L"filter") {
  uint64_t filterId = 0;
  return platform::FwpmFilterAdd0(engine, PermitFilter(name, kLayerAleAuthConnectV4), filterId);
}

// An engine with provider and sublayer in force, closed with the scope.
struct Ground {
  Ground() {
    EXPECT_EQ(AddProvider(engine), 0u);
    EXPECT_EQ(AddSubLayer(engine), 0u);
  }
  ~Ground() { platform::FwpmEngineClose0(engine); }
  Ground(const Ground&) = delete;
  Ground& operator=(const Ground&) = delete;
  sim::Machine machine;
  platform::Handle engine = OpenEngine();
};

TEST(Filtering, OutsideATransactionEachOperationIsItsOwnAndOutlivesTheEngineHandle) {
  sim::Machine machine;
  const platform::Handle engine = OpenEngine();
  EXPECT_EQ(AddProvider(engine), 0u);
  EXPECT_EQ(AddProvider(engine), platform::kFwpEAlreadyExists);
  EXPECT_EQ(AddSubLayer(engine), 0u);
  EXPECT_EQ(AddFilter(engine), 0u);
  platform::FwpmEngineClose0(engine);
  EXPECT_TRUE(sim::ProviderInForce(kProviderKey));
  EXPECT_EQ(sim::FilterNames(), std::vector<std::wstring>{L"filter"});
  EXPECT_NE(sim::FiltersInForce()[0].filter.filterKey, platform::Guid{});
}

TEST(Filtering, ACommitPutsAllInForceAtOnceAndAnAbortNothing) {
  Ground ground;
  EXPECT_EQ(platform::FwpmTransactionBegin0(ground.engine, 0), 0u);
  EXPECT_EQ(platform::FwpmTransactionBegin0(ground.engine, 0), platform::kFwpETxnInProgress);
  AddFilter(ground.engine, L"one");
  AddFilter(ground.engine, L"two");
  EXPECT_TRUE(sim::FilterNames().empty());
  EXPECT_EQ(platform::FwpmTransactionCommit0(ground.engine), 0u);
  EXPECT_EQ(sim::FilterNames().size(), 2u);
  EXPECT_EQ(platform::FwpmTransactionCommit0(ground.engine), platform::kFwpENoTxnInProgress);
  platform::FwpmTransactionBegin0(ground.engine, 0);
  AddFilter(ground.engine, L"three");
  EXPECT_EQ(platform::FwpmTransactionAbort0(ground.engine), 0u);
  EXPECT_EQ(sim::FilterNames().size(), 2u);
  EXPECT_EQ(sim::TransactionsCommitted(), 1u);
  EXPECT_EQ(sim::TransactionsAborted(), 1u);
}

TEST(Filtering, ClosingTheEngineAbortsItsTransaction) {
  Ground ground;
  const platform::Handle other = OpenEngine();
  platform::FwpmTransactionBegin0(other, 0);
  AddFilter(other);
  platform::FwpmEngineClose0(other);
  EXPECT_TRUE(sim::FilterNames().empty());
  EXPECT_EQ(sim::TransactionsAborted(), 1u);
}

TEST(Filtering, TheEndOfTheProcessAbortsItsTransactionAndKeepsWhatIsInForce) {
  Ground ground;
  AddFilter(ground.engine, L"kept");
  sim::StartThread("victim", [] {
    const platform::Handle engine = OpenEngine();
    platform::FwpmTransactionBegin0(engine, 0);
    AddFilter(engine, L"lost");
    platform::Sleep(platform::kInfinite);
  });
  sim::Run(10);
  sim::KillProcess();
  EXPECT_EQ(sim::FilterNames(), std::vector<std::wstring>{L"kept"});
  EXPECT_EQ(sim::TransactionsAborted(), 1u);
  ground.engine = OpenEngine();
}

TEST(Filtering, ASecondTransactionWaitsForTheFirst) {
  Ground ground;
  platform::FwpmTransactionBegin0(ground.engine, 0);
  uint64_t begun = 0;
  sim::StartThread("second", [&begun] {
    const platform::Handle engine = OpenEngine();
    EXPECT_EQ(platform::FwpmTransactionBegin0(engine, 0), 0u);
    begun = sim::Now();
    platform::FwpmEngineClose0(engine);
  });
  sim::Run(5000);
  EXPECT_EQ(begun, 0u);
  platform::FwpmTransactionCommit0(ground.engine);
  sim::Run(10);
  EXPECT_EQ(begun, 1'005'000u);
}

TEST(Filtering, AWaitForATransactionEndsAfterFifteenSeconds) {
  Ground ground;
  platform::FwpmTransactionBegin0(ground.engine, 0);
  const platform::Handle other = OpenEngine();
  EXPECT_EQ(platform::FwpmTransactionBegin0(other, 0), 0x80320012u);
  EXPECT_EQ(sim::Now(), 1'015'000u);
  // An operation without a transaction of its own waits as well.
  EXPECT_EQ(AddFilter(other), 0x80320012u);
  platform::FwpmEngineClose0(other);
}

TEST(Filtering, WhatIsReferencedCannotBeDeletedAndWhatIsMissingHasItsCode) {
  Ground ground;
  AddFilter(ground.engine);
  EXPECT_EQ(platform::FwpmProviderDeleteByKey0(ground.engine, kProviderKey), platform::kFwpEInUse);
  EXPECT_EQ(platform::FwpmSubLayerDeleteByKey0(ground.engine, kSubLayerKey), platform::kFwpEInUse);
  const uint64_t filterId = sim::FiltersInForce()[0].filterId;
  EXPECT_EQ(platform::FwpmFilterDeleteById0(ground.engine, filterId), 0u);
  EXPECT_EQ(platform::FwpmFilterDeleteById0(ground.engine, filterId), platform::kFwpEFilterNotFound);
  EXPECT_EQ(platform::FwpmSubLayerDeleteByKey0(ground.engine, kSubLayerKey), 0u);
  EXPECT_EQ(platform::FwpmSubLayerDeleteByKey0(ground.engine, kSubLayerKey), platform::kFwpESublayerNotFound);
  EXPECT_EQ(platform::FwpmProviderDeleteByKey0(ground.engine, kProviderKey), 0u);
  EXPECT_EQ(platform::FwpmProviderDeleteByKey0(ground.engine, kProviderKey), platform::kFwpEProviderNotFound);
  EXPECT_EQ(platform::FwpmCalloutDeleteByKey0(ground.engine, kProviderKey), platform::kFwpECalloutNotFound);
}

TEST(Filtering, AFilterNeedsItsProviderSublayerLayerAndConditions) {
  sim::Machine machine;
  const platform::Handle engine = OpenEngine();
  EXPECT_EQ(AddFilter(engine), platform::kFwpEProviderNotFound);
  AddProvider(engine);
  EXPECT_EQ(AddFilter(engine), platform::kFwpESublayerNotFound);
  AddSubLayer(engine);
  uint64_t filterId = 0;
  platform::FwpmFilter filter = PermitFilter(L"filter", platform::Guid{});
  EXPECT_EQ(platform::FwpmFilterAdd0(engine, filter, filterId), 0x80320004u);
  filter = PermitFilter(L"filter", kLayerAleAuthConnectV4);
  filter.conditions.push_back({});
  EXPECT_EQ(platform::FwpmFilterAdd0(engine, filter, filterId), 0x80320002u);
  filter.conditions = {AppId(nullptr)};
  EXPECT_EQ(platform::FwpmFilterAdd0(engine, filter, filterId), 0x8032001Cu);
  platform::FwpmEngineClose0(engine);
}

TEST(Filtering, AnEnumerationIsASnapshotInBatches) {
  Ground ground;
  for (int number = 0; number < 5; ++number) AddFilter(ground.engine, std::to_wstring(number));
  platform::Handle enumeration = nullptr;
  EXPECT_EQ(platform::FwpmFilterCreateEnumHandle0(ground.engine, enumeration), 0u);
  AddFilter(ground.engine, L"late");
  std::vector<size_t> sizes;
  std::wstring names;
  do {
    platform::FwpmBatch batch;
    EXPECT_EQ(platform::FwpmFilterEnum0(ground.engine, enumeration, 2, batch), 0u);
    sizes.push_back(batch.entries.size());
    for (const platform::FwpmEntry& entry : batch.entries) names += entry.name;
    platform::FwpmFreeMemory0(batch.memory);
    EXPECT_EQ(batch.memory, nullptr);
  } while (sizes.back() > 0);
  EXPECT_EQ(sizes, (std::vector<size_t>{2, 2, 1, 0}));
  EXPECT_EQ(names, L"01234");
  EXPECT_EQ(platform::FwpmFilterDestroyEnumHandle0(ground.engine, enumeration), 0u);
}

TEST(Filtering, AnEntryMayLackProviderAndName) {
  Ground ground;
  sim::EngineFilter foreign;
  foreign.named = false;
  foreign.hasProviderKey = false;
  sim::PutFilter(foreign);
  platform::Handle enumeration = nullptr;
  platform::FwpmBatch batch;
  platform::FwpmFilterCreateEnumHandle0(ground.engine, enumeration);
  platform::FwpmFilterEnum0(ground.engine, enumeration, 256, batch);
  ASSERT_EQ(batch.entries.size(), 1u);
  EXPECT_FALSE(batch.entries[0].hasProviderKey);
  EXPECT_EQ(batch.entries[0].name, nullptr);
  EXPECT_EQ(batch.entries[0].key, platform::Guid{});
  platform::FwpmFreeMemory0(batch.memory);
  platform::FwpmFilterDestroyEnumHandle0(ground.engine, enumeration);
}

TEST(Filtering, ADynamicSessionTakesItsObjectsAway) {
  sim::Machine machine;
  const platform::Handle engine = OpenEngine(1);
  AddProvider(engine);
  AddSubLayer(engine);
  AddFilter(engine);
  platform::FwpmEngineClose0(engine);
  EXPECT_TRUE(sim::FilterNames().empty());
  EXPECT_FALSE(sim::SubLayerInForce(kSubLayerKey));
  EXPECT_FALSE(sim::ProviderInForce(kProviderKey));
}

TEST(Filtering, AnAppIdNeedsItsFileAndIsKeptInTheFilter) {
  Ground ground;
  const std::wstring program = L"C:\\Program Files\\WireGuard\\wireguard.exe";
  platform::FwpByteBlob* blob = nullptr;
  EXPECT_EQ(platform::FwpmGetAppIdFromFileName0(L"C:\\missing.exe", blob), 2u);
  EXPECT_EQ(platform::FwpmGetAppIdFromFileName0(program, blob), 0u);
  platform::FwpmFilter filter = PermitFilter(L"app", kLayerAleAuthConnectV4);
  filter.conditions = {AppId(blob)};
  uint64_t filterId = 0;
  EXPECT_EQ(platform::FwpmFilterAdd0(ground.engine, filter, filterId), 0u);
  void* memory = blob;
  platform::FwpmFreeMemory0(memory);
  EXPECT_EQ(sim::FiltersInForce()[0].blobs, std::vector<std::string>{sim::AppIdFor(program)});
  EXPECT_EQ(sim::FiltersInForce()[0].filter.conditions[0].blob, nullptr);
}

}  // namespace
