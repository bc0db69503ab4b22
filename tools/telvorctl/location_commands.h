// Commands about the servers to choose from.
#pragma once

#include "telvorctl/exit_codes.h"
#include "telvorctl/options.h"

namespace telvorctl {

// GET /ui/locations as a table. kLoginNeeded without a session.
ExitCode ShowLocations(const Options& options);

// POST /ui/select-location, for a server's id, or for a city or a name that only one server has. Warns of one
// that is offline, and selects it all the same.
ExitCode SelectLocation(const Options& options);

}  // namespace telvorctl
