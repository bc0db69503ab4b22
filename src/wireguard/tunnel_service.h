// Control of the external tunnel service, "WireGuardTunnel$" and the tunnel's name. All functions take the
// bare tunnel name, close what they open, keep no state, and may run on several threads at once.
#pragma once

#include <cstdint>
#include <string>

#include "service/platform.h"

// True if the service could be opened; an access failure reads as no service.
bool TunnelServiceExists(const std::wstring& name);

bool IsTunnelServiceRunning(const std::wstring& name);

// Polls every 250 milliseconds; looks once more after the time is over.
bool WaitServiceState(platform::Handle service, uint32_t state, uint32_t timeoutMs);

// True if the service is stopped or does not exist.
bool StopTunnelService(const std::wstring& name, uint32_t timeoutMs);

// Stops a running service and starts it anew. True if it is running at the end.
bool RestartTunnelService(const std::wstring& name);

// Stops the service and runs the uninstaller, whether or not there is a service. True if it is gone at the
// end.
bool UninstallTunnelService(const std::wstring& name);

// Stops every other running tunnel service; removes none.
void EnforceSingleTunnel(const std::wstring& keepName);
