// How a command ends: what it prints of the last reply, and its exit code.
#pragma once

#include <string>
#include <vector>

#include "telvorctl/options.h"
#include "telvorctl/service_client.h"

namespace telvorctl {

// Complains if the reply is a failed one; its code.
ExitCode Conclude(const Reply& reply);

// As Conclude, with something on the standard output before: under --json the result, whatever it is, else
// the lines, if all went well.
ExitCode Finish(const Options& options, const Reply& reply, const std::vector<std::string>& lines);

}  // namespace telvorctl
