// The command that shows and removes the routes that the service has left.
#pragma once

#include "telvorctl/exit_codes.h"
#include "telvorctl/options.h"

namespace telvorctl {

// With --remove removes them too. kFailed while the tunnel is up or coming up, without the log, and if one
// cannot be removed. kDone while the service is not there.
ExitCode ShowLeftRoutes(const Options& options);

}  // namespace telvorctl
