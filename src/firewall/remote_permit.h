// The permit for one remote IPv4 address, of either family: the addresses that bypass the tunnel, and those
// of the control plane.
#pragma once

#include <string>

#include "firewall/platform.h"

inline constexpr wchar_t kSplitBypassPrefix[] = L"TELVOR:ALLOW split-bypass v4:";
inline constexpr wchar_t kControlPlanePinPrefix[] = L"TELVOR:ALLOW cp-pinned v4:";

// A TCP and a UDP permit for the address, cut at a '/' and trimmed, named with the prefix and the address.
// False, without a line, if it is no address; a failed add is logged, and a TCP permit added before it stays.
bool AddAllowRemoteIpV4(platform::Handle engine, const std::wstring& address, const wchar_t* namePrefix);
