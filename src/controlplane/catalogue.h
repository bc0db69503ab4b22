// The catalogue of VPN servers and the selection among them. Nothing of it is written to disk.
#pragma once

#include <string>
#include <vector>

#include "engine/tunnel_state.h"

// GET /v1/servers/locations with the cached token. On false `servers` is empty. Records without an id are
// dropped.
bool CpGetServerLocations(const std::wstring& baseUrl, std::vector<ServerRecord>& servers);

// Tells the control plane the device's server, by three request shapes in turn. True with the first 2xx.
bool CpSelectServer(const std::wstring& baseUrl, const std::wstring& token, const std::wstring& deviceId,
                    const std::string& serverId);

// Takes over the server that a tunnel profile assigns, unless the user has selected another.
void ApplyAssignedServerFromProfile(const std::string& profileBody);
