// The read-mostly results of the pipe: state, status, log and locations. The builders give the text that
// stands behind "result": in the reply.
#pragma once

#include <cstdint>
#include <string>

#include "ipc/methods.h"

// No network; while connected one run of wg.exe.
std::string BuildStateJson();

// May refresh the session over the network; while connected one run of wg.exe.
std::string BuildStatusJson();

// The last `limit` (1 to 2000) lines of the log; the empty text if the log cannot be read.
std::string BuildRecentLogsJson(int32_t limit);

// Fetches the catalogue and may change the selection.
std::string BuildLocationsJson();

bool GetStateMethod(const PipeRequest& request, std::string& reply);
bool GetRecentLogsMethod(const PipeRequest& request, std::string& reply);  // 120 lines by default
bool GetStatusMethod(const PipeRequest& request, std::string& reply);
bool GetLogsMethod(const PipeRequest& request, std::string& reply);  // 200 lines by default
bool GetLocationsMethod(const PipeRequest& request, std::string& reply);
