// The service's answers as lines for people.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "telvorctl/json.h"

namespace telvorctl {

// Counters as they were at some time, to tell how fast they move.
struct TrafficSample {
  uint64_t received = 0;  // bytes
  uint64_t sent = 0;      // bytes
  uint64_t tick = 0;      // milliseconds; 0: there is no sample
};

// Result of GET /ui/status. With a sample of an earlier time and `tick` behind it the lines tell the speed
// too.
std::vector<std::string> StatusLines(const Json& status, const TrafficSample& earlier = {},
                                     uint64_t tick = 0);

// What only the result of GetState tells: the device id and the public key.
std::vector<std::string> DeviceLines(const Json& state);

// Result of GetState in one line: "connected, received 1.2 MiB, sent 3.4 KiB".
std::string BriefState(const Json& state);

// Result of GET /ui/locations as a table, the selected one marked by a star.
std::vector<std::string> LocationLines(const Json& locations);

// Result of GET /ui/entitlement.
std::vector<std::string> EntitlementLines(const Json& entitlement);

// Whether the result of GetState says that the tunnel is up.
bool IsTunnelUp(const Json& state);

// The server that is chosen, from the result of GET /ui/status: as ServerText, or its id alone if it is not
// in the catalogue. Empty if none is. The tunnel need not lead there.
std::string ChosenServerText(const Json& status);

// A server object in short: "Paris, FR (fr-par-1)", as far as its parts are there.
std::string ServerText(const Json& server);

}  // namespace telvorctl
