// What the seven account calls have in common.
#include "account_fixture.h"

namespace {

std::wstring gError;
bool gFlag = false;
std::string gFirstText, gSecondText;
uint32_t gSeconds = 0;

// In a fixed order, each with secrets of its own.
struct AccountCall {
  bool (*make)();
  const char* path;
};
constexpr AccountCall kCalls[] = {
    {[] { return CpIsRegistered(L"e", gFlag, gError); }, "GET /v1/auth/registered?email=e"},
    {[] { return CpRegister(L"e", L"secret-1", gError); }, "POST /v1/auth/register"},
    {[] { return CpPasswordResetStart(L"e", gFirstText, gSecondText, gSeconds, gError); },
     "POST /v1/auth/password/reset/start"},
    {[] { return CpPasswordResetConfirm(L"e", L"secret-2", L"secret-3", L"secret-4", gError); },
     "POST /v1/auth/password/reset/confirm"},
    {[] { return CpGetQuota(L"secret-5", gFlag, gError); }, "GET /v1/me/quota"},
    {[] { return CpGetEntitlement(L"secret-6", gFlag, gFirstText, gSecondText, gError); },
     "GET /v1/me/entitlement"},
    {[] { return CpBillingCheckout(L"secret-7", gFirstText, gError); }, "POST /v1/billing/checkout"},
};

constexpr char kGoodForAll[] = R"({"registered":true,"request_id":"r","url":"https://pay.test"})";

TEST(AccountCalls, DropOneTrailingSlashOfTheBaseUrl) {
  const struct {
    const wchar_t* end;
    const char* kept;
  } cases[] = {{L"", ""}, {L"/", ""}, {L"//", "/"}, {L"/sub/", "/sub"}};
  for (const auto& one : cases) {
    AccountMachine machine;
    gCpBaseUrl = std::wstring(kBase) + one.end;
    AnswerAlways(Answer(200, kGoodForAll));
    Lines expected;
    for (const AccountCall& call : kCalls) {
      EXPECT_TRUE(call.make()) << call.path;
      expected.emplace_back(call.path);
      expected.back().insert(expected.back().find('/'), one.kept);
    }
    EXPECT_EQ(Sent(), expected);
    EXPECT_EQ(gCpBaseUrl, std::wstring(kBase) + one.end);
  }
}

TEST(AccountCalls, SendOneRequestAndDoNotRetry) {
  for (const AccountCall& call : kCalls) {
    for (const sim::HttpResponse& answer : {Answer(401), Answer(500), Answer(200, "")}) {
      AccountMachine machine;
      AnswerAlways(answer);
      call.make();
      EXPECT_EQ(Sent(), Lines{call.path});
    }
  }
}

TEST(AccountCalls, KeepNoHandleOpen) {
  for (const AccountCall& call : kCalls) {
    for (const sim::HttpResponse& answer : {Answer(200, kGoodForAll), Answer(500), NoAnswer()}) {
      AccountMachine machine;
      AnswerAlways(answer);
      call.make();
      EXPECT_EQ(sim::OpenHandles(), 0U);
    }
  }
}

TEST(AccountCalls, HoldNoLockAcrossTheNetwork) {
  for (const AccountCall& call : kCalls) {
    AccountMachine machine;
    AnswerAlways(Answer(200, kGoodForAll));
    const auto looks = LookForLocksBefore({"WinHttpSendRequest", "WinHttpReceiveResponse"});
    EXPECT_TRUE(call.make()) << call.path;
    EXPECT_EQ(*looks, 2U);
  }
}

TEST(AccountCalls, OnlyTheRegistrationLogsOnItsOwn) {
  AccountMachine machine;
  AnswerAlways(Answer(500, "no"));
  for (const AccountCall& call : kCalls) EXPECT_FALSE(call.make());
  const std::string get = "HTTP GET status=500 body-head=no";
  EXPECT_EQ(sim::LogLines(), Lines({get, "/v1/auth/register: User:e, device_id=desktop-ab12",
                                    "/v1/auth/register: HTTP 500, resp=no", get, get}));
}

TEST(AccountCalls, LogNoSecret) {
  for (const sim::HttpResponse& answer : {Answer(200, kGoodForAll), Answer(401, "no"), Answer(409, "no"),
                                          Answer(500, "no"), NoAnswer(), BrokenAnswer(200, "no")}) {
    AccountMachine machine;
    AnswerAlways(answer);
    for (const AccountCall& call : kCalls) call.make();
    EXPECT_EQ(sim::LogBytes().find("secret"), std::string::npos) << sim::LogBytes();
  }
}

}  // namespace
