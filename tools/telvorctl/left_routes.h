// Which of the machine's routes the service has made: by their look, and by what its log tells.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "telvorctl/machine.h"

namespace telvorctl {

// Addresses in the order of their bytes on the wire, and the line of the log that is not yet whole.
struct LoggedAddresses {
  std::set<uint32_t> addresses;
  std::string rest;
};

// Takes the next piece of the log, parted from the others anywhere.
void TakeLogPiece(std::string_view piece, LoggedAddresses& logged);

// Those of the routes that the service has made. A route through a gateway to a single address with the
// service's metric may be an administrator's too: only the log tells whether its address bypasses the tunnel.
std::vector<platform::Route> RoutesOfService(const std::vector<platform::Route>& routes,
                                             const LoggedAddresses& logged);

}  // namespace telvorctl
