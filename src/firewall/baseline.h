// The fail-closed baseline: the permits that are in force while the tunnel is up, and their removal. Every
// step is logged by WfpLogLine. Both may run on several threads at once.
#pragma once

#include <cstdint>
#include <string>

#include "firewall/platform.h"

// Replaces the whole rule set in one transaction. True only when it is committed; otherwise what was in force
// before stays. The address text has no effect on the rule set: the control plane's permits come from a
// look-up of their own.
bool EnableFailClosedBaseline(const std::wstring& controlPlaneIp, uint32_t ifIndex);

// Removes all of the system's objects. True if filters and callouts were all removed.
bool RollbackToOpen();

// One permit for everything through the interface. With an index of 0 nothing is added, false.
bool AddAllowAllOutboundOnIfIndexV4(platform::Handle engine, uint32_t ifIndex);
bool AddAllowAllOutboundOnIfIndexV6(platform::Handle engine, uint32_t ifIndex);
