// The methods that ask the control plane about the account's subscription, with the session's token. Bodies
// for gPipeMethods. The service holds none of the answers and makes nothing depend on them.
#pragma once

#include <string>

#include "ipc/methods.h"

bool EntitlementMethod(const PipeRequest& request, std::string& reply);
bool QuotaMethod(const PipeRequest& request, std::string& reply);
bool BillingCheckoutMethod(const PipeRequest& request, std::string& reply);

// Brings routes and permits in line with the policy first, so that a browser reaches the page. The link holds
// the access token.
bool AccountPageUrlMethod(const PipeRequest& request, std::string& reply);
