// The methods that work with the account itself: session, registration, password. Bodies for gPipeMethods. A
// call that fails in its business is told inside the result, with "ok":false.
#pragma once

#include <string>

#include "ipc/methods.h"

// Starts no connection. The one method that clears gLastError.
bool LoginMethod(const PipeRequest& request, std::string& reply);

// Registers and logs in.
bool RegisterMethod(const PipeRequest& request, std::string& reply);

// The one method that fills both members of the envelope when it fails.
bool IsRegisteredMethod(const PipeRequest& request, std::string& reply);

// The request id goes to the client alone, who hands it back with the code.
bool PasswordResetStartMethod(const PipeRequest& request, std::string& reply);

// Does not log in.
bool PasswordResetConfirmMethod(const PipeRequest& request, std::string& reply);

bool LogoutMethod(const PipeRequest& request, std::string& reply);
