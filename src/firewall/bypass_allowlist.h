// Permits for the addresses that bypass the tunnel. A filter's name is its family's prefix and the address;
// the name is the only memory of what was added.
#pragma once

#include <string>
#include <vector>

#include "firewall/platform.h"
#include "firewall/remote_permit.h"

// Replaces the split-bypass permits by the list and adds the control plane's, in one transaction. True when
// it was committed. An entry that is no address cuts the list short. Logs its steps.
bool UpdateSplitTunnelBypassAllowlistV4(const std::vector<std::wstring>& addresses);

// Deletes the system's filters whose name begins with the prefix. Logs failures.
bool DeleteFiltersByNamePrefix(platform::Handle engine, const std::wstring& namePrefix);
