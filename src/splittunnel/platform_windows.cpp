// The Windows side of splittunnel/platform.h.
#include "splittunnel/platform.h"

#include <memory>

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>
// clang-format on

namespace platform {

static_assert(kErrorBufferOverflow == ERROR_BUFFER_OVERFLOW && kErrorNotFound == ERROR_NOT_FOUND);
static_assert(kErrorObjectAlreadyExists == ERROR_OBJECT_ALREADY_EXISTS);
static_assert(static_cast<int>(kMibIpProtoNetMgmt) == MIB_IPPROTO_NETMGMT);
static_assert(static_cast<int>(kNlroManual) == NlroManual);
static_assert(kGaaSkipAllButUnicast ==
              (GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER));
static_assert(sizeof(MIB_IPFORWARD_ROW2) == 104);

uint32_t GetAdaptersAddresses(uint32_t family, uint32_t flags, uint32_t& size,
                              std::vector<AdapterAddresses>* adapters) {
  std::unique_ptr<BYTE[]> buffer(adapters == nullptr ? nullptr : new BYTE[size]);
  auto* first = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.get());
  ULONG bytes = size;
  uint32_t code = ::GetAdaptersAddresses(family, flags, nullptr, first, &bytes);
  size = bytes;
  if (code != NO_ERROR || adapters == nullptr) return code;
  adapters->clear();
  for (const IP_ADAPTER_ADDRESSES* adapter = first; adapter != nullptr; adapter = adapter->Next) {
    adapters->push_back({adapter->FriendlyName ? adapter->FriendlyName : L"", adapter->IfIndex});
  }
  return code;
}

namespace {

SOCKADDR_INET ToWindows(const SockaddrInet& address) {
  SOCKADDR_INET native{};
  native.si_family = address.family;
  native.Ipv4.sin_addr.s_addr = address.v4Address;
  return native;
}

SockaddrInet FromWindows(const SOCKADDR_INET& native) {
  return {native.si_family, native.Ipv4.sin_addr.s_addr};
}

MIB_IPFORWARD_ROW2 ToWindows(const MibIpForwardRow2& row) {
  MIB_IPFORWARD_ROW2 native{};
  native.InterfaceLuid.Value = row.interfaceLuid;
  native.InterfaceIndex = row.interfaceIndex;
  native.DestinationPrefix.Prefix = ToWindows(row.destinationPrefix);
  native.DestinationPrefix.PrefixLength = row.destinationPrefixLength;
  native.NextHop = ToWindows(row.nextHop);
  native.SitePrefixLength = row.sitePrefixLength;
  native.ValidLifetime = row.validLifetime;
  native.PreferredLifetime = row.preferredLifetime;
  native.Metric = row.metric;
  native.Protocol = static_cast<NL_ROUTE_PROTOCOL>(row.protocol);
  native.Loopback = row.loopback;
  native.AutoconfigureAddress = row.autoconfigureAddress;
  native.Publish = row.publish;
  native.Immortal = row.immortal;
  native.Age = row.age;
  native.Origin = static_cast<NL_ROUTE_ORIGIN>(row.origin);
  return native;
}

MibIpForwardRow2 FromWindows(const MIB_IPFORWARD_ROW2& native) {
  MibIpForwardRow2 row;
  row.interfaceLuid = native.InterfaceLuid.Value;
  row.interfaceIndex = native.InterfaceIndex;
  row.destinationPrefix = FromWindows(native.DestinationPrefix.Prefix);
  row.destinationPrefixLength = native.DestinationPrefix.PrefixLength;
  row.nextHop = FromWindows(native.NextHop);
  row.sitePrefixLength = native.SitePrefixLength;
  row.validLifetime = native.ValidLifetime;
  row.preferredLifetime = native.PreferredLifetime;
  row.metric = native.Metric;
  row.protocol = static_cast<uint32_t>(native.Protocol);
  row.loopback = native.Loopback != 0;
  row.autoconfigureAddress = native.AutoconfigureAddress != 0;
  row.publish = native.Publish != 0;
  row.immortal = native.Immortal != 0;
  row.age = native.Age;
  row.origin = static_cast<uint32_t>(native.Origin);
  return row;
}

}  // namespace

uint32_t GetIpForwardTable2(uint16_t family, MibIpForwardTable2& table) {
  MIB_IPFORWARD_TABLE2* native = nullptr;
  uint32_t code = ::GetIpForwardTable2(family, &native);
  table.memory = native;
  table.rows.clear();
  if (code != NO_ERROR) return code;
  table.rows.reserve(native->NumEntries);
  for (ULONG i = 0; i < native->NumEntries; ++i) table.rows.push_back(FromWindows(native->Table[i]));
  return code;
}

void FreeMibTable(MibIpForwardTable2& table) {
  ::FreeMibTable(table.memory);
  table.memory = nullptr;
}

uint32_t GetBestRoute2(uint32_t interfaceIndex, const SockaddrInet& destination, uint32_t sortOptions,
                       MibIpForwardRow2& bestRoute) {
  SOCKADDR_INET address = ToWindows(destination);
  SOCKADDR_INET bestSource{};
  MIB_IPFORWARD_ROW2 native{};
  uint32_t code =
      ::GetBestRoute2(nullptr, interfaceIndex, nullptr, &address, sortOptions, &native, &bestSource);
  bestRoute = FromWindows(native);
  return code;
}

void InitializeIpForwardEntry(MibIpForwardRow2& row) {
  MIB_IPFORWARD_ROW2 native{};
  ::InitializeIpForwardEntry(&native);
  row = FromWindows(native);
}

uint32_t CreateIpForwardEntry2(const MibIpForwardRow2& row) {
  MIB_IPFORWARD_ROW2 native = ToWindows(row);
  return ::CreateIpForwardEntry2(&native);
}

uint32_t SetIpForwardEntry2(const MibIpForwardRow2& row) {
  MIB_IPFORWARD_ROW2 native = ToWindows(row);
  return ::SetIpForwardEntry2(&native);
}

uint32_t DeleteIpForwardEntry2(const MibIpForwardRow2& row) {
  MIB_IPFORWARD_ROW2 native = ToWindows(row);
  return ::DeleteIpForwardEntry2(&native);
}

uint32_t GetModuleFileNameW(wchar_t* buffer, uint32_t size) {
  return ::GetModuleFileNameW(nullptr, buffer, size);
}

}  // namespace platform
