// The command line: which commands there are, what each takes, and the help.
#pragma once

#include <string>
#include <vector>

#include "telvorctl/exit_codes.h"

namespace telvorctl {

// Runs what the arguments (UTF-8, without the program's name) ask for.
ExitCode RunCommandLine(std::vector<std::string> arguments);

}  // namespace telvorctl
