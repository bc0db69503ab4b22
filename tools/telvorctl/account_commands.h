// Commands about the account and the subscription. Passwords and codes are asked for without showing them, or
// read from the standard input, and never written anywhere.
#pragma once

#include "telvorctl/exit_codes.h"
#include "telvorctl/options.h"

namespace telvorctl {

ExitCode LogIn(const Options& options);
ExitCode Register(const Options& options);
ExitCode IsRegistered(const Options& options);
ExitCode LogOut(const Options& options);

// Both steps in turn, for a person at a terminal.
ExitCode ResetPassword(const Options& options);
// One step each, for scripts. The second takes the code and the new password.
ExitCode StartReset(const Options& options);
ExitCode ConfirmReset(const Options& options);

// These need a session: kLoginNeeded without one.
ExitCode ShowEntitlement(const Options& options);
ExitCode ShowQuota(const Options& options);
ExitCode ShowCheckoutLink(const Options& options);
// The link opens the account without a password; a warning about that goes to the standard error.
ExitCode ShowAccountPageLink(const Options& options);

}  // namespace telvorctl
