// The simulated network of the machine: adapters, the IPv4 route table, and the resolver.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "splittunnel/platform.h"

namespace sim {

// At boot: one adapter "Ethernet", index 7, and a default route through 192.168.1.1 on it, metric 25.
void AddAdapter(const std::wstring& friendlyName, uint32_t ifIndex);
void RemoveAdapter(const std::wstring& friendlyName);  // with its routes
void ClearAdapters();
bool HasAdapter(const std::wstring& friendlyName);
// Texts are dotted quads; "0.0.0.0" as next hop is on-link.
platform::MibIpForwardRow2 Route(const std::string& prefix, uint8_t length, const std::string& nextHop,
                                 uint32_t ifIndex, uint32_t metric);
void AddRoute(const platform::MibIpForwardRow2& row);  // appended to the table
void ClearRoutes();
const std::vector<platform::MibIpForwardRow2>& Routes();
// "10.0.0.1/32 via 192.168.1.1 if 7 metric 5", one a route, in table order.
std::vector<std::string> RouteTexts();
std::vector<std::string> HostRouteTexts();  // those with prefix length 32
void SetBestRoute(
    const platform::MibIpForwardRow2& row);  // what GetBestRoute2 gives; by default the lowest default route

// Answers of the resolver for a name; none makes the look-up fail with 11001. `milliseconds` it takes.
void SetHost(const std::wstring& name, const std::vector<std::string>& addresses, uint32_t milliseconds = 0);
// Successive look-ups get successive answers; the last one stays.
void SetHostSequence(const std::wstring& name, const std::vector<std::vector<std::string>>& answers);
size_t LookupCount(const std::wstring& name);

}  // namespace sim
