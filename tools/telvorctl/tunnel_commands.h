// Commands about the tunnel and the service itself.
#pragma once

#include "telvorctl/exit_codes.h"
#include "telvorctl/options.h"

namespace telvorctl {

// GET /ui/status and GetState; with --brief GetState alone, with --json alone GET /ui/status.
ExitCode ShowStatus(const Options& options);

// Redraws the status until Ctrl+C, whether or not the service is there. kDone when nobody reads it any more.
ExitCode WatchStatus(const Options& options);

// Connect, and unless --no-wait a wait for the tunnel: kFailed if the service gives up, kLoginNeeded if it
// cannot go on without a login, kTimedOut if neither happens.
ExitCode Connect(const Options& options);

// Disconnect, and unless --no-wait a wait until the service says so.
ExitCode Disconnect(const Options& options);

// StopService. A service that is gone before it could reply has stopped.
ExitCode StopService(const Options& options);

// A line as it stands, and the reply as it comes.
ExitCode SendRequest(const Options& options);

}  // namespace telvorctl
