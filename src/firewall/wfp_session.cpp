#include "firewall/wfp_session.h"

#include "firewall/enumeration.h"
#include "service/log.h"

namespace {

constexpr uint16_t kSubLayerWeight = 0x0100;

constexpr Enumeration kFilterSweep{
    &platform::FwpmFilterCreateEnumHandle0,  &platform::FwpmFilterEnum0,
    &platform::FwpmFilterDestroyEnumHandle0, L"WFP: FwpmFilterCreateEnumHandle0 failed",
    L"WFP: FwpmFilterEnum0 failed",
};

// True if the object is there now. Logs a failure as that of `what`.
bool AddedOrThere(uint32_t code, const wchar_t* what) {
  if (code == platform::kErrorSuccess || code == platform::kFwpEAlreadyExists) return true;
  WfpLogError(what, code);
  return false;
}

}  // namespace

uint32_t OpenWfpEngine(platform::Handle& engine) {
  platform::FwpmSession session;
  // Wanted: in spite of its name the session is not dynamic, or its end would take the rules away.
  session.displayData.name = L"TELVOR WFP dynamic session";
  return platform::FwpmEngineOpen0(platform::kRpcCAuthnWinNt, session, engine);
}

bool EnsureProviderAndSublayer(platform::Handle engine) {
  platform::FwpmProvider provider;
  provider.providerKey = kProviderKey;
  provider.displayData = {L"sorvanik VPN Provider", L"WFP provider for TLV VPN Phase1"};
  if (!AddedOrThere(platform::FwpmProviderAdd0(engine, provider), L"FwpmProviderAdd0")) return false;

  platform::FwpmSubLayer subLayer;
  subLayer.subLayerKey = kSubLayerKey;
  subLayer.displayData = {L"sorvanik VPN Fail-Closed Sublayer", L"Fail-closed baseline rules"};
  subLayer.providerKey = kProviderKey;
  subLayer.weight = kSubLayerWeight;
  return AddedOrThere(platform::FwpmSubLayerAdd0(engine, subLayer), L"FwpmSubLayerAdd0");
}

bool IsOwnFilter(const platform::FwpmEntry& entry) {
  return entry.hasProviderKey && entry.providerKey == kProviderKey && entry.subLayerKey == kSubLayerKey;
}

bool CleanupOldFilters(platform::Handle engine) {
  bool allDeleted = true;
  const WalkEnd end = WalkObjects(engine, kFilterSweep, [&](const platform::FwpmEntry& entry) {
    if (!IsOwnFilter(entry)) return;
    const uint32_t code = entry.key.data1 != 0 ? platform::FwpmFilterDeleteByKey0(engine, entry.key)
                                               : platform::FwpmFilterDeleteById0(engine, entry.filterId);
    if (code == platform::kErrorSuccess) return;
    WfpLogError(L"WFP: Filter delete failed", code);
    allDeleted = false;
  });
  return end == WalkEnd::kComplete && allDeleted;
}
