// The Windows side of firewall/platform.h.
#include "firewall/platform.h"

#include <bit>
#include <cstddef>
#include <cstring>

// clang-format off
#include <winsock2.h>
#include <windows.h>
#include <fwpmu.h>
// clang-format on

namespace platform {

static_assert(sizeof(Guid) == sizeof(GUID) && offsetof(Guid, data4) == offsetof(GUID, Data4));
static_assert(sizeof(FwpByteBlob) == sizeof(FWP_BYTE_BLOB));
static_assert(offsetof(FwpByteBlob, data) == offsetof(FWP_BYTE_BLOB, data));
static_assert(kRpcCAuthnWinNt == RPC_C_AUTHN_WINNT && kFwpActionPermit == FWP_ACTION_PERMIT);
static_assert(static_cast<int>(kFwpMatchEqual) == FWP_MATCH_EQUAL);
static_assert(static_cast<int>(kFwpEmpty) == FWP_EMPTY && static_cast<int>(kFwpUint8) == FWP_UINT8);
static_assert(static_cast<int>(kFwpUint16) == FWP_UINT16 && static_cast<int>(kFwpUint32) == FWP_UINT32);
static_assert(static_cast<int>(kFwpUint64) == FWP_UINT64);
static_assert(static_cast<int>(kFwpByteBlobType) == FWP_BYTE_BLOB_TYPE);
static_assert(static_cast<int>(kFwpV4AddrMask) == FWP_V4_ADDR_MASK);
static_assert(static_cast<int>(kFwpV6AddrMask) == FWP_V6_ADDR_MASK);

namespace {

GUID ToWindows(const Guid& guid) {
  return std::bit_cast<GUID>(guid);
}

Guid FromWindows(const GUID& guid) {
  return std::bit_cast<Guid>(guid);
}

wchar_t* TextOrNull(const std::wstring& text) {
  return text.empty() ? nullptr : const_cast<wchar_t*>(text.c_str());
}

FWPM_DISPLAY_DATA0 ToWindows(const FwpmDisplayData& data) {
  return {TextOrNull(data.name), TextOrNull(data.description)};
}

// The addresses that one condition may point to.
struct ConditionAddresses {
  FWP_V4_ADDR_AND_MASK v4{};
  FWP_V6_ADDR_AND_MASK v6{};
};

FWP_CONDITION_VALUE0 ValueOf(const FwpmFilterCondition& condition, ConditionAddresses& addresses) {
  FWP_CONDITION_VALUE0 value{};
  value.type = static_cast<FWP_DATA_TYPE>(condition.type);
  switch (condition.type) {
    case kFwpUint8:
      value.uint8 = static_cast<UINT8>(condition.number);
      break;
    case kFwpUint16:
      value.uint16 = static_cast<UINT16>(condition.number);
      break;
    case kFwpUint32:
      value.uint32 = condition.number;
      break;
    case kFwpV4AddrMask:
      addresses.v4 = {condition.v4Address, condition.v4Mask};
      value.v4AddrMask = &addresses.v4;
      break;
    case kFwpV6AddrMask:
      std::memcpy(addresses.v6.addr, condition.v6Address.data(), condition.v6Address.size());
      addresses.v6.prefixLength = condition.v6PrefixLength;
      value.v6AddrMask = &addresses.v6;
      break;
    case kFwpByteBlobType:
      value.byteBlob = reinterpret_cast<FWP_BYTE_BLOB*>(condition.blob);
      break;
    default:
      break;
  }
  return value;
}

}  // namespace

// ---- Engine and transactions ----

uint32_t FwpmEngineOpen0(uint32_t authenticationService, const FwpmSession& session, Handle& engine) {
  FWPM_SESSION0 native{};
  native.sessionKey = ToWindows(session.sessionKey);
  native.displayData = ToWindows(session.displayData);
  native.flags = session.flags;
  native.txnWaitTimeoutInMSec = session.txnWaitTimeoutInMSec;
  return ::FwpmEngineOpen0(nullptr, authenticationService, nullptr, &native, &engine);
}

uint32_t FwpmEngineClose0(Handle engine) {
  return ::FwpmEngineClose0(engine);
}

uint32_t FwpmTransactionBegin0(Handle engine, uint32_t flags) {
  return ::FwpmTransactionBegin0(engine, flags);
}

uint32_t FwpmTransactionCommit0(Handle engine) {
  return ::FwpmTransactionCommit0(engine);
}

uint32_t FwpmTransactionAbort0(Handle engine) {
  return ::FwpmTransactionAbort0(engine);
}

// ---- Adding ----

uint32_t FwpmProviderAdd0(Handle engine, const FwpmProvider& provider) {
  FWPM_PROVIDER0 native{};
  native.providerKey = ToWindows(provider.providerKey);
  native.displayData = ToWindows(provider.displayData);
  native.flags = provider.flags;
  return ::FwpmProviderAdd0(engine, &native, nullptr);
}

uint32_t FwpmSubLayerAdd0(Handle engine, const FwpmSubLayer& subLayer) {
  GUID providerKey = ToWindows(subLayer.providerKey);
  FWPM_SUBLAYER0 native{};
  native.subLayerKey = ToWindows(subLayer.subLayerKey);
  native.displayData = ToWindows(subLayer.displayData);
  native.flags = static_cast<decltype(native.flags)>(subLayer.flags);
  native.providerKey = &providerKey;
  native.weight = subLayer.weight;
  return ::FwpmSubLayerAdd0(engine, &native, nullptr);
}

uint32_t FwpmFilterAdd0(Handle engine, const FwpmFilter& filter, uint64_t& filterId) {
  std::vector<ConditionAddresses> addresses(filter.conditions.size());
  std::vector<FWPM_FILTER_CONDITION0> conditions;
  for (size_t i = 0; i < filter.conditions.size(); ++i) {
    const FwpmFilterCondition& condition = filter.conditions[i];
    conditions.push_back({ToWindows(condition.fieldKey), static_cast<FWP_MATCH_TYPE>(condition.matchType),
                          ValueOf(condition, addresses[i])});
  }
  GUID providerKey = ToWindows(filter.providerKey);
  UINT64 weight = filter.weight;
  FWPM_FILTER0 native{};
  native.filterKey = ToWindows(filter.filterKey);
  native.displayData = ToWindows(filter.displayData);
  native.flags = filter.flags;
  native.providerKey = &providerKey;
  native.layerKey = ToWindows(filter.layerKey);
  native.subLayerKey = ToWindows(filter.subLayerKey);
  native.weight.type = FWP_UINT64;
  native.weight.uint64 = &weight;
  native.numFilterConditions = static_cast<UINT32>(conditions.size());
  native.filterCondition = conditions.data();
  native.action.type = filter.actionType;
  native.rawContext = filter.rawContext;
  UINT64 id = 0;
  uint32_t code = ::FwpmFilterAdd0(engine, &native, nullptr, &id);
  filterId = id;
  return code;
}

// ---- Deleting ----

uint32_t FwpmProviderDeleteByKey0(Handle engine, const Guid& key) {
  GUID native = ToWindows(key);
  return ::FwpmProviderDeleteByKey0(engine, &native);
}

uint32_t FwpmSubLayerDeleteByKey0(Handle engine, const Guid& key) {
  GUID native = ToWindows(key);
  return ::FwpmSubLayerDeleteByKey0(engine, &native);
}

uint32_t FwpmFilterDeleteByKey0(Handle engine, const Guid& key) {
  GUID native = ToWindows(key);
  return ::FwpmFilterDeleteByKey0(engine, &native);
}

uint32_t FwpmFilterDeleteById0(Handle engine, uint64_t filterId) {
  return ::FwpmFilterDeleteById0(engine, filterId);
}

uint32_t FwpmCalloutDeleteByKey0(Handle engine, const Guid& key) {
  GUID native = ToWindows(key);
  return ::FwpmCalloutDeleteByKey0(engine, &native);
}

// ---- Enumerating ----

namespace {

FwpmEntry EntryOf(const FWPM_FILTER0& filter) {
  return {.present = true,
          .hasProviderKey = filter.providerKey != nullptr,
          .providerKey = filter.providerKey == nullptr ? Guid{} : FromWindows(*filter.providerKey),
          .subLayerKey = FromWindows(filter.subLayerKey),
          .key = FromWindows(filter.filterKey),
          .filterId = filter.filterId,
          .name = filter.displayData.name};
}

FwpmEntry EntryOf(const FWPM_CALLOUT0& callout) {
  return {.present = true,
          .hasProviderKey = callout.providerKey != nullptr,
          .providerKey = callout.providerKey == nullptr ? Guid{} : FromWindows(*callout.providerKey),
          .subLayerKey = {},
          .key = FromWindows(callout.calloutKey),
          .filterId = 0,
          .name = callout.displayData.name};
}

template <class Object>
void FillBatch(Object** objects, UINT32 count, FwpmBatch& batch) {
  batch.memory = objects;
  batch.entries.clear();
  batch.entries.reserve(count);
  for (UINT32 i = 0; i < count; ++i) {
    batch.entries.push_back(objects[i] == nullptr ? FwpmEntry{} : EntryOf(*objects[i]));
  }
}

}  // namespace

uint32_t FwpmFilterCreateEnumHandle0(Handle engine, Handle& enumeration) {
  return ::FwpmFilterCreateEnumHandle0(engine, nullptr, &enumeration);
}

uint32_t FwpmFilterEnum0(Handle engine, Handle enumeration, uint32_t requested, FwpmBatch& batch) {
  FWPM_FILTER0** filters = nullptr;
  UINT32 count = 0;
  uint32_t code = ::FwpmFilterEnum0(engine, enumeration, requested, &filters, &count);
  FillBatch(filters, count, batch);
  return code;
}

uint32_t FwpmFilterDestroyEnumHandle0(Handle engine, Handle enumeration) {
  return ::FwpmFilterDestroyEnumHandle0(engine, enumeration);
}

uint32_t FwpmCalloutCreateEnumHandle0(Handle engine, Handle& enumeration) {
  return ::FwpmCalloutCreateEnumHandle0(engine, nullptr, &enumeration);
}

uint32_t FwpmCalloutEnum0(Handle engine, Handle enumeration, uint32_t requested, FwpmBatch& batch) {
  FWPM_CALLOUT0** callouts = nullptr;
  UINT32 count = 0;
  uint32_t code = ::FwpmCalloutEnum0(engine, enumeration, requested, &callouts, &count);
  FillBatch(callouts, count, batch);
  return code;
}

uint32_t FwpmCalloutDestroyEnumHandle0(Handle engine, Handle enumeration) {
  return ::FwpmCalloutDestroyEnumHandle0(engine, enumeration);
}

// ---- Memory of the engine ----

uint32_t FwpmGetAppIdFromFileName0(const std::wstring& path, FwpByteBlob*& appId) {
  FWP_BYTE_BLOB* blob = nullptr;
  uint32_t code = ::FwpmGetAppIdFromFileName0(path.c_str(), &blob);
  appId = reinterpret_cast<FwpByteBlob*>(blob);
  return code;
}

void FwpmFreeMemory0(void*& memory) {
  ::FwpmFreeMemory0(&memory);
}

}  // namespace platform
