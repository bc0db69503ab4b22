// A stand-in for five functions of iphlpapi.dll that Wine lacks or leaves empty. They act on the kernel's
// routes through the agent; every other export is forwarded to Wine's own library, which stands beside this
// one under the name iphlpapi_wine.dll. IPv4 only.
#include "agent_client.h"

// These come after winsock2.h, which the line above brings, or the route rows are not declared.
#include <ws2tcpip.h>
// clang-format off
#include <iphlpapi.h>
#include <netioapi.h>
// clang-format on

namespace {

constexpr ULONG kNotSet = 0xFFFFFFFF;

// A function of Wine's own library.
template <typename Function>
Function* WineFunction(const char* name) {
  const HMODULE library = GetModuleHandleW(L"iphlpapi_wine.dll");
  return reinterpret_cast<Function*>(
      reinterpret_cast<void*>(GetProcAddress(library ? library : LoadLibraryW(L"iphlpapi_wine.dll"), name)));
}

// The interface that a row names: by its LUID if that is set, else by its index.
NET_IFINDEX InterfaceOf(const NET_LUID& luid, NET_IFINDEX index) {
  static auto* const convert =
      WineFunction<decltype(ConvertInterfaceLuidToIndex)>("ConvertInterfaceLuidToIndex");
  NET_IFINDEX found = 0;
  if (luid.Value == 0) return index;
  return convert(&luid, &found) == NO_ERROR ? found : 0;
}

NET_LUID LuidOf(NET_IFINDEX index) {
  static auto* const convert =
      WineFunction<decltype(ConvertInterfaceIndexToLuid)>("ConvertInterfaceIndexToLuid");
  NET_LUID luid = {};
  convert(index, &luid);
  return luid;
}

std::string TextOf(const IN_ADDR& address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof(text));
  return text;
}

SOCKADDR_INET AddressOf(const std::string& text) {
  SOCKADDR_INET address = {};
  address.Ipv4.sin_family = AF_INET;
  inet_pton(AF_INET, text.c_str(), &address.Ipv4.sin_addr);
  return address;
}

NETIO_STATUS ChangeRoute(const char* operation, const MIB_IPFORWARD_ROW2* row) {
  if (!row || row->DestinationPrefix.Prefix.si_family != AF_INET || row->NextHop.si_family != AF_INET) {
    return ERROR_INVALID_PARAMETER;
  }
  return CodeOf(AskAgentOnce({{"op", operation},
                              {"destination", TextOf(row->DestinationPrefix.Prefix.Ipv4.sin_addr)},
                              {"prefix_length", row->DestinationPrefix.PrefixLength},
                              {"next_hop", TextOf(row->NextHop.Ipv4.sin_addr)},
                              {"interface_index", InterfaceOf(row->InterfaceLuid, row->InterfaceIndex)},
                              {"metric", row->Metric}}));
}

}  // namespace

extern "C" {

VOID NETIOAPI_API_ InitializeIpForwardEntry(PMIB_IPFORWARD_ROW2 row) {
  *row = {};
  row->ValidLifetime = kNotSet;
  row->PreferredLifetime = kNotSet;
  row->Metric = kNotSet;
  row->Protocol = static_cast<NL_ROUTE_PROTOCOL>(MIB_IPPROTO_NETMGMT);
  row->Loopback = TRUE;
  row->AutoconfigureAddress = TRUE;
  row->Publish = TRUE;
  row->Immortal = TRUE;
}

NETIO_STATUS NETIOAPI_API_ CreateIpForwardEntry2(CONST MIB_IPFORWARD_ROW2* row) {
  return ChangeRoute("route_create", row);
}

NETIO_STATUS NETIOAPI_API_ SetIpForwardEntry2(CONST MIB_IPFORWARD_ROW2* row) {
  return ChangeRoute("route_set", row);
}

NETIO_STATUS NETIOAPI_API_ DeleteIpForwardEntry2(CONST MIB_IPFORWARD_ROW2* row) {
  return ChangeRoute("route_delete", row);
}

NETIO_STATUS NETIOAPI_API_ GetBestRoute2(NET_LUID* luid, NET_IFINDEX index, CONST SOCKADDR_INET*,
                                         CONST SOCKADDR_INET* destination, ULONG,
                                         PMIB_IPFORWARD_ROW2 bestRoute, SOCKADDR_INET* bestSource) {
  if (!destination || !bestRoute || !bestSource || destination->si_family != AF_INET) {
    return ERROR_INVALID_PARAMETER;
  }
  const nlohmann::json answer = AskAgentOnce({{"op", "route_best"},
                                              {"destination", TextOf(destination->Ipv4.sin_addr)},
                                              {"interface_index", luid ? InterfaceOf(*luid, index) : index}});
  if (CodeOf(answer) != NO_ERROR) return CodeOf(answer);
  const nlohmann::json& row = answer.at("row");
  InitializeIpForwardEntry(bestRoute);
  bestRoute->InterfaceIndex = row.at("interface_index").get<NET_IFINDEX>();
  bestRoute->InterfaceLuid = LuidOf(bestRoute->InterfaceIndex);
  bestRoute->DestinationPrefix.Prefix = AddressOf(row.at("destination"));
  bestRoute->DestinationPrefix.PrefixLength = row.at("prefix_length").get<UINT8>();
  bestRoute->NextHop = AddressOf(row.at("next_hop"));
  bestRoute->Metric = row.at("metric").get<ULONG>();
  *bestSource = AddressOf(answer.at("source"));
  return NO_ERROR;
}

}  // extern "C"
