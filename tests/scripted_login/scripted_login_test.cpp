// The methods over a login and a token step that fail without a reason, as the real ones never do: this
// program has its own of both, which stand before the library's.
#include "controlplane/auth.h"
#include "tests/ipc/account_fixture.h"

namespace {

std::wstring gEmail, gPassword;
bool gTokenStep = false;
std::wstring gTokenError;

}  // namespace

bool Login(const std::wstring& email, const std::wstring& password, SessionRecord&, std::wstring&) {
  gEmail = email;
  gPassword = password;
  return false;
}
bool RefreshSession(const std::wstring&, SessionRecord&, std::wstring&) {
  return false;
}
bool EnsureValidAccessToken(const std::wstring&, std::wstring&, std::wstring& error) {
  error = gTokenError;
  return gTokenStep;
}

namespace {

using namespace ipc_test;

// The words are wanted, though nobody registers here.
TEST(LoginMethod, SpeaksOfRegistrationWhenALoginFailsWithoutAReason) {
  AccountMachine machine;
  SetAccountState();
  const std::string before = AccountState();
  ExpectTrueReply(R"({"id":7,"method":"POST /ui/login","email":"me","password":"x"})",
                  Refused("login failed after registration"));
  EXPECT_EQ(gEmail, L"me");
  EXPECT_EQ(gPassword, L"x");
  EXPECT_EQ(AccountState(), before);
}

TEST(RegisterMethod, SpeaksOfTheRegistrationThatHasBeenWhenItsLoginFailsWithoutAReason) {
  AccountMachine machine;
  machine.AnswerTo("POST /v1/auth/register", Answer(200));
  SetAccountState();
  const std::string before = AccountState();
  ExpectTrueReply(R"({"id":7,"method":"POST /ui/register","email":"you","password":"y"})",
                  Refused("login failed after registration"));
  EXPECT_EQ(gEmail, L"you");
  EXPECT_EQ(gPassword, L"y");
  EXPECT_EQ(AccountState(), before);
}

// The failure of the token step shows in one place of the result.
void ExpectNoToken(const std::string& message) {
  const std::string rest = R"("message":")" + message + "\"}";
  AccountMachine machine;
  EXPECT_EQ(Call("GET /ui/entitlement"),
            ResultText(R"({"ok":false,"payment_current":false,"status":"AUTH_REQUIRED",)" + rest));
  EXPECT_EQ(Call("GET /ui/quota"), ResultText(R"({"ok":false,"quota_current":false,)" + rest));
  EXPECT_EQ(Call("POST /ui/billing/checkout"), ResultText(R"({"ok":false,"checkout_url":null,)" + rest));
  EXPECT_EQ(Call("GET /ui/account-page-url"), ResultText(R"({"ok":false,"account_url":null,)" + rest));
  EXPECT_EQ(Sent(), Lines());
  EXPECT_EQ(gOperations.calls, Lines());
}

TEST(TokenMethods, AskForALoginWhenTheTokenStepGivesNoReason) {
  gTokenError.clear();
  for (const bool step : {false, true}) {
    gTokenStep = step;
    ExpectNoToken("auth required");
  }
  gTokenStep = false;
}

TEST(TokenMethods, TakeAnEmptyTokenForNone) {
  gTokenStep = true;
  gTokenError = L"n\u00E9\"";
  ExpectNoToken("n\xC3\xA9\\\"");
  gTokenStep = false;
  gTokenError.clear();
}

// Neither a reason of the token step nor one of the tunnel: nothing to show.
TEST(StatusMethod, ShowsNoErrorWhenTheTokenStepGivesNone) {
  AccountMachine machine;
  const std::string reply = Call("GET /ui/status");
  EXPECT_NE(reply.find(R"({"auth_state":"AUTH_REQUIRED","last_error":null,)"), std::string::npos) << reply;
}

// A token that the step gives counts though nothing is cached, as when a logout comes between the two.
TEST(StatusMethod, TakesATokenThatIsNotCachedForALogin) {
  AccountMachine machine;
  gTokenStep = true;
  const std::string reply = Call("GET /ui/status");
  EXPECT_NE(reply.find(R"({"auth_state":"AUTH_OK","last_error":null,)"), std::string::npos) << reply;
  gTokenStep = false;
}

}  // namespace
