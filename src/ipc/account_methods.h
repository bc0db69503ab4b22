// The methods that work with the account. Bodies for gPipeMethods.
#pragma once

#include <string>

#include "ipc/methods.h"

bool LoginMethod(const PipeRequest& request, std::string& reply);
bool LogoutMethod(const PipeRequest& request, std::string& reply);
