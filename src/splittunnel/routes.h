// Host routes for the addresses that bypass the tunnel, through the physical default gateway. IPv4 only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The first adapter whose friendly name equals `name` without regard to case. True with an index above 0.
bool GetAdapterIfIndexByName(const std::wstring& name, uint32_t& ifIndex);

// The default route with a gateway and the lowest metric, none on the given interface. Sets gDefaultGatewayV4
// and gDefaultIfIndex, as the next one does.
bool FindDefaultRouteExcluding(uint32_t excludedIfIndex);

// The physical default route: all but the tunnel's if the tunnel adapter exists, else the best route
// to 1.1.1.1.
bool GetDefaultGatewayIPv4_WinApi();

// A /32 route through gDefaultGatewayV4; an existing one to the address is moved onto it.
bool AddRouteV4_32(const std::wstring& address, uint32_t ifIndex);
// A missing route is not a failure.
bool DeleteRouteV4_32(const std::wstring& address, uint32_t ifIndex);

// True means that the gateway is known; single routes may have failed and are logged.
bool ApplyBypassRoutes(const std::vector<std::wstring>& addresses);
// Always true.
bool RemoveBypassRoutes(const std::vector<std::wstring>& addresses);
