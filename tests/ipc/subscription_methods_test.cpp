// The methods that need the session's token: entitlement, quota, checkout and the link to the account page.
#include "ipc/subscription_methods.h"

#include <stdexcept>

#include "tests/ipc/account_fixture.h"

namespace {

using namespace ipc_test;

constexpr char kEntitlementPath[] = "GET /v1/me/entitlement";
constexpr char kQuotaPath[] = "GET /v1/me/quota";
constexpr char kCheckoutPath[] = "POST /v1/billing/checkout";
constexpr char kRefreshPath[] = "POST /v1/auth/refresh";

// A machine with a session of an hour, whose token is not in memory yet.
struct LoggedInMachine : AccountMachine {
  LoggedInMachine() { PutSession("access-1", 3600); }
};

// The methods with the beginnings of their results without a token; the message comes behind.
const struct TokenMethod {
  const char* name;
  const char* path;  // of their own request; empty: none
  const char* noToken;
} kTokenMethods[] = {
    {"GET /ui/entitlement", kEntitlementPath,
     R"({"ok":false,"payment_current":false,"status":"AUTH_REQUIRED",)"},
    {"GET /ui/quota", kQuotaPath, R"({"ok":false,"quota_current":false,)"},
    {"POST /ui/billing/checkout", kCheckoutPath, R"({"ok":false,"checkout_url":null,)"},
    {"GET /ui/account-page-url", "", R"({"ok":false,"account_url":null,)"},
};

std::string NoToken(const TokenMethod& method, const std::string& message) {
  return ResultText(std::string(method.noToken) + R"("message":")" + message + "\"}");
}

// ---- The token step ----

TEST(TokenMethods, SayThatThereIsNoSession) {
  for (const TokenMethod& method : kTokenMethods) {
    AccountMachine machine;
    SetAccountState();
    const std::string before = AccountState();
    ExpectTrueReply(std::string(R"({"id":7,"method":")") + method.name + "\"}", NoToken(method, kNoSession));
    EXPECT_EQ(Sent(), Lines());
    EXPECT_EQ(gOperations.calls, Lines());
    EXPECT_EQ(AccountState(), before);
  }
}

TEST(TokenMethods, GiveTheReasonOfAFailedRefreshAndLeaveTheSession) {
  const struct {
    sim::HttpResponse answer;
    const char* message;
  } cases[] = {{Answer(401, R"({"error":"refresh_expired"})"), "SESSION_EXPIRED"},
               {Answer(400, R"({"error":"a\b"})"), R"(a\\b)"},
               {Answer(500), "refresh non-2xx: 500"},
               {Answer(400, "{\"error\":\"\xFF\"}"), "refresh failed"},
               {NoAnswer(), "refresh transport failure"}};
  for (const TokenMethod& method : kTokenMethods) {
    for (const auto& one : cases) {
      AccountMachine machine;
      PutSession("access-1", 299);
      SetAccountState();
      const std::string before = AccountState();
      machine.AnswerTo(kRefreshPath, one.answer);
      EXPECT_EQ(Call(method.name), NoToken(method, one.message));
      EXPECT_EQ(Sent(), Lines{kRefreshPath});
      EXPECT_EQ(gOperations.calls, Lines());
      EXPECT_EQ(AccountState(), before);
    }
  }
}

TEST(TokenMethods, GoOnWithARefreshedToken) {
  for (const TokenMethod& method : kTokenMethods) {
    AccountMachine machine;
    gCpBaseUrl = L"https://plane.test/";
    PutSession("access-0", 299);
    machine.plane.accessToken = "access-2";
    Call(method.name);
    const bool asks = *method.path;
    EXPECT_EQ(Sent(), asks ? (Lines{kRefreshPath, method.path}) : Lines{kRefreshPath});
    EXPECT_EQ(SentBearers(), asks ? (Lines{"", "access-2"}) : Lines{""});
    for (const sim::HttpRequest& request : sim::HttpRequests()) EXPECT_EQ(request.host, L"plane.test");
    EXPECT_EQ(gCachedAccessToken, L"access-2");
    EXPECT_NE(StoredSession().find("access-2"), std::string::npos);
  }
}

TEST(TokenMethods, UseTheTokenInMemory) {
  for (const TokenMethod& method : kTokenMethods) {
    LoggedInMachine machine;
    SetAccountState();
    Call(method.name);
    const bool asks = *method.path;
    EXPECT_EQ(Sent(), asks ? Lines{method.path} : Lines());
    EXPECT_EQ(SentBearers(), asks ? Lines{"access-0"} : Lines());
  }
}

TEST(TokenMethods, HoldNoLockWhileTheyWait) {
  for (const TokenMethod& method : kTokenMethods) {
    AccountMachine machine;
    PutSession("access-0", 299);
    gWorkerOperations.RefreshSplitTunnelRoutes = [] {
      TakeEveryLock();
      Note("RefreshSplitTunnelRoutes");
    };
    const bool asks = *method.path;
    Lines waits = {"CryptUnprotectData", "CryptProtectData", "CryptProtectData", "WinHttpSendRequest"};
    if (asks) waits.emplace_back("WinHttpSendRequest");
    const auto looks = LookForLocksBefore(waits);
    Call(method.name);
    EXPECT_EQ(*looks, waits.size()) << method.name;
    EXPECT_EQ(gOperations.calls.size(), asks ? 0u : 1u);
  }
}

// It comes back as any other failure, and nobody is logged out.
TEST(TokenMethods, DoNotTouchTheSessionForATokenThatTheControlPlaneRefuses) {
  const char* const replies[] = {
      R"({"ok":false,"payment_current":false,"status":"ERROR","message":"entitlement transport failure"})",
      R"({"ok":false,"quota_current":false,"message":"quota transport failure"})",
      R"({"ok":false,"checkout_url":null,"message":"unauthorized"})"};
  for (size_t i = 0; i < std::size(replies); ++i) {
    LoggedInMachine machine;
    SetAccountState();
    const std::string before = AccountState();
    machine.AnswerTo(kTokenMethods[i].path, Answer(401, R"({"error":"unauthorized"})"));
    EXPECT_EQ(Call(kTokenMethods[i].name), ResultText(replies[i]));
    EXPECT_EQ(Sent(), Lines{kTokenMethods[i].path});
    EXPECT_EQ(AccountState(), before);
  }
}

TEST(TokenMethods, LogNoToken) {
  for (const TokenMethod& method : kTokenMethods) {
    for (const sim::HttpResponse& answer : {Answer(200, "{}"), Answer(401), Answer(500, "no"), NoAnswer()}) {
      LoggedInMachine machine;
      if (*method.path) machine.AnswerTo(method.path, answer);
      Call(method.name);
      for (const char* token : {"access-1", "refresh-1"})
        EXPECT_EQ(sim::LogBytes().find(token), std::string::npos) << sim::LogBytes();
    }
  }
}

// ---- Entitlement ----

TEST(EntitlementMethod, HandsTheAnswerOn) {
  const struct {
    const char* answer;
    const char* result;
  } cases[] = {
      {R"({"payment_current":true,"status":"active","period_end":"2027-01-01"})",
       R"({"ok":true,"payment_current":true,"status":"active","period_end":"2027-01-01"})"},
      {R"({"payment_current":false,"status":" past due ","period_end":"  "})",
       R"({"ok":true,"payment_current":false,"status":"past due","period_end":null})"},
      {R"({"payment_current":true,"period_end":"a\b"})",
       R"({"ok":true,"payment_current":true,"status":"","period_end":"a\\b"})"},
      {"{}", R"({"ok":true,"payment_current":false,"status":"","period_end":null})"},
  };
  for (const auto& one : cases) {
    LoggedInMachine machine;
    machine.AnswerTo(kEntitlementPath, Answer(200, one.answer));
    ExpectTrueReply(R"({"id":7,"method":"GET /ui/entitlement"})", ResultText(one.result));
    EXPECT_EQ(Sent(), Lines{kEntitlementPath});
    EXPECT_EQ(SentBearers(), Lines{"access-1"});
  }
}

TEST(EntitlementMethod, TellsEveryRefusalAsAnError) {
  for (const sim::HttpResponse& answer : {NoAnswer(), Answer(204), Answer(500), Answer(403)}) {
    LoggedInMachine machine;
    machine.AnswerTo(kEntitlementPath, answer);
    EXPECT_EQ(Call("GET /ui/entitlement"),
              ResultText(R"({"ok":false,"payment_current":false,"status":"ERROR",)"
                         R"("message":"entitlement transport failure"})"));
  }
}

// ---- Quota ----

TEST(QuotaMethod, HandsTheAnswerOn) {
  for (const char* current : {"true", "false"}) {
    LoggedInMachine machine;
    machine.AnswerTo(kQuotaPath, Answer(200, std::string(R"({"quota_current":)") + current + "}"));
    ExpectTrueReply(R"({"id":7,"method":"GET /ui/quota"})",
                    ResultText(std::string(R"({"ok":true,"quota_current":)") + current + "}"));
    EXPECT_EQ(Sent(), Lines{kQuotaPath});
    EXPECT_EQ(SentBearers(), Lines{"access-1"});
  }
}

TEST(QuotaMethod, TellsAnAnswerWithoutABooleanAsFalse) {
  LoggedInMachine machine;
  machine.AnswerTo(kQuotaPath, Answer(200, R"({"quota_current":"true"})"));
  EXPECT_EQ(Call("GET /ui/quota"), ResultText(R"({"ok":true,"quota_current":false})"));
}

TEST(QuotaMethod, TellsEveryRefusalAsATransportFailure) {
  for (const sim::HttpResponse& answer : {NoAnswer(), Answer(204), Answer(500)}) {
    LoggedInMachine machine;
    machine.AnswerTo(kQuotaPath, answer);
    EXPECT_EQ(Call("GET /ui/quota"),
              ResultText(R"({"ok":false,"quota_current":false,"message":"quota transport failure"})"));
  }
}

// ---- Checkout ----

TEST(BillingCheckoutMethod, HandsTheAddressOverAndOpensNothing) {
  LoggedInMachine machine;
  machine.AnswerTo(kCheckoutPath, Answer(200, R"({"checkout_url":"https:\/\/pay.test\/\"1\""})"));
  // A plan of the client's is passed over.
  ExpectTrueReply(R"({"id":7,"method":"POST /ui/billing/checkout","plan_id":"gold"})",
                  ResultText(R"({"ok":true,"checkout_url":"https://pay.test/\"1\"","message":"ok"})"));
  EXPECT_EQ(Sent(), Lines{kCheckoutPath});
  EXPECT_EQ(SentBodies(), Lines{R"({"provider":"stripe","plan_id":"basic_monthly"})"});
  EXPECT_EQ(SentBearers(), Lines{"access-1"});
  EXPECT_EQ(gOperations.calls, Lines());
  EXPECT_EQ(sim::CountCalls("CreateProcessW"), 0u);
}

TEST(BillingCheckoutMethod, GivesTheReasonOfAFailure) {
  const struct {
    sim::HttpResponse answer;
    std::string message;
  } cases[] = {{NoAnswer(), "checkout transport failure"},
               {Answer(500), "checkout non-2xx: 500 resp="},
               {Answer(402, "{\"error\":\"\xFF\"}\n"),
                "checkout non-2xx: 402 resp={\\\"error\\\":\\\"\xEF\xBF\xBD\\\"}\\n"},
               {Answer(200, "{}"), "checkout response missing url"}};
  for (const auto& one : cases) {
    LoggedInMachine machine;
    machine.AnswerTo(kCheckoutPath, one.answer);
    EXPECT_EQ(Call("POST /ui/billing/checkout"),
              ResultText(R"({"ok":false,"checkout_url":null,"message":")" + one.message + "\"}"));
  }
}

// ---- The account page ----

std::string PageReply(const std::string& url) {
  return ResultText(R"({"ok":true,"account_url":")" + url + R"(","message":"ok"})");
}

TEST(AccountPageUrlMethod, JoinsBaseAndToken) {
  const struct {
    const wchar_t* base;
    const char* start;  // of the link
  } cases[] = {{L"https://plane.test:9443", "https://plane.test:9443"},
               {L"https://plane.test/", "https://plane.test"},
               {L"https://plane.test//", "https://plane.test"},
               {L"https://plane.test/sub/////", "https://plane.test/sub"},
               {L" \thttps://plane.test//\r\n", "https://plane.test"},
               {L"https://pl\u00E4ne.test\"", "https://pl\xC3\xA4ne.test\\\""},
               {L"//", ""}};
  for (const auto& one : cases) {
    LoggedInMachine machine;
    gCpBaseUrl = one.base;
    ExpectTrueReply(R"({"id":7,"method":"GET /ui/account-page-url"})",
                    PageReply(std::string(one.start) + "/account?access_token=access-1"));
    EXPECT_EQ(Sent(), Lines());
    EXPECT_EQ(gCpBaseUrl, one.base);
  }
}

TEST(AccountPageUrlMethod, TakesTheBuildsBaseForAnEmptyOne) {
  LoggedInMachine machine;
  gCpBaseUrl = L"";
  EXPECT_EQ(Call("GET /ui/account-page-url"),
            PageReply(sim::Narrow(kDefaultCpBaseUrl) + "/account?access_token=access-1"));
}

TEST(AccountPageUrlMethod, DoesNotEncodeTheToken) {
  LoggedInMachine machine;
  gCpBaseUrl = L"https://plane.test";
  gCachedAccessToken = L"a+b/c= &%20\"\u00E9";
  EXPECT_EQ(Call("GET /ui/account-page-url"),
            PageReply("https://plane.test/account?access_token=a+b/c= &%20\\\"\xC3\xA9"));
}

TEST(AccountPageUrlMethod, RefreshesTheRoutesWhateverTheTunnelsState) {
  for (const int32_t desired : {0, 1}) {
    for (const int32_t status : {0, 1, 2, 3}) {
      LoggedInMachine machine;
      SetState(desired, 5, status, status == 2);
      const std::string before = State();
      Call("GET /ui/account-page-url");
      EXPECT_EQ(gOperations.calls, Lines{At("RefreshSplitTunnelRoutes", before)});
      EXPECT_EQ(State(), before);
    }
  }
}

TEST(AccountPageUrlMethod, TakesTheTokenThenTheBaseThenRefreshesTheRoutes) {
  AccountMachine machine;
  PutSession("access-0", 10);
  gCpBaseUrl = L"https://first.test";
  sim::Before("WinHttpReceiveResponse", [] { gCpBaseUrl = L"https://second.test"; });
  gWorkerOperations.RefreshSplitTunnelRoutes = [] {
    EXPECT_EQ(Sent(), Lines{kRefreshPath});
    EXPECT_EQ(gCachedAccessToken, L"access-1");
    Note("RefreshSplitTunnelRoutes");
    gCpBaseUrl = L"https://third.test";
    gCachedAccessToken = L"access-9";
  };
  EXPECT_EQ(Call("GET /ui/account-page-url"), PageReply("https://second.test/account?access_token=access-1"));
  EXPECT_EQ(gOperations.calls.size(), 1u);
}

TEST(AccountPageUrlMethod, WaitsForTheRefreshOfTheRoutes) {
  LoggedInMachine machine;
  gWorkerOperations.RefreshSplitTunnelRoutes = [] { platform::Sleep(20'000); };
  const uint64_t start = sim::Now();
  Call("GET /ui/account-page-url");
  EXPECT_EQ(sim::Now() - start, 20'000u);
}

TEST(AccountPageUrlMethod, EndsWithAnExceptionOfTheRefreshOfTheRoutes) {
  LoggedInMachine machine;
  gWorkerOperations.RefreshSplitTunnelRoutes = [] { throw std::runtime_error("no routes"); };
  EXPECT_EQ(Call("GET /ui/account-page-url"), ErrorText("no routes"));
}

TEST(AccountPageUrlMethod, LogsNothing) {
  LoggedInMachine machine;
  Call("GET /ui/account-page-url");
  EXPECT_EQ(sim::LogLines(), Lines());
}

}  // namespace
