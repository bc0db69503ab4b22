// How a server of the catalogue looks to the user interface.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/tunnel_state.h"

// The server object. `online` is worked out from last_seen_at, at most 25 seconds ago, if that can be read.
std::string ServerToJson(const ServerRecord& server);

std::string LocationsToJson(const std::vector<ServerRecord>& servers, const std::string& selectedServerId);

// "YYYY-MM-DDTHH:MM:SS" with an optional fraction and offset, as seconds of Unix time. Ranges are not
// checked.
bool ParseIso8601Utc(const std::string& text, int64_t& unixTime);
