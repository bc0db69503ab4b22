// The command that collects what support needs.
#pragma once

#include "telvorctl/exit_codes.h"
#include "telvorctl/options.h"

namespace telvorctl {

// A report of the machine and the service, with what looks like a secret taken out, on the standard output or
// in a new file. kDone also while the service is not there; kFailed if the file cannot be made.
ExitCode ReportForSupport(const Options& options);

}  // namespace telvorctl
