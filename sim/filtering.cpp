// The filtering engine: what is in force, transactions on a copy of it, and enumerations of snapshots.
#include "filtering.h"

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <set>

#include "case.h"
#include "device.h"
#include "files.h"
#include "filtering_text.h"

namespace sim {
namespace {

using platform::Guid;

constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kFwpEConditionNotFound = 0x80320002;
constexpr uint32_t kFwpELayerNotFound = 0x80320004;
constexpr uint32_t kFwpETimeout = 0x80320012;
constexpr uint32_t kFwpENullPointer = 0x8032001C;
constexpr uint32_t kFwpENullDisplayName = 0x80320023;
constexpr uint32_t kRpcCAuthnDefault = 0xFFFFFFFF;
constexpr uint32_t kSessionFlagDynamic = 1;
constexpr uint32_t kDefaultTransactionWait = 15'000;  // milliseconds

constexpr Guid kKnownLayers[] = {
    {0xC38D57D1, 0x05A7, 0x4C33, {0x90, 0x4F, 0x7F, 0xBC, 0xEE, 0xE6, 0x0E, 0x82}},  // ALE_AUTH_CONNECT_V4
    {0x4A72393B, 0x319F, 0x44BC, {0x84, 0xC3, 0xBA, 0x54, 0xDC, 0xB3, 0xB6, 0xB4}},  // ALE_AUTH_CONNECT_V6
};
constexpr Guid kKnownConditions[] = {
    {0xB235AE9A, 0x1D64, 0x49B8, {0xA4, 0x4C, 0x5F, 0xF3, 0xD9, 0x09, 0x50, 0x45}},  // IP_REMOTE_ADDRESS
    {0x3971EF2B, 0x623E, 0x4F9A, {0x8C, 0xB1, 0x6E, 0x79, 0xB8, 0x06, 0xB9, 0xA7}},  // IP_PROTOCOL
    {0xC35A604D, 0xD22B, 0x4E1A, {0x91, 0xB4, 0x68, 0xF6, 0x74, 0xEE, 0x67, 0x4B}},  // IP_REMOTE_PORT
    {0xD78E1E87, 0x8644, 0x4EA5, {0x94, 0x37, 0xD8, 0x09, 0xEC, 0xEF, 0xC9, 0x71}},  // ALE_APP_ID
    {0x667FD755, 0xD695, 0x434A, {0x8A, 0xF5, 0xD3, 0x83, 0x5A, 0x12, 0x59, 0xBC}},  // INTERFACE_INDEX
};

struct Callout {
  Guid key;
  std::optional<Guid> provider;
};

// Everything that transactions change.
struct State {
  std::vector<EngineFilter> filters;
  std::vector<platform::FwpmProvider> providers;
  std::vector<platform::FwpmSubLayer> subLayers;
  std::vector<Callout> callouts;
};

struct Engine : Object {
  Engine() : Object("engine") {}
  void Closed() override;
  platform::FwpmSession session;
  // What a dynamic session added goes with it.
  std::set<uint64_t> dynamicFilters;
  std::vector<Guid> dynamicSubLayers;
  std::vector<Guid> dynamicProviders;
};

struct Enumeration : Object {
  Enumeration() : Object("enumeration") {}
  std::vector<EngineFilter> filters;
  std::vector<Callout> callouts;
  size_t next = 0;
};

// Memory that the platform hands out and FwpmFreeMemory0 takes back, found by its address.
struct Memory : Object {
  Memory() : Object("memory") {}
  std::deque<std::wstring> names;
  std::string bytes;
  platform::FwpByteBlob blob{};
};

State gInForce;
std::optional<State> gTransaction;
const Engine* gTransactionOwner = nullptr;
uint64_t gNextFilterId = 0;
std::vector<platform::FwpmSession> gSessions;
std::map<void*, platform::Handle> gMemory;
bool gNoAppId = false;
size_t gCommitted = 0;
size_t gAborted = 0;

void Boot() {
  constexpr uint64_t kFirstFilterId = 70'000;
  gInForce = State{};
  gTransaction.reset();
  gTransactionOwner = nullptr;
  gNextFilterId = kFirstFilterId;
  gSessions.clear();
  gMemory.clear();
  gNoAppId = false;
  gCommitted = 0;
  gAborted = 0;
}

const Device kDevice("filtering", &Boot, [] { gMemory.clear(); });

void EndTransaction(bool commit) {
  if (commit) gInForce = std::move(*gTransaction);
  ++(commit ? gCommitted : gAborted);
  gTransaction.reset();
  gTransactionOwner = nullptr;
}

template <class List, class Key>
bool Has(const List& list, Key List::value_type::*key, const Guid& wanted) {
  return std::any_of(list.begin(), list.end(), [&](const auto& item) { return item.*key == wanted; });
}

template <class List, class Key>
void Remove(List& list, Key List::value_type::*key, const Guid& wanted) {
  std::erase_if(list, [&](const auto& item) { return item.*key == wanted; });
}

void Engine::Closed() {
  if (gTransactionOwner == this) EndTransaction(false);
  std::erase_if(gInForce.filters,
                [this](const auto& item) { return dynamicFilters.count(item.filterId) > 0; });
  for (const Guid& key : dynamicSubLayers)
    Remove(gInForce.subLayers, &platform::FwpmSubLayer::subLayerKey, key);
  for (const Guid& key : dynamicProviders)
    Remove(gInForce.providers, &platform::FwpmProvider::providerKey, key);
}

Guid RandomGuid() {
  Guid guid;
  const uint64_t low = DrawDeviceRandom();
  const uint64_t high = DrawDeviceRandom();
  guid.data1 = static_cast<uint32_t>(low) | 1;  // never the zero that stands for no key
  guid.data2 = static_cast<uint16_t>(low >> 32);
  guid.data3 = static_cast<uint16_t>(low >> 48);
  for (size_t index = 0; index < guid.data4.size(); ++index) {
    guid.data4[index] = static_cast<uint8_t>(high >> (8 * index));
  }
  return guid;
}

// Waits for another session's transaction to end. False when it took longer than the session waits.
bool WaitForTransaction(Call& call, const Engine& engine) {
  const uint32_t wait = engine.session.txnWaitTimeoutInMSec;
  return call.WaitFor([&engine] { return !gTransactionOwner || gTransactionOwner == &engine; },
                      wait ? wait : kDefaultTransactionWait);
}

// One operation on a session's objects: in its transaction if there is one, else by itself.
template <class Operation>
uint32_t Change(Call& call, platform::Handle handle, Operation operation) {
  if (call.Faulted()) return call.FaultCode();
  const auto engine = Use<Engine>("an operation of the filtering engine", handle);
  if (!engine) return call.Status(kErrorInvalidHandle);
  if (!WaitForTransaction(call, *engine)) return call.Status(kFwpETimeout);
  return call.Status(operation(gTransaction ? *gTransaction : gInForce, *engine));
}

bool ProviderUsed(const State& state, const Guid& key) {
  const auto uses = [&key](const auto& item) { return item.providerKey == key; };
  return std::any_of(state.subLayers.begin(), state.subLayers.end(), uses) ||
         std::any_of(
             state.filters.begin(), state.filters.end(),
             [&key](const auto& item) { return item.hasProviderKey && item.filter.providerKey == key; }) ||
         std::any_of(state.callouts.begin(), state.callouts.end(),
                     [&key](const auto& item) { return item.provider == key; });
}

bool SubLayerUsed(const State& state, const Guid& key) {
  return std::any_of(state.filters.begin(), state.filters.end(),
                     [&key](const auto& item) { return item.filter.subLayerKey == key; });
}

template <class List>
bool Contains(const List& list, const Guid& guid) {
  return std::find(std::begin(list), std::end(list), guid) != std::end(list);
}

// Why the filter cannot be added; 0 if it can.
uint32_t FilterError(const State& state, const platform::FwpmFilter& filter) {
  const Guid none;
  if (filter.displayData.name.empty()) return kFwpENullDisplayName;
  if (!Contains(kKnownLayers, filter.layerKey)) return kFwpELayerNotFound;
  if (filter.providerKey != none &&
      !Has(state.providers, &platform::FwpmProvider::providerKey, filter.providerKey)) {
    return platform::kFwpEProviderNotFound;
  }
  if (filter.subLayerKey != none &&
      !Has(state.subLayers, &platform::FwpmSubLayer::subLayerKey, filter.subLayerKey)) {
    return platform::kFwpESublayerNotFound;
  }
  for (const auto& condition : filter.conditions) {
    if (!Contains(kKnownConditions, condition.fieldKey)) return kFwpEConditionNotFound;
    if (condition.type == platform::kFwpByteBlobType && !condition.blob) return kFwpENullPointer;
  }
  const bool exists = filter.filterKey != none &&
                      std::any_of(state.filters.begin(), state.filters.end(), [&filter](const auto& other) {
                        return other.filter.filterKey == filter.filterKey;
                      });
  return exists ? platform::kFwpEAlreadyExists : 0;
}

EngineFilter Stored(const platform::FwpmFilter& filter) {
  EngineFilter stored;
  stored.filter = filter;
  if (filter.filterKey == Guid{}) stored.filter.filterKey = RandomGuid();
  for (auto& condition : stored.filter.conditions) {
    stored.blobs.push_back(condition.blob ? BytesText(condition.blob->data, condition.blob->size) : "");
    condition.blob = nullptr;
  }
  stored.hasProviderKey = filter.providerKey != Guid{};
  stored.filterId = gNextFilterId++;
  return stored;
}

template <class Predicate>
uint32_t DeleteFilter(State& state, Predicate matches) {
  return std::erase_if(state.filters, matches) > 0 ? 0 : platform::kFwpEFilterNotFound;
}

void* HandOutMemory(const std::shared_ptr<Memory>& memory, void* address) {
  gMemory[address] = OpenHandle(memory);
  return address;
}

// `enumerate` fills a new enumeration from the state that the session sees.
template <class Fill>
uint32_t CreateEnumeration(Call& call, platform::Handle engine, platform::Handle& enumeration, Fill fill) {
  return Change(call, engine, [&](const State& state, Engine&) {
    auto object = std::make_shared<Enumeration>();
    fill(state, *object);
    enumeration = OpenHandle(object);
    return 0U;
  });
}

uint32_t DestroyEnumeration(Call& call, platform::Handle enumeration) {
  if (call.Faulted()) return call.FaultCode();
  if (!Use<Enumeration>("an enumeration of the filtering engine", enumeration)) {
    return call.Status(kErrorInvalidHandle);
  }
  CloseObject(enumeration);
  return call.Status(0);
}

platform::FwpmEntry EntryOf(const EngineFilter& stored, Memory& memory) {
  platform::FwpmEntry entry;
  entry.present = true;
  entry.hasProviderKey = stored.hasProviderKey;
  if (stored.hasProviderKey) entry.providerKey = stored.filter.providerKey;
  entry.subLayerKey = stored.filter.subLayerKey;
  entry.key = stored.filter.filterKey;
  entry.filterId = stored.filterId;
  if (stored.named) {
    memory.names.push_back(stored.filter.displayData.name);
    entry.name = memory.names.back().c_str();
  }
  return entry;
}

platform::FwpmEntry EntryOf(const Callout& callout, Memory&) {
  platform::FwpmEntry entry;
  entry.present = true;
  entry.hasProviderKey = callout.provider.has_value();
  if (callout.provider) entry.providerKey = *callout.provider;
  entry.key = callout.key;
  return entry;
}

// The next items of the list that `items` points out in the enumeration.
template <class Item>
uint32_t Enumerate(Call& call, platform::Handle engine, platform::Handle enumeration, uint32_t requested,
                   platform::FwpmBatch& batch, std::vector<Item> Enumeration::*items) {
  if (call.Faulted()) return call.FaultCode();
  if (!Use<Engine>("an enumeration", engine)) return call.Status(kErrorInvalidHandle);
  const auto object = Use<Enumeration>("an enumeration", enumeration);
  if (!object) return call.Status(kErrorInvalidHandle);
  auto memory = std::make_shared<Memory>();
  batch.entries.clear();
  const std::vector<Item>& list = (*object).*items;
  while (object->next < list.size() && batch.entries.size() < requested) {
    batch.entries.push_back(EntryOf(list[object->next++], *memory));
  }
  batch.memory = HandOutMemory(memory, memory.get());
  call.SetResult(Args("entries", batch.entries.size()));
  return 0;
}

}  // namespace

// ---- Controls ----

const std::vector<EngineFilter>& FiltersInForce() {
  return gInForce.filters;
}

std::vector<std::wstring> FilterNames() {
  Guard guard;
  std::vector<std::wstring> names;
  for (const EngineFilter& filter : gInForce.filters) names.push_back(filter.filter.displayData.name);
  return names;
}

bool ProviderInForce(const Guid& key) {
  Guard guard;
  return Has(gInForce.providers, &platform::FwpmProvider::providerKey, key);
}

bool SubLayerInForce(const Guid& key) {
  Guard guard;
  return Has(gInForce.subLayers, &platform::FwpmSubLayer::subLayerKey, key);
}

std::vector<platform::FwpmProvider> ProvidersInForce() {
  Guard guard;
  return gInForce.providers;
}

std::vector<platform::FwpmSubLayer> SubLayersInForce() {
  Guard guard;
  return gInForce.subLayers;
}

std::vector<platform::FwpmSession> SessionsOpened() {
  Guard guard;
  return gSessions;
}

uint64_t PutFilter(const EngineFilter& filter) {
  Guard guard;
  gInForce.filters.push_back(filter);
  gInForce.filters.back().filterId = gNextFilterId++;
  return gInForce.filters.back().filterId;
}

void PutProvider(const platform::FwpmProvider& provider) {
  Guard guard;
  gInForce.providers.push_back(provider);
}

void PutSubLayer(const platform::FwpmSubLayer& subLayer) {
  Guard guard;
  gInForce.subLayers.push_back(subLayer);
}

void PutCallout(const Guid& key, const Guid* provider) {
  Guard guard;
  gInForce.callouts.push_back({key, provider ? std::optional<Guid>(*provider) : std::nullopt});
}

size_t CalloutCount() {
  Guard guard;
  return gInForce.callouts.size();
}

// The device path in lower case, in UTF-16 with its terminator.
std::string AppIdFor(const std::wstring& path) {
  const std::wstring device = L"\\device\\harddiskvolume3" + LowerCase(path).substr(2) + L'\0';
  std::string bytes;
  for (const wchar_t unit : device) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8 & 0xFF);
  }
  return bytes;
}

void GiveNoAppId(bool yes) {
  Guard guard;
  gNoAppId = yes;
}

size_t TransactionsCommitted() {
  return gCommitted;
}
size_t TransactionsAborted() {
  return gAborted;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

// ---- Sessions and transactions ----

uint32_t FwpmEngineOpen0(uint32_t authenticationService, const FwpmSession& session, Handle& engine) {
  Call call("FwpmEngineOpen0",
            Args("authenticationService", authenticationService, "key", sim::Text(session.sessionKey)) + ' ' +
                sim::Text(session.displayData) + ' ' +
                Args("flags", session.flags, "txnWaitTimeout", session.txnWaitTimeoutInMSec));
  if (call.Faulted()) return call.FaultCode();
  if (authenticationService != kRpcCAuthnWinNt && authenticationService != sim::kRpcCAuthnDefault) {
    return call.Status(sim::kErrorInvalidParameter);
  }
  auto object = std::make_shared<sim::Engine>();
  object->session = session;
  sim::gSessions.push_back(session);
  engine = sim::OpenHandle(object);
  call.SetResult(Args("engine", engine));
  return 0;
}

uint32_t FwpmEngineClose0(Handle engine) {
  Call call("FwpmEngineClose0", Args("engine", engine), Call::Kind::kReleasing);
  if (call.Faulted()) return call.FaultCode();
  if (!sim::Use<sim::Engine>("FwpmEngineClose0", engine)) return call.Status(sim::kErrorInvalidHandle);
  sim::CloseObject(engine);
  return call.Status(0);
}

uint32_t FwpmTransactionBegin0(Handle engine, uint32_t flags) {
  Call call("FwpmTransactionBegin0", Args("engine", engine, "flags", flags));
  return sim::Change(call, engine, [](const sim::State& state, const sim::Engine& session) {
    if (sim::gTransactionOwner) return kFwpETxnInProgress;
    sim::gTransaction = state;
    sim::gTransactionOwner = &session;
    return 0U;
  });
}

namespace {

uint32_t FinishTransaction(Call& call, Handle engine, bool commit) {
  if (call.Faulted()) return call.FaultCode();
  const auto session = sim::Use<sim::Engine>("the end of a transaction", engine);
  if (!session) return call.Status(sim::kErrorInvalidHandle);
  if (sim::gTransactionOwner != session.get()) return call.Status(kFwpENoTxnInProgress);
  sim::EndTransaction(commit);
  return call.Status(0);
}

}  // namespace

uint32_t FwpmTransactionCommit0(Handle engine) {
  Call call("FwpmTransactionCommit0", Args("engine", engine));
  return FinishTransaction(call, engine, true);
}

uint32_t FwpmTransactionAbort0(Handle engine) {
  Call call("FwpmTransactionAbort0", Args("engine", engine), Call::Kind::kReleasing);
  return FinishTransaction(call, engine, false);
}

// ---- Adding ----

uint32_t FwpmProviderAdd0(Handle engine, const FwpmProvider& provider) {
  Call call("FwpmProviderAdd0", Args("engine", engine, "key", sim::Text(provider.providerKey)) + ' ' +
                                    sim::Text(provider.displayData) + ' ' + Args("flags", provider.flags));
  return sim::Change(call, engine, [&provider](sim::State& state, sim::Engine& session) {
    if (provider.displayData.name.empty()) return sim::kFwpENullDisplayName;
    if (sim::Has(state.providers, &FwpmProvider::providerKey, provider.providerKey))
      return kFwpEAlreadyExists;
    state.providers.push_back(provider);
    if (session.session.flags & sim::kSessionFlagDynamic) {
      session.dynamicProviders.push_back(provider.providerKey);
    }
    return 0U;
  });
}

uint32_t FwpmSubLayerAdd0(Handle engine, const FwpmSubLayer& subLayer) {
  Call call("FwpmSubLayerAdd0", Args("engine", engine, "key", sim::Text(subLayer.subLayerKey)) + ' ' +
                                    sim::Text(subLayer.displayData) + ' ' +
                                    Args("flags", subLayer.flags, "provider", sim::Text(subLayer.providerKey),
                                         "weight", subLayer.weight));
  return sim::Change(call, engine, [&subLayer](sim::State& state, sim::Engine& session) {
    if (subLayer.displayData.name.empty()) return sim::kFwpENullDisplayName;
    if (sim::Has(state.subLayers, &FwpmSubLayer::subLayerKey, subLayer.subLayerKey))
      return kFwpEAlreadyExists;
    if (subLayer.providerKey != Guid{} &&
        !sim::Has(state.providers, &FwpmProvider::providerKey, subLayer.providerKey)) {
      return kFwpEProviderNotFound;
    }
    state.subLayers.push_back(subLayer);
    if (session.session.flags & sim::kSessionFlagDynamic) {
      session.dynamicSubLayers.push_back(subLayer.subLayerKey);
    }
    return 0U;
  });
}

uint32_t FwpmFilterAdd0(Handle engine, const FwpmFilter& filter, uint64_t& filterId) {
  Call call("FwpmFilterAdd0", Args("engine", engine) + ' ' + sim::Text(filter));
  return sim::Change(call, engine, [&](sim::State& state, sim::Engine& session) {
    if (const uint32_t error = sim::FilterError(state, filter)) return error;
    state.filters.push_back(sim::Stored(filter));
    filterId = state.filters.back().filterId;
    if (session.session.flags & sim::kSessionFlagDynamic) session.dynamicFilters.insert(filterId);
    return 0U;
  });
}

// ---- Deleting ----

uint32_t FwpmProviderDeleteByKey0(Handle engine, const Guid& key) {
  Call call("FwpmProviderDeleteByKey0", Args("engine", engine, "key", sim::Text(key)));
  return sim::Change(call, engine, [&key](sim::State& state, const sim::Engine&) {
    if (!sim::Has(state.providers, &FwpmProvider::providerKey, key)) return kFwpEProviderNotFound;
    if (sim::ProviderUsed(state, key)) return kFwpEInUse;
    sim::Remove(state.providers, &FwpmProvider::providerKey, key);
    return 0U;
  });
}

uint32_t FwpmSubLayerDeleteByKey0(Handle engine, const Guid& key) {
  Call call("FwpmSubLayerDeleteByKey0", Args("engine", engine, "key", sim::Text(key)));
  return sim::Change(call, engine, [&key](sim::State& state, const sim::Engine&) {
    if (!sim::Has(state.subLayers, &FwpmSubLayer::subLayerKey, key)) return kFwpESublayerNotFound;
    if (sim::SubLayerUsed(state, key)) return kFwpEInUse;
    sim::Remove(state.subLayers, &FwpmSubLayer::subLayerKey, key);
    return 0U;
  });
}

uint32_t FwpmFilterDeleteByKey0(Handle engine, const Guid& key) {
  Call call("FwpmFilterDeleteByKey0", Args("engine", engine, "key", sim::Text(key)));
  return sim::Change(call, engine, [&key](sim::State& state, const sim::Engine&) {
    return sim::DeleteFilter(state, [&key](const auto& item) { return item.filter.filterKey == key; });
  });
}

uint32_t FwpmFilterDeleteById0(Handle engine, uint64_t filterId) {
  Call call("FwpmFilterDeleteById0", Args("engine", engine, "filterId", filterId));
  return sim::Change(call, engine, [filterId](sim::State& state, const sim::Engine&) {
    return sim::DeleteFilter(state, [filterId](const auto& item) { return item.filterId == filterId; });
  });
}

uint32_t FwpmCalloutDeleteByKey0(Handle engine, const Guid& key) {
  Call call("FwpmCalloutDeleteByKey0", Args("engine", engine, "key", sim::Text(key)));
  return sim::Change(call, engine, [&key](sim::State& state, const sim::Engine&) {
    if (!sim::Has(state.callouts, &sim::Callout::key, key)) return kFwpECalloutNotFound;
    sim::Remove(state.callouts, &sim::Callout::key, key);
    return 0U;
  });
}

// ---- Enumerating ----

uint32_t FwpmFilterCreateEnumHandle0(Handle engine, Handle& enumeration) {
  Call call("FwpmFilterCreateEnumHandle0", Args("engine", engine));
  return sim::CreateEnumeration(
      call, engine, enumeration,
      [](const sim::State& state, sim::Enumeration& made) { made.filters = state.filters; });
}

uint32_t FwpmFilterEnum0(Handle engine, Handle enumeration, uint32_t requested, FwpmBatch& batch) {
  Call call("FwpmFilterEnum0", Args("engine", engine, "enumeration", enumeration, "requested", requested));
  return sim::Enumerate(call, engine, enumeration, requested, batch, &sim::Enumeration::filters);
}

uint32_t FwpmFilterDestroyEnumHandle0(Handle engine, Handle enumeration) {
  Call call("FwpmFilterDestroyEnumHandle0", Args("engine", engine, "enumeration", enumeration),
            Call::Kind::kReleasing);
  return sim::DestroyEnumeration(call, enumeration);
}

uint32_t FwpmCalloutCreateEnumHandle0(Handle engine, Handle& enumeration) {
  Call call("FwpmCalloutCreateEnumHandle0", Args("engine", engine));
  return sim::CreateEnumeration(
      call, engine, enumeration,
      [](const sim::State& state, sim::Enumeration& made) { made.callouts = state.callouts; });
}

uint32_t FwpmCalloutEnum0(Handle engine, Handle enumeration, uint32_t requested, FwpmBatch& batch) {
  Call call("FwpmCalloutEnum0", Args("engine", engine, "enumeration", enumeration, "requested", requested));
  return sim::Enumerate(call, engine, enumeration, requested, batch, &sim::Enumeration::callouts);
}

uint32_t FwpmCalloutDestroyEnumHandle0(Handle engine, Handle enumeration) {
  Call call("FwpmCalloutDestroyEnumHandle0", Args("engine", engine, "enumeration", enumeration),
            Call::Kind::kReleasing);
  return sim::DestroyEnumeration(call, enumeration);
}

// ---- Memory ----

uint32_t FwpmGetAppIdFromFileName0(const std::wstring& path, FwpByteBlob*& appId) {
  Call call("FwpmGetAppIdFromFileName0", Args("path", path));
  appId = nullptr;
  if (call.Faulted()) return call.FaultCode();
  if (sim::gNoAppId) return call.Status(0);
  if (!sim::FileExists(path)) return call.Status(sim::kErrorFileNotFound);
  auto memory = std::make_shared<sim::Memory>();
  memory->bytes = sim::AppIdFor(path);
  memory->blob = {static_cast<uint32_t>(memory->bytes.size()),
                  reinterpret_cast<uint8_t*>(memory->bytes.data())};
  appId = &memory->blob;
  sim::HandOutMemory(memory, appId);
  return call.Status(0);
}

void FwpmFreeMemory0(void*& memory) {
  Call call("FwpmFreeMemory0", Args("memory", memory ? "given" : "none"), Call::Kind::kReleasing);
  if (call.Dead() || !memory) return;
  const auto found = sim::gMemory.find(memory);
  if (found == sim::gMemory.end()) {
    sim::ReportFailure("FwpmFreeMemory0 on memory that is not the filtering engine's, or freed already");
    return;
  }
  sim::CloseObject(found->second);
  sim::gMemory.erase(found);
  memory = nullptr;
}

}  // namespace platform
