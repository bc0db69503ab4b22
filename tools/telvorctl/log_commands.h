// The command that shows the service's log.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "telvorctl/exit_codes.h"
#include "telvorctl/options.h"

namespace telvorctl {

// GET /ui/logs, or GetRecentLogs with --recent. With --follow it goes on with what is added, also beyond
// restarts of the service, until Ctrl+C; kDone when nobody reads it any more.
ExitCode ShowLogs(const Options& options);

// Where in `later` the lines begin that `earlier` does not have yet, both being ends of one growing log. 0 if
// they have nothing in common.
size_t FirstNewLine(const std::vector<std::string>& earlier, const std::vector<std::string>& later);

}  // namespace telvorctl
