// The one function that gives meaning to a line from the pipe.
#pragma once

#include <string>

// `line` and `reply` are without line end. Lets no standard exception out: one becomes a reply. False for a
// missing or unknown method, a missing server_id and a StopService that failed; the pipe server does not look
// at it.
bool HandleIpcRequest(const std::string& line, std::string& reply);
