// The operations of the Windows Filtering Platform that the firewall needs, with the records that they take,
// field by field. All of them return the platform's status, 0 for success. See service/platform.h for the
// rules.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "service/platform.h"

namespace platform {

struct Guid {
  uint32_t data1 = 0;
  uint16_t data2 = 0;
  uint16_t data3 = 0;
  std::array<uint8_t, 8> data4{};
  bool operator==(const Guid&) const = default;
};

// ---- Codes and constants (fwptypes.h, fwpmtypes.h) ----
inline constexpr uint32_t kFwpECalloutNotFound = 0x80320001;
inline constexpr uint32_t kFwpEFilterNotFound = 0x80320003;
inline constexpr uint32_t kFwpEProviderNotFound = 0x80320005;
inline constexpr uint32_t kFwpESublayerNotFound = 0x80320007;
inline constexpr uint32_t kFwpEAlreadyExists = 0x80320009;
inline constexpr uint32_t kFwpEInUse = 0x8032000A;
inline constexpr uint32_t kFwpENoTxnInProgress = 0x8032000D;
inline constexpr uint32_t kFwpETxnInProgress = 0x8032000E;

inline constexpr uint32_t kRpcCAuthnWinNt = 10;
inline constexpr uint32_t kFwpActionPermit = 0x1002;
inline constexpr uint32_t kFwpMatchEqual = 0;
// FWP_DATA_TYPE.
inline constexpr uint32_t kFwpEmpty = 0;
inline constexpr uint32_t kFwpUint8 = 1;
inline constexpr uint32_t kFwpUint16 = 2;
inline constexpr uint32_t kFwpUint32 = 3;
inline constexpr uint32_t kFwpUint64 = 4;
inline constexpr uint32_t kFwpByteBlobType = 12;
inline constexpr uint32_t kFwpV4AddrMask = 0x100;
inline constexpr uint32_t kFwpV6AddrMask = 0x101;

// FWPM_DISPLAY_DATA0; an empty text stands for a null pointer.
struct FwpmDisplayData {
  std::wstring name;
  std::wstring description;
};

// FWPM_SESSION0; the fields that are not here are zero.
struct FwpmSession {
  Guid sessionKey;
  FwpmDisplayData displayData;
  uint32_t flags = 0;
  uint32_t txnWaitTimeoutInMSec = 0;
};

// FWPM_PROVIDER0 without provider data and service name.
struct FwpmProvider {
  Guid providerKey;
  FwpmDisplayData displayData;
  uint32_t flags = 0;
};

// FWPM_SUBLAYER0 without provider data.
struct FwpmSubLayer {
  Guid subLayerKey;
  FwpmDisplayData displayData;
  uint32_t flags = 0;
  Guid providerKey;
  uint16_t weight = 0;
};

// FWP_BYTE_BLOB, in memory of the platform.
struct FwpByteBlob {
  uint32_t size;
  uint8_t* data;
};

// FWPM_FILTER_CONDITION0 with FWP_CONDITION_VALUE0; `type` says which member counts.
struct FwpmFilterCondition {
  Guid fieldKey;
  uint32_t matchType = kFwpMatchEqual;
  uint32_t type = kFwpEmpty;
  uint32_t number = 0;                  // FWP_UINT8, FWP_UINT16, FWP_UINT32
  uint32_t v4Address = 0;               // FWP_V4_ADDR_MASK: the value of the member `addr`, as it stands
  uint32_t v4Mask = 0;                  //                   the value of the member `mask`, as it stands
  std::array<uint8_t, 16> v6Address{};  // FWP_V6_ADDR_MASK
  uint8_t v6PrefixLength = 0;
  FwpByteBlob* blob = nullptr;  // FWP_BYTE_BLOB_TYPE
};

// FWPM_FILTER0 without provider data; `weight` is of type FWP_UINT64.
struct FwpmFilter {
  Guid filterKey;
  FwpmDisplayData displayData;
  uint32_t flags = 0;
  Guid providerKey;
  Guid layerKey;
  Guid subLayerKey;
  uint64_t weight = 0;
  std::vector<FwpmFilterCondition> conditions;
  uint32_t actionType = 0;
  uint64_t rawContext = 0;
};

// What an enumeration tells of one filter or callout. `name` is null or lies in the batch's memory.
struct FwpmEntry {
  bool present = false;  // false for a null entry of the batch
  bool hasProviderKey = false;
  Guid providerKey;
  Guid subLayerKey;  // filters only
  Guid key;          // filterKey or calloutKey
  uint64_t filterId = 0;
  const wchar_t* name = nullptr;
};

// One batch; its entries are valid until `memory` is released by FwpmFreeMemory0.
struct FwpmBatch {
  std::vector<FwpmEntry> entries;
  void* memory = nullptr;
};

// No server name, no credentials.
uint32_t FwpmEngineOpen0(uint32_t authenticationService, const FwpmSession& session, Handle& engine);
uint32_t FwpmEngineClose0(Handle engine);
uint32_t FwpmTransactionBegin0(Handle engine, uint32_t flags);
uint32_t FwpmTransactionCommit0(Handle engine);
uint32_t FwpmTransactionAbort0(Handle engine);
// No security descriptor, as for the next two.
uint32_t FwpmProviderAdd0(Handle engine, const FwpmProvider& provider);
uint32_t FwpmSubLayerAdd0(Handle engine, const FwpmSubLayer& subLayer);
uint32_t FwpmFilterAdd0(Handle engine, const FwpmFilter& filter, uint64_t& filterId);
uint32_t FwpmProviderDeleteByKey0(Handle engine, const Guid& key);
uint32_t FwpmSubLayerDeleteByKey0(Handle engine, const Guid& key);
uint32_t FwpmFilterDeleteByKey0(Handle engine, const Guid& key);
uint32_t FwpmFilterDeleteById0(Handle engine, uint64_t filterId);
uint32_t FwpmCalloutDeleteByKey0(Handle engine, const Guid& key);
// No template: everything is walked.
uint32_t FwpmFilterCreateEnumHandle0(Handle engine, Handle& enumeration);
uint32_t FwpmFilterEnum0(Handle engine, Handle enumeration, uint32_t requested, FwpmBatch& batch);
uint32_t FwpmFilterDestroyEnumHandle0(Handle engine, Handle enumeration);
uint32_t FwpmCalloutCreateEnumHandle0(Handle engine, Handle& enumeration);
uint32_t FwpmCalloutEnum0(Handle engine, Handle enumeration, uint32_t requested, FwpmBatch& batch);
uint32_t FwpmCalloutDestroyEnumHandle0(Handle engine, Handle enumeration);
// The blob is released by FwpmFreeMemory0. It may be null although the status is 0.
uint32_t FwpmGetAppIdFromFileName0(const std::wstring& path, FwpByteBlob*& appId);
void FwpmFreeMemory0(void*& memory);

}  // namespace platform
