#include "splittunnel/routes.h"

#include <optional>

#include "engine/tunnel_state.h"
#include "service/log.h"
#include "service/scope_guard.h"
#include "service/wide_text.h"
#include "splittunnel/platform.h"

namespace {

constexpr uint16_t kFamily = platform::kAfInet;
constexpr uint8_t kHostPrefixLength = 32;
constexpr uint32_t kHostRouteMetric = 5;
constexpr uint32_t kAddressTextCapacity = 64;

// Callers give texts that end in "failed", and the log adds its own: the doubled word is wanted.
bool LogFailure(const wchar_t* what, uint32_t code) {
  LogWin32Error(what, code);
  return false;
}

bool IsGatewayKnown() {
  return !gDefaultGatewayV4.empty() && gDefaultIfIndex != 0;
}

bool ReadAddress(const std::wstring& text, platform::SockaddrInet& address) {
  address.family = kFamily;
  return platform::InetPtonW(platform::kAfInet, text, address.v4Address) == 1;
}

bool StoreGateway(const platform::SockaddrInet& nextHop) {
  std::wstring text;
  if (!platform::InetNtopW(platform::kAfInet, nextHop.v4Address, kAddressTextCapacity, text)) {
    return LogFailure(L"InetNtopW failed", platform::GetLastError());
  }
  gDefaultGatewayV4 = text;
  return true;
}

bool IsDefaultRouteWithGateway(const platform::MibIpForwardRow2& row) {
  return row.destinationPrefix == platform::SockaddrInet{kFamily, 0} && row.destinationPrefixLength == 0 &&
         row.nextHop.family == kFamily && row.nextHop.v4Address != 0;
}

bool IsHostRouteTo(const platform::MibIpForwardRow2& row, const platform::SockaddrInet& address) {
  return row.destinationPrefixLength == kHostPrefixLength && row.destinationPrefix == address;
}

// Of equal metrics the first in the table wins; a metric of 0xFFFFFFFF never does. The interface's own metric
// is not added.
std::optional<platform::MibIpForwardRow2> LowestDefaultRoute(const platform::MibIpForwardTable2& table,
                                                             uint32_t excludedIfIndex) {
  std::optional<platform::MibIpForwardRow2> best;
  uint32_t bestMetric = 0xFFFFFFFF;
  for (const platform::MibIpForwardRow2& row : table.rows) {
    if (row.interfaceIndex == 0 || row.interfaceIndex == excludedIfIndex) continue;
    if (!IsDefaultRouteWithGateway(row) || row.metric >= bestMetric) continue;
    best = row;
    bestMetric = row.metric;
  }
  return best;
}

// Excludes nothing: with the tunnel up this may be the tunnel's own route, and an on-link route gives the
// gateway "0.0.0.0". Both are wanted.
bool UseBestRouteToInternet() {
  platform::SockaddrInet destination;
  if (!ReadAddress(L"1.1.1.1", destination)) {
    LogLine(L"GetDefaultGatewayIPv4_WinApi: InetPtonW failed for 1.1.1.1");
    return false;
  }
  platform::MibIpForwardRow2 best;
  const uint32_t code = platform::GetBestRoute2(0, destination, 0, best);
  if (code != platform::kErrorSuccess) return LogFailure(L"GetBestRoute2 failed", code);
  gDefaultIfIndex = best.interfaceIndex;
  if (best.nextHop.family != kFamily) {
    LogLine(L"GetDefaultGatewayIPv4_WinApi: best.NextHop is not AF_INET");
    return false;
  }
  if (!StoreGateway(best.nextHop)) return false;
  LogLine(L"GetDefaultGatewayIPv4_WinApi: gw=" + gDefaultGatewayV4 + L" ifIndex=" +
          std::to_wstring(gDefaultIfIndex) + L" (fallback)");
  return IsGatewayKnown();
}

void PointAtGateway(platform::MibIpForwardRow2& row, uint32_t ifIndex,
                    const platform::SockaddrInet& gateway) {
  row.interfaceIndex = ifIndex;
  row.nextHop = gateway;
  row.protocol = platform::kMibIpProtoNetMgmt;
  row.origin = platform::kNlroManual;
  row.metric = kHostRouteMetric;
}

// Every /32 to the address, whatever its interface and next hop. `updated` tells whether there was one.
bool MoveHostRoutes(const platform::SockaddrInet& address, uint32_t ifIndex,
                    const platform::SockaddrInet& gateway, bool& updated) {
  updated = false;
  platform::MibIpForwardTable2 table;
  const uint32_t code = platform::GetIpForwardTable2(kFamily, table);
  if (code != platform::kErrorSuccess) {
    return LogFailure(L"AddRouteV4_32: GetIpForwardTable2 failed", code);
  }
  const ScopeGuard freeTable([&table] { platform::FreeMibTable(table); });
  for (const platform::MibIpForwardRow2& existing : table.rows) {
    if (!IsHostRouteTo(existing, address)) continue;
    platform::MibIpForwardRow2 row = existing;
    PointAtGateway(row, ifIndex, gateway);
    const uint32_t setCode = platform::SetIpForwardEntry2(row);
    if (setCode == platform::kErrorSuccess) {
      updated = true;
    } else {
      LogFailure(L"AddRouteV4_32: SetIpForwardEntry2 failed", setCode);
    }
  }
  return true;
}

void LogAddFailure(const std::wstring& entry, const std::wstring& clean) {
  LogLine(L"SplitTunnelV1: add route failed for raw=[" + entry + L"] clean=[" + clean + L"]");
}

}  // namespace

bool GetAdapterIfIndexByName(const std::wstring& name, uint32_t& ifIndex) {
  ifIndex = 0;
  uint32_t size = 0;
  const uint32_t sizeCode =
      platform::GetAdaptersAddresses(kFamily, platform::kGaaSkipAllButUnicast, size, nullptr);
  if (sizeCode != platform::kErrorBufferOverflow || size == 0) return false;
  std::vector<platform::AdapterAddresses> adapters;
  if (platform::GetAdaptersAddresses(kFamily, platform::kGaaSkipAllButUnicast, size, &adapters) !=
      platform::kErrorSuccess) {
    return false;
  }
  for (const platform::AdapterAddresses& adapter : adapters) {
    if (!EqualsIgnoringCase(adapter.friendlyName, name)) continue;
    ifIndex = adapter.ifIndex;
    return ifIndex != 0;
  }
  return false;
}

bool FindDefaultRouteExcluding(uint32_t excludedIfIndex) {
  gDefaultGatewayV4.clear();
  gDefaultIfIndex = 0;
  platform::MibIpForwardTable2 table;
  const uint32_t code = platform::GetIpForwardTable2(kFamily, table);
  if (code != platform::kErrorSuccess) return LogFailure(L"GetIpForwardTable2 failed", code);
  const std::optional<platform::MibIpForwardRow2> best = LowestDefaultRoute(table, excludedIfIndex);
  platform::FreeMibTable(table);
  if (!best || !StoreGateway(best->nextHop)) return false;
  gDefaultIfIndex = best->interfaceIndex;
  return !gDefaultGatewayV4.empty();
}

bool GetDefaultGatewayIPv4_WinApi() {
  gDefaultGatewayV4.clear();
  gDefaultIfIndex = 0;
  uint32_t tunnelIfIndex = 0;
  if (GetAdapterIfIndexByName(kTunnelName, tunnelIfIndex)) {
    const std::wstring tunnelIndexText = std::to_wstring(tunnelIfIndex);
    if (FindDefaultRouteExcluding(tunnelIfIndex)) {
      LogLine(L"GetDefaultGatewayIPv4_WinApi: LAN gw=" + gDefaultGatewayV4 + L" ifIndex=" +
              std::to_wstring(gDefaultIfIndex) + L" (excluded wg ifIndex=" + tunnelIndexText + L")");
      return true;
    }
    LogLine(L"GetDefaultGatewayIPv4_WinApi: failed excluding wg ifIndex=" + tunnelIndexText +
            L"; falling back to GetBestRoute2");
  }
  return UseBestRouteToInternet();
}

bool AddRouteV4_32(const std::wstring& address, uint32_t ifIndex) {
  platform::SockaddrInet destination;
  if (!ReadAddress(address, destination)) {
    LogLine(L"AddRouteV4_32: invalid ip=" + address);
    return false;
  }
  platform::SockaddrInet gateway;
  if (!ReadAddress(gDefaultGatewayV4, gateway)) {
    LogLine(L"AddRouteV4_32: invalid gw=" + gDefaultGatewayV4);
    return false;
  }
  platform::MibIpForwardRow2 row;
  platform::InitializeIpForwardEntry(row);
  row.destinationPrefix = destination;
  row.destinationPrefixLength = kHostPrefixLength;
  PointAtGateway(row, ifIndex, gateway);
  const uint32_t code = platform::CreateIpForwardEntry2(row);
  if (code != platform::kErrorObjectAlreadyExists) return code == platform::kErrorSuccess;

  bool updated = false;
  if (!MoveHostRoutes(destination, ifIndex, gateway, updated)) return false;
  if (updated) return true;
  LogLine(L"AddRouteV4_32: existed but no matching row updated for ip=" + address + L" gw=" +
          gDefaultGatewayV4 + L" ifIndex=" + std::to_wstring(ifIndex));
  return false;
}

bool DeleteRouteV4_32(const std::wstring& address, uint32_t ifIndex) {
  platform::MibIpForwardTable2 table;
  const uint32_t tableCode = platform::GetIpForwardTable2(kFamily, table);
  if (tableCode != platform::kErrorSuccess) return LogFailure(L"GetIpForwardTable2 failed", tableCode);
  const ScopeGuard freeTable([&table] { platform::FreeMibTable(table); });
  platform::SockaddrInet destination;
  platform::SockaddrInet gateway;
  if (!ReadAddress(address, destination) || !ReadAddress(gDefaultGatewayV4, gateway)) return false;
  bool result = true;
  for (const platform::MibIpForwardRow2& row : table.rows) {
    if (row.interfaceIndex != ifIndex || !IsHostRouteTo(row, destination) || row.nextHop != gateway) continue;
    const uint32_t code = platform::DeleteIpForwardEntry2(row);
    if (code != platform::kErrorSuccess && code != platform::kErrorNotFound) {
      result = LogFailure(L"DeleteIpForwardEntry2 failed", code);
    }
  }
  return result;
}

bool ApplyBypassRoutes(const std::vector<std::wstring>& addresses) {
  if (addresses.empty()) return true;
  // Wanted: once found the gateway is kept for the life of the process, also through a change of network.
  if (!IsGatewayKnown() && !GetDefaultGatewayIPv4_WinApi()) {
    LogLine(L"SplitTunnelV1: failed to determine default gateway (WinAPI)");
    return false;
  }
  if (!IsGatewayKnown()) return false;
  for (const std::wstring& entry : addresses) {
    const std::wstring clean = CleanBypassAddress(entry);
    if (IsNoAddress(clean) || AddRouteV4_32(clean, gDefaultIfIndex)) continue;
    LogAddFailure(entry, clean);
  }
  return true;
}

bool RemoveBypassRoutes(const std::vector<std::wstring>& addresses) {
  if (addresses.empty() || !IsGatewayKnown()) return true;
  for (const std::wstring& entry : addresses) {
    const std::wstring clean = CleanBypassAddress(entry);
    if (!IsNoAddress(clean)) DeleteRouteV4_32(clean, gDefaultIfIndex);
  }
  return true;
}
