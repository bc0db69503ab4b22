// The policy turned into addresses, and routes and permits brought in line with them while the tunnel is up.
#pragma once

#include <string>
#include <vector>

// IPv4 addresses of the name, sorted, without duplicates; empty on failure.
std::vector<std::wstring> ResolveDomainIPv4(const std::wstring& domain);

// Replaces gBypassIpsEffective by what the policy says now.
void RecomputeBypassIps();

// Routes first, then the permits; logs its steps and gives no result.
void RefreshSplitTunnelRoutes();
