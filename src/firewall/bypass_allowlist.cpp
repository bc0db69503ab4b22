#include "firewall/bypass_allowlist.h"

#include <string_view>

#include "firewall/control_plane_pins.h"
#include "firewall/enumeration.h"
#include "firewall/wfp_session.h"
#include "service/log.h"
#include "service/wide_text.h"

namespace {

constexpr Enumeration kPrefixSweep{
    &platform::FwpmFilterCreateEnumHandle0,
    &platform::FwpmFilterEnum0,
    &platform::FwpmFilterDestroyEnumHandle0,
    L"FwpmFilterCreateEnumHandle0",
    L"FwpmFilterEnum0",
};

constexpr PinTexts kUpdatePins{
    .base = L"CP immediate DNS refresh (update): base=",
    .parseFailed = nullptr,
    .host = L"CP immediate DNS refresh: host=",
    .added = L"CP pinned ALLOW added for host=",
    .failed = L"CP pinned ALLOW FAILED for host=",
    .summary = L"CP immediate DNS refresh summary: host=",
};

// A failed add ends the list; it does not fail the update.
void AddSplitBypassPermits(platform::Handle engine, const std::vector<std::wstring>& addresses) {
  for (const std::wstring& address : addresses) {
    if (IsNoAddress(address)) continue;
    if (!AddAllowRemoteIpV4(engine, address, kSplitBypassPrefix)) return;
  }
}

// Ends the transaction. True when it is committed.
bool FinishTransaction(platform::Handle engine, bool good) {
  if (!good) {
    WfpLogLine(L"WFP: UpdateSplitTunnelBypassAllowlistV4 ABORT");
    platform::FwpmTransactionAbort0(engine);
    return false;
  }
  if (const uint32_t code = platform::FwpmTransactionCommit0(engine); code != platform::kErrorSuccess) {
    WfpLogError(L"WFP: UpdateSplitTunnelBypassAllowlistV4 commit FAILED", code);
    return false;
  }
  WfpLogLine(L"WFP: UpdateSplitTunnelBypassAllowlistV4 COMMIT OK");
  return true;
}

bool ReplacePermits(platform::Handle engine, const std::vector<std::wstring>& addresses) {
  if (!EnsureProviderAndSublayer(engine)) return false;
  if (const uint32_t code = platform::FwpmTransactionBegin0(engine, 0); code != platform::kErrorSuccess) {
    WfpLogError(L"FwpmTransactionBegin0", code);
    return false;
  }
  const bool swept = DeleteFiltersByNamePrefix(engine, kSplitBypassPrefix);
  if (swept) AddSplitBypassPermits(engine, addresses);
  // Wanted: older pins stay, and each update adds a further pair for each address.
  PinControlPlane(engine, kUpdatePins);
  return FinishTransaction(engine, swept);
}

}  // namespace

bool UpdateSplitTunnelBypassAllowlistV4(const std::vector<std::wstring>& addresses) {
  WfpLogLine(L"WFP: UpdateSplitTunnelBypassAllowlistV4 ENTER count=" + std::to_wstring(addresses.size()));
  platform::Handle engine = nullptr;
  if (const uint32_t code = OpenWfpEngine(engine); code != platform::kErrorSuccess) {
    WfpLogError(L"FwpmEngineOpen0", code);
    return false;
  }
  const bool committed = ReplacePermits(engine, addresses);
  platform::FwpmEngineClose0(engine);
  return committed;
}

bool DeleteFiltersByNamePrefix(platform::Handle engine, const std::wstring& namePrefix) {
  bool allDeleted = true;
  const WalkEnd end = WalkObjects(engine, kPrefixSweep, [&](const platform::FwpmEntry& entry) {
    if (!IsOwnFilter(entry)) return;
    const std::wstring_view name = entry.name ? entry.name : L"";
    if (!name.starts_with(namePrefix)) return;
    const uint32_t code = platform::FwpmFilterDeleteById0(engine, entry.filterId);
    if (code == platform::kErrorSuccess) return;
    WfpLogError(L"FwpmFilterDeleteById0", code);
    allDeleted = false;
  });
  return end == WalkEnd::kComplete && allDeleted;
}
