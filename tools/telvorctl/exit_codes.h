// What a run of telvorctl ends with. Scripts rely on these numbers.
#pragma once

namespace telvorctl {

enum ExitCode : int {
  kDone = 0,
  kFailed = 1,         // the service refused, or the operation failed
  kWrongUsage = 2,     // the command line, or what was typed at a prompt
  kNotThere = 3,       // nobody serves the pipe
  kBusy = 4,           // all of the pipe's instances are taken
  kTimedOut = 5,       // what was waited for did not come
  kLoginNeeded = 6,    // the account has no usable session
  kInterrupted = 130,  // Ctrl+C
};

}  // namespace telvorctl
