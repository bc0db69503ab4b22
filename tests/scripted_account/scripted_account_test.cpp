// The account methods over account calls that fail without a reason, as most of the real ones never do, and
// that leave their outputs filled all the same: this program has account calls of its own, which stand before
// the library's.
#include "controlplane/account.h"
#include "tests/ipc/account_fixture.h"

namespace {

bool gOk = false;
const char* gPeriodEnd = "";
std::vector<std::wstring> gParameters;  // of the last call

bool Answered(const std::vector<std::wstring>& parameters) {
  gParameters = parameters;
  return gOk;
}

}  // namespace

bool CpIsRegistered(const std::wstring& email, bool& registered, std::wstring&) {
  registered = true;
  return Answered({email});
}
bool CpRegister(const std::wstring& email, const std::wstring& password, std::wstring&) {
  return Answered({email, password});
}
bool CpPasswordResetStart(const std::wstring& email, std::string& requestId, std::string& maskedEmail,
                          uint32_t& expiresInSeconds, std::wstring&) {
  requestId = "r\"";
  maskedEmail = "m\"";
  expiresInSeconds = 4294967295;
  return Answered({email});
}
bool CpPasswordResetConfirm(const std::wstring& email, const std::wstring& requestId,
                            const std::wstring& code, const std::wstring& newPassword, std::wstring&) {
  return Answered({email, requestId, code, newPassword});
}
bool CpGetQuota(const std::wstring& accessToken, bool& quotaCurrent, std::wstring&) {
  quotaCurrent = true;
  return Answered({accessToken});
}
bool CpGetEntitlement(const std::wstring& accessToken, bool& paymentCurrent, std::string& status,
                      std::string& periodEnd, std::wstring&) {
  paymentCurrent = true;
  status = "s\"";
  periodEnd = gPeriodEnd;
  return Answered({accessToken});
}
bool CpBillingCheckout(const std::wstring& accessToken, std::string& checkoutUrl, std::wstring&) {
  checkoutUrl = "u\"";
  return Answered({accessToken});
}
bool ExtractCheckoutUrl(const std::string&, std::string&) {
  return false;
}

namespace {

using namespace ipc_test;

constexpr char kParameters[] = R"("email":"e","password":"p","request_id":"r","code":"c","new_password":"n")";

// The methods, what their calls get, and the replies when these fail and succeed.
const struct {
  const char* method;
  std::vector<std::wstring> parameters;
  const char* failure;
  const char* success;  // null: the method does more than its call
} kMethods[] = {
    {"POST /ui/register", {L"e", L"p"}, R"({"ok":false,"message":"register failed"})", nullptr},
    {"POST /ui/password-reset/start",
     {L"e"},
     R"({"ok":false,"request_id":null,"masked_email":null,"expires_in_seconds":0,)"
     R"("message":"password reset start failed"})",
     R"({"ok":true,"request_id":"r\"","masked_email":"m\"","expires_in_seconds":4294967295,)"
     R"("message":"ok"})"},
    {"POST /ui/password-reset/confirm",
     {L"e", L"r", L"c", L"n"},
     R"({"ok":false,"message":"password reset confirm failed"})",
     R"({"ok":true,"message":"password reset complete"})"},
    {"GET /ui/entitlement",
     {L"access-1"},
     R"({"ok":false,"payment_current":false,"status":"ERROR","message":"entitlement failed"})",
     R"({"ok":true,"payment_current":true,"status":"s\"","period_end":"p\""})"},
    {"GET /ui/quota",
     {L"access-1"},
     R"({"ok":false,"quota_current":false,"message":"quota check failed"})",
     R"({"ok":true,"quota_current":true})"},
    {"POST /ui/billing/checkout",
     {L"access-1"},
     R"({"ok":false,"checkout_url":null,"message":"checkout failed"})",
     R"({"ok":true,"checkout_url":"u\"","message":"ok"})"},
};

// The answer of every account call from now on.
void Script(bool ok) {
  gOk = ok;
  gPeriodEnd = "p\"";
  gParameters.clear();
}

TEST(AccountMethods, HaveWordsForAFailureWithoutAReason) {
  for (const auto& one : kMethods) {
    AccountMachine machine;
    PutSession("access-1", 3600);
    Script(false);
    EXPECT_EQ(CallWith(one.method, kParameters), ResultText(one.failure));
    EXPECT_EQ(gParameters, one.parameters);
    EXPECT_EQ(Sent(), Lines());
  }
}

TEST(AccountMethods, HandTheAnswersOn) {
  for (const auto& one : kMethods) {
    if (!one.success) continue;
    AccountMachine machine;
    PutSession("access-1", 3600);
    Script(true);
    EXPECT_EQ(CallWith(one.method, kParameters), ResultText(one.success));
    EXPECT_EQ(gParameters, one.parameters);
  }
}

// Blanks from the call itself count as nothing; other white space does not.
TEST(EntitlementMethod, ShowsAPeriodEndOfBlanksAsNull) {
  const struct {
    const char* periodEnd;
    const char* shown;
  } cases[] = {{"", "null"}, {" \t\r\n ", "null"}, {"\v", "\"\\u000b\""}};
  for (const auto& one : cases) {
    AccountMachine machine;
    PutSession("access-1", 3600);
    Script(true);
    gPeriodEnd = one.periodEnd;
    EXPECT_EQ(Call("GET /ui/entitlement"),
              ResultText(std::string(R"({"ok":true,"payment_current":true,"status":"s\"","period_end":)") +
                         one.shown + "}"));
  }
}

TEST(IsRegisteredMethod, HasWordsForAFailureWithoutAReason) {
  AccountMachine machine;
  Script(false);
  EXPECT_EQ(CallWith("GET /ui/is-registered", kParameters),
            R"({"jsonrpc":"2.0","id":7,"result":{"registered":false},)"
            R"("error":{"message":"is-registered failed"}})");
  EXPECT_EQ(gParameters, std::vector<std::wstring>{L"e"});
}

}  // namespace
