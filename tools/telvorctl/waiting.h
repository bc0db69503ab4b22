// Waiting for a state of the tunnel, with something to look at meanwhile.
#pragma once

#include <cstdint>

#include "telvorctl/service_client.h"

namespace telvorctl {

// Polls GetState until the tunnel is up; `before` is the reply of GetState before the service was asked to
// connect. The last reply, with its code: kFailed if the service has given up, kLoginNeeded if it cannot go
// on without a login, kTimedOut after so many seconds. Hints at what may be the matter when it takes long.
Reply WaitUntilConnected(const Reply& before, uint32_t timeoutSeconds);

// Polls GetState until the tunnel is down; `before` is the reply of GetState before the service was asked to
// disconnect. An attempt of then may outlive that for a moment, so the tunnel must stay down for a while. The
// last reply; kTimedOut after so many seconds.
Reply WaitUntilDisconnected(const Reply& before, uint32_t timeoutSeconds);

// Waits until nobody serves the pipe any more. kDone, or the code of what came instead.
Reply WaitUntilStopped();

}  // namespace telvorctl
