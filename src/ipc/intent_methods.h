// The methods that change the tunnel's intent. Bodies for gPipeMethods.
#pragma once

#include <string>

#include "ipc/methods.h"

bool ConnectMethod(const PipeRequest& request, std::string& reply);
bool DisconnectMethod(const PipeRequest& request, std::string& reply);
bool StopServiceMethod(const PipeRequest& request, std::string& reply);
// Runs the whole bootstrap on the calling thread, then takes a wanted tunnel down.
bool SelectLocationMethod(const PipeRequest& request, std::string& reply);
