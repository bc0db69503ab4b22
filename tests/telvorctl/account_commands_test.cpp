// login, register, registered, reset and its two steps, logout, entitlement, quota, checkout, account-page.
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::platform::kErrorFileNotFound;
using telvorctl::platform::kErrorOperationAborted;

const std::string kSecret = "correct horse";
const std::string kOldCode = "471100";
const std::string kLogin = R"({"jsonrpc":"2.0","id":1,"method":"POST /ui/login","params":{"email":"ada@x",)"
                           R"("password":"correct horse"}})";
const std::string kRegister =
    R"({"jsonrpc":"2.0","id":1,"method":"POST /ui/register","params":{"email":"ada@x",)"
    R"("password":"correct horse"}})";
const std::string kIsRegistered =
    R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/is-registered","params":{"email":"ada@x"}})";
const std::string kResetStart =
    R"({"jsonrpc":"2.0","id":1,"method":"POST /ui/password-reset/start","params":{"email":"ada@x"}})";
const std::string kResetConfirm =
    R"({"jsonrpc":"2.0","id":1,"method":"POST /ui/password-reset/confirm","params":{"email":"ada@x",)"
    R"("request_id":"r-7","code":"471100","new_password":"correct horse"}})";
const std::string kLogout = R"({"jsonrpc":"2.0","id":1,"method":"POST /ui/logout"})";
const std::string kQuota = R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/quota"})";
const std::string kCheckout = R"({"jsonrpc":"2.0","id":1,"method":"POST /ui/billing/checkout"})";
const std::string kAccountPage = R"({"jsonrpc":"2.0","id":1,"method":"GET /ui/account-page-url"})";

const std::string kLoggedIn = R"({"ok":true,"auth_state":"AUTH_OK","message":"registered"})";
const std::string kLoggedOut = R"({"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"})";
const std::string kResetStarted =
    R"({"ok":true,"request_id":"r-7","masked_email":"a**@x","expires_in_seconds":900,"message":"ok"})";

// No test of this file may find a secret in what was written.
class AccountCommands : public Telvorctl {
 protected:
  void TearDown() override {
    for (const std::string& secret : {kSecret, kOldCode}) {
      EXPECT_EQ(gScript.output.find(secret), std::string::npos) << gScript.output;
      EXPECT_EQ(gScript.errors.find(secret), std::string::npos) << gScript.errors;
    }
    Telvorctl::TearDown();
  }

  static void Type(std::deque<std::string> lines) {
    gScript.inputIsTerminal = true;
    gScript.typed = std::move(lines);
  }
};

TEST_F(AccountCommands, LoginAsksForThePassword) {
  Type({kSecret});
  Result(kLogin, kLoggedIn);
  EXPECT_EQ(Run({"login", "ada@x"}), 0);
  EXPECT_EQ(gScript.errors, "Password: \n");
  EXPECT_EQ(gScript.output, "Logged in as ada@x.\n");
}

TEST_F(AccountCommands, LoginTakesThePasswordFromTheInput) {
  gScript.input = {kSecret + "\r", "not read"};
  Result(kLogin, kLoggedIn);
  EXPECT_EQ(Run({"login", "ada@x", "--password-stdin", "--json"}), 0);
  EXPECT_EQ(gScript.output, kLoggedIn + "\n");
  EXPECT_EQ(gScript.errors, "");
  EXPECT_EQ(gScript.input.size(), 1u);
}

TEST_F(AccountCommands, LoginIsRefused) {
  Type({kSecret});
  Result(kLogin, R"({"ok":false,"message":"login non-2xx: 401"})");
  EXPECT_EQ(Run({"login", "ada@x"}), 1);
  EXPECT_EQ(gScript.errors,
            "Password: \ntelvorctl: login non-2xx: 401 (the email or the password is wrong)\n");
  EXPECT_EQ(gScript.output, "");
}

TEST_F(AccountCommands, AFailureForScriptsHasItsResultToo) {
  gScript.input = {kSecret};
  const std::string result = R"({"ok":false,"auth_state":"AUTH_REQUIRED","message":"save session failed"})";
  Result(kLogin, result);
  EXPECT_EQ(Run({"login", "ada@x", "--password-stdin", "--json"}), 1);
  EXPECT_EQ(gScript.output, result + "\n");
  EXPECT_EQ(gScript.errors, "telvorctl: save session failed\n");
}

TEST_F(AccountCommands, APromptWithoutATerminalIsAWrongUsage) {
  gScript.input = {kSecret};
  EXPECT_EQ(Run({"login", "ada@x"}), 2);
  EXPECT_EQ(gScript.errors,
            "telvorctl: there is no terminal to ask at; in a script hand it over with --password-stdin\n");
}

TEST_F(AccountCommands, APromptIsInterrupted) {
  Type({});
  EXPECT_EQ(Run({"login", "ada@x"}), 130);
  EXPECT_EQ(gScript.errors, "Password: \n");
}

TEST_F(AccountCommands, AnAnswerMustBeOne) {
  Type({""});
  EXPECT_EQ(Run({"login", "ada@x"}), 2);
  EXPECT_EQ(gScript.errors, "Password: \ntelvorctl: no password was given\n");
  gScript.errors.clear();
  EXPECT_EQ(Run({"login", "ada@x", "--password-stdin"}), 2);
  EXPECT_EQ(gScript.errors, "telvorctl: no password was given\n");
  gScript.errors.clear();
  gScript.input = {"caf\xE9"};
  EXPECT_EQ(Run({"login", "ada@x", "--password-stdin"}), 2);
  EXPECT_EQ(gScript.errors, "telvorctl: what was read is not UTF-8\n");
}

TEST_F(AccountCommands, AnAnswerThatIsMissingIsCalledByItsName) {
  Type({""});
  EXPECT_EQ(Run({"reset-confirm", "ada@x", "--request-id", "r-7"}), 2);
  EXPECT_EQ(gScript.errors, "Code: \ntelvorctl: no code was given\n");
  gScript.errors.clear();
  gScript.input = {kOldCode};
  EXPECT_EQ(Run({"reset-confirm", "ada@x", "--request-id", "r-7", "--password-stdin"}), 2);
  EXPECT_EQ(gScript.errors, "telvorctl: no new password was given\n");
  gScript.errors.clear();
  Type({kOldCode, kSecret, ""});
  EXPECT_EQ(Run({"reset-confirm", "ada@x", "--request-id", "r-7"}), 2);
  EXPECT_EQ(gScript.errors,
            "Code: \nNew password: \nNew password again: \ntelvorctl: no new password was given\n");
}

TEST_F(AccountCommands, RegisterAsksTwice) {
  Type({kSecret, kSecret});
  Result(kRegister, kLoggedIn);
  EXPECT_EQ(Run({"register", "ada@x"}), 0);
  EXPECT_EQ(gScript.errors, "Password: \nPassword again: \n");
  EXPECT_EQ(gScript.output, "ada@x is registered and logged in.\n");
}

TEST_F(AccountCommands, RegisterRefusesTwoPasswordsThatDiffer) {
  Type({kSecret, "correct house"});
  EXPECT_EQ(Run({"register", "ada@x"}), 2);
  EXPECT_EQ(gScript.errors, "Password: \nPassword again: \ntelvorctl: the two passwords differ\n");
}

TEST_F(AccountCommands, RegisterTakesThePasswordOnceFromTheInput) {
  gScript.input = {kSecret};
  Result(kRegister, R"({"ok":false,"message":"User already exists. Please log in or reset your password."})");
  EXPECT_EQ(Run({"register", "ada@x", "--password-stdin"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: User already exists. Please log in or reset your password.\n");
}

TEST_F(AccountCommands, RegisteredSaysYesOrNo) {
  Result(kIsRegistered, R"({"email":"ada@x","registered":true})");
  EXPECT_EQ(Run({"registered", "ada@x"}), 0);
  Result(kIsRegistered, R"({"email":"ada@x","registered":false})");
  EXPECT_EQ(Run({"registered", "ada@x"}), 0);
  EXPECT_EQ(gScript.output, "ada@x is registered.\nada@x is not registered.\n");
}

// Both members of the reply are filled then: "not registered" would be a lie.
TEST_F(AccountCommands, RegisteredFails) {
  Raw(kIsRegistered, R"({"jsonrpc":"2.0","id":1,"result":{"registered":false},)"
                     R"("error":{"message":"is-registered transport failure"}})"
                     "\n");
  EXPECT_EQ(Run({"registered", "ada@x", "--json"}), 1);
  EXPECT_EQ(gScript.output, "");
  EXPECT_EQ(
      gScript.errors,
      "telvorctl: is-registered transport failure (the control plane cannot be reached, or it refused)\n");
}

TEST_F(AccountCommands, ResetGoesThroughBothSteps) {
  Type({kOldCode, kSecret, kSecret});
  Result(kResetStart, kResetStarted);
  Result(kResetConfirm, R"({"ok":true,"message":"password reset complete"})");
  EXPECT_EQ(Run({"reset", "ada@x"}), 0);
  EXPECT_EQ(gScript.output,
            "A code was sent to a**@x; it is valid for 15 minutes.\n"
            "The password was changed. Log in with the new one: telvorctl login\n");
  EXPECT_EQ(gScript.errors, "Code: \nNew password: \nNew password again: \n");
}

TEST_F(AccountCommands, ResetForScriptsShowsTheLastResultAlone) {
  Type({kOldCode, kSecret, kSecret});
  Result(kResetStart, kResetStarted);
  Result(kResetConfirm, R"({"ok":false,"message":"code expired"})");
  EXPECT_EQ(Run({"reset", "ada@x", "--json"}), 1);
  EXPECT_EQ(gScript.output, "{\"ok\":false,\"message\":\"code expired\"}\n");
}

TEST_F(AccountCommands, ResetStartsNothingWithoutATerminal) {
  EXPECT_EQ(Run({"reset", "ada@x"}), 2);
  EXPECT_EQ(gScript.errors,
            "telvorctl: reset asks at a terminal; in a script use reset-start and reset-confirm\n");
}

TEST_F(AccountCommands, ResetAsksNothingWhenItsStartFails) {
  Type({kOldCode});
  Result(
      kResetStart,
      R"({"ok":false,"request_id":null,"masked_email":null,"expires_in_seconds":0,"message":"slow down"})");
  EXPECT_EQ(Run({"reset", "ada@x"}), 1);
  EXPECT_EQ(gScript.errors, "telvorctl: slow down\n");
  EXPECT_EQ(gScript.output, "");
}

TEST_F(AccountCommands, ResetIsInterruptedAtThePromptForTheCode) {
  Type({});
  Result(kResetStart, kResetStarted);
  EXPECT_EQ(Run({"reset", "ada@x"}), 130);
}

TEST_F(AccountCommands, TheStepsOfAResetForScripts) {
  Result(kResetStart, kResetStarted);
  EXPECT_EQ(Run({"reset-start", "ada@x"}), 0);
  EXPECT_EQ(gScript.output,
            "A code was sent to a**@x; it is valid for 15 minutes.\n"
            "Go on with: telvorctl reset-confirm ada@x --request-id r-7\n");
  gScript.output.clear();
  Result(kResetStart, kResetStarted);
  EXPECT_EQ(Run({"reset-start", "ada@x", "--json"}), 0);
  EXPECT_EQ(gScript.output, kResetStarted + "\n");
  gScript.output.clear();
  gScript.input = {kOldCode, kSecret};
  Result(kResetConfirm, R"({"ok":true,"message":"password reset complete"})");
  EXPECT_EQ(Run({"reset-confirm", "ada@x", "--request-id", "r-7", "--password-stdin"}), 0);
  EXPECT_EQ(gScript.output, "The password was changed. Log in with the new one: telvorctl login\n");
}

TEST_F(AccountCommands, ResetConfirmAsksAtATerminal) {
  Type({kOldCode, kSecret, kSecret});
  Result(kResetConfirm, R"({"ok":true,"message":"password reset complete"})");
  EXPECT_EQ(Run({"reset-confirm", "ada@x", "--request-id", "r-7"}), 0);
}

TEST_F(AccountCommands, LogoutTellsOfATunnelThatWasUp) {
  TunnelIs("connected");
  Result(kLogout, kLoggedOut);
  Result(kEntitlement, kNoSession);
  EXPECT_EQ(Run({"logout"}), 0);
  TunnelIs("disconnected");
  Result(kLogout, kLoggedOut);
  Result(kEntitlement, kNoSession);
  EXPECT_EQ(Run({"logout"}), 0);
  EXPECT_EQ(gScript.output, "Logged out; the tunnel is taken down.\nLogged out.\n");
}

// The service says ok all the same, and finds the session again when it next needs one.
TEST_F(AccountCommands, LogoutTellsOfASessionThatStays) {
  const std::string paid = R"({"ok":true,"payment_current":true,"status":"active","period_end":null})";
  const std::string looks[] = {
      paid, R"({"ok":false,"status":"ERROR","message":"entitlement transport failure"})",
      R"({"ok":false,"status":"AUTH_REQUIRED","message":"refresh transport failure"})"};
  for (const std::string& look : looks) {
    gScript.errors.clear();
    TunnelIs("disconnected");
    Result(kLogout, kLoggedOut);
    Result(kEntitlement, look);
    EXPECT_EQ(Run({"logout"}), 1);
    EXPECT_EQ(gScript.errors,
              "telvorctl: the session could not be removed: the service must be able to delete files in "
              "C:\\ProgramData\\TELVOR\\auth; then log out again\n");
  }
  EXPECT_EQ(gScript.output, "");
  TunnelIs("disconnected");
  Result(kLogout, kLoggedOut);
  Result(kEntitlement, paid);
  EXPECT_EQ(Run({"logout", "--json"}), 1);
  EXPECT_EQ(gScript.output, kLoggedOut + "\n");
}

TEST_F(AccountCommands, LogoutClaimsNothingWhenItCannotLook) {
  TunnelIs("disconnected");
  Result(kLogout, kLoggedOut);
  CannotOpen(kEntitlement, kErrorFileNotFound, true);
  EXPECT_EQ(Run({"logout"}), 3);
  EXPECT_EQ(gScript.output, "");
  EXPECT_EQ(gScript.errors.find("could not be removed"), std::string::npos) << gScript.errors;
}

TEST_F(AccountCommands, LogoutAsksNothingMoreAfterCtrlC) {
  Broken(kGetState, kErrorOperationAborted, "");
  EXPECT_EQ(Run({"logout"}), 130);
}

TEST_F(AccountCommands, Entitlement) {
  Result(kEntitlement,
         R"({"ok":true,"payment_current":true,"status":"active","period_end":"2026-12-31T00:00:00Z"})");
  EXPECT_EQ(Run({"entitlement"}), 0);
  EXPECT_EQ(gScript.errors, "");
  Result(kEntitlement, R"({"ok":true,"payment_current":false,"status":"","period_end":null})");
  EXPECT_EQ(Run({"entitlement"}), 0);
  EXPECT_EQ(gScript.errors,
            "telvorctl: the control plane told no status: it may not have answered as it should\n");
  EXPECT_EQ(gScript.output,
            "Paid    yes\n"
            "Status  active\n"
            "Until   2026-12-31T00:00:00Z\n"
            "Paid  no\n");
}

TEST_F(AccountCommands, EntitlementNeedsALoginWhenTheServiceSaysSo) {
  Result(kEntitlement, R"({"ok":false,"payment_current":false,"status":"AUTH_REQUIRED",)"
                       R"("message":"refresh transport failure"})");
  EXPECT_EQ(Run({"entitlement"}), 6);
  Result(
      kEntitlement,
      R"({"ok":false,"payment_current":false,"status":"ERROR","message":"entitlement transport failure"})");
  EXPECT_EQ(Run({"entitlement"}), 1);
}

TEST_F(AccountCommands, Quota) {
  Result(kQuota, R"({"ok":true,"quota_current":true})");
  EXPECT_EQ(Run({"quota"}), 0);
  Result(kQuota, R"({"ok":true,"quota_current":false})");
  EXPECT_EQ(Run({"quota"}), 0);
  EXPECT_EQ(gScript.output, "The quota is current.\nThe quota is not current.\n");
}

TEST_F(AccountCommands, WhatNeedsASessionEndsWithSixWithoutOne) {
  struct Row {
    const char* command;
    std::string request;
    const char* result;
  };
  const Row rows[] = {
      {"quota", kQuota, R"({"ok":false,"quota_current":false,"message":"SESSION_EXPIRED"})"},
      {"checkout", kCheckout, R"({"ok":false,"checkout_url":null,"message":"no session: C:\\x"})"},
      {"account-page", kAccountPage, R"({"ok":false,"account_url":null,"message":"auth required"})"},
  };
  for (const Row& row : rows) {
    Result(row.request, row.result);
    EXPECT_EQ(Run({row.command}), 6) << row.command;
  }
  EXPECT_EQ(gScript.output, "");
  EXPECT_EQ(gScript.errors,
            "telvorctl: SESSION_EXPIRED (the session has expired; see telvorctl login)\n"
            "telvorctl: no session: C:\\x (nobody is logged in; see telvorctl login)\n"
            "telvorctl: auth required (see telvorctl login)\n");
}

TEST_F(AccountCommands, WhatTheControlPlaneRefusesEndsWithOne) {
  Result(kQuota, R"({"ok":false,"quota_current":false,"message":"quota transport failure"})");
  EXPECT_EQ(Run({"quota"}), 1);
  Result(kCheckout, R"({"ok":false,"checkout_url":null,"message":"checkout failed"})");
  EXPECT_EQ(Run({"checkout"}), 1);
}

TEST_F(AccountCommands, CheckoutIsALink) {
  Result(kCheckout, R"({"ok":true,"checkout_url":"https://pay.example/c?a=1\u0026b=2","message":"ok"})");
  EXPECT_EQ(Run({"checkout"}), 0);
  EXPECT_EQ(gScript.output, "https://pay.example/c?a=1&b=2\n");
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(AccountCommands, AccountPageIsALinkWithAWarning) {
  const std::string result =
      R"({"ok":true,"account_url":"https://cp.example/account?access_token=t","message":"ok"})";
  Result(kAccountPage, result);
  EXPECT_EQ(Run({"account-page"}), 0);
  EXPECT_EQ(gScript.output, "https://cp.example/account?access_token=t\n");
  EXPECT_EQ(gScript.errors, "telvorctl: whoever has this link has the account; give it to nobody\n");
  gScript.output.clear();
  gScript.errors.clear();
  Result(kAccountPage, result);
  EXPECT_EQ(Run({"account-page", "--json"}), 0);
  EXPECT_EQ(gScript.output, result + "\n");
  EXPECT_EQ(gScript.errors, "telvorctl: whoever has this link has the account; give it to nobody\n");
}

}  // namespace
