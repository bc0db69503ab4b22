#include "splittunnel/bypass_refresh.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <utility>

#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "service/log.h"
#include "service/wide_text.h"
#include "splittunnel/routes.h"
#include "splittunnel/runtime_policy.h"

namespace {

constexpr uint32_t kAddressTextCapacity = 64;

// Both lists are sorted.
AddressList EntriesNotIn(const AddressList& entries, const AddressList& others) {
  AddressList rest;
  std::set_difference(entries.begin(), entries.end(), others.begin(), others.end(), std::back_inserter(rest));
  return rest;
}

AddressList CopyEffectiveBypassIps() {
  const std::lock_guard<platform::Mutex> lock(gBypassMutex);
  return gBypassIpsEffective;
}

}  // namespace

std::vector<std::wstring> ResolveDomainIPv4(const std::wstring& domain) {
  std::vector<uint32_t> addresses;
  if (platform::GetAddrInfoW(domain, platform::kAfInet, platform::kSockStream, addresses) != 0) return {};
  AddressList texts;
  for (const uint32_t address : addresses) {
    std::wstring text;
    if (platform::InetNtopW(platform::kAfInet, address, kAddressTextCapacity, text)) texts.push_back(text);
  }
  SortAndRemoveDuplicates(texts);
  return texts;
}

void RecomputeBypassIps() {
  RuntimePolicy policy;
  std::wstring source;
  LoadRuntimePolicy(policy, source);
  // Wanted: the policy's own entries stay as they stand, "0.0.0.0" and CIDR forms included.
  AddressList addresses = std::move(policy.ips);
  for (const std::wstring& domain : policy.domains) {
    for (const std::wstring& address : ResolveDomainIPv4(domain)) {
      if (!IsNoAddress(address)) addresses.push_back(address);
    }
  }
  SortAndRemoveDuplicates(addresses);
  const std::lock_guard<platform::Mutex> lock(gBypassMutex);
  gBypassIpsEffective = std::move(addresses);
}

void RefreshSplitTunnelRoutes() {
  LogLine(L"SplitTunnelV1: RefreshSplitTunnelRoutes ENTER");
  RecomputeBypassIps();
  const AddressList effective = CopyEffectiveBypassIps();

  // Wanted: what was applied is read and written without the lock.
  const AddressList added = EntriesNotIn(effective, gBypassIpsApplied);
  const AddressList removed = EntriesNotIn(gBypassIpsApplied, effective);
  if (!removed.empty()) RemoveBypassRoutes(removed);
  if (!added.empty()) ApplyBypassRoutes(added);
  // Wanted: an address whose route failed counts as applied and is not tried again.
  gBypassIpsApplied = effective;

  std::wstring line;
  for (const std::wstring& address : effective) {
    line.assign(L"SplitTunnelV1: Update WFP bypass IP = ").append(address);
    LogLine(line);
  }
  if (!gWorkerOperations.UpdateSplitTunnelBypassAllowlistV4(effective)) {
    LogLine(L"WFP: split-bypass allowlist update FAILED (routes still updated)");
  }
}
