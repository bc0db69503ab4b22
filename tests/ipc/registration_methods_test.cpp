// Registration and password reset over the pipe.
#include "ipc/account_methods.h"
#include "tests/ipc/account_fixture.h"

namespace {

using namespace ipc_test;

constexpr char kRegisterPath[] = "POST /v1/auth/register";
constexpr char kRegisteredPath[] = "GET /v1/auth/registered";
constexpr char kStartPath[] = "POST /v1/auth/password/reset/start";
constexpr char kConfirmPath[] = "POST /v1/auth/password/reset/confirm";

// ---- Registration ----

// A machine on which the control plane takes registrations.
struct RegisteringMachine : AccountMachine {
  RegisteringMachine() { AnswerTo(kRegisterPath, Answer(201)); }
};

std::string Register(const std::string& password = "secret") {
  return CallWith("POST /ui/register", R"("email":"user@example.com","password":")" + password + '"');
}

TEST(RegisterMethod, RegistersAndLogsIn) {
  RegisteringMachine machine;
  EXPECT_EQ(Register(), kLoggedIn);
  EXPECT_EQ(Sent(), (Lines{kRegisterPath, "POST /v1/auth/login"}));
  EXPECT_EQ(SentBodies(),
            (Lines{R"({"email":"user@example.com","password":"secret","device_id":"desktop-ab12"})",
                   R"({"email":"user@example.com","password":"secret"})"}));
  EXPECT_EQ(SentBearers(), (Lines{"", ""}));
  SessionRecord session;
  EXPECT_TRUE(LoadSession(session));
  EXPECT_EQ(session.access_token, L"access-1");
  EXPECT_EQ(gCachedAccessToken, L"access-1");
  EXPECT_FALSE(gAuthRequired);
  EXPECT_TRUE(sim::FileExists(kPrivateKeyFile));
}

// In both it differs from the login; wanted.
TEST(RegisterMethod, SavesTheSessionOnceAndLeavesTheLastError) {
  RegisteringMachine machine;
  SetAccountState();
  EXPECT_EQ(Register(), kLoggedIn);
  EXPECT_EQ(WritesOf(kSessionFile), 1u);
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(State(), "desired=1 epoch=5 status=3 up=true");
  EXPECT_EQ(gOperations.calls, Lines());
}

TEST(RegisterMethod, TellsOfAnExistingAccount) {
  AccountMachine machine;
  SetAccountState();
  const std::string before = AccountState();
  machine.AnswerTo(kRegisterPath, Answer(409, R"({"error":"email taken"})"));
  EXPECT_EQ(Register(), Refused("User already exists. Please log in or reset your password."));
  EXPECT_EQ(Sent(), Lines{kRegisterPath});
  EXPECT_EQ(AccountState(), before);
}

TEST(RegisterMethod, GivesTheReasonOfARefusalAndDoesNotLogIn) {
  const struct {
    sim::HttpResponse answer;
    const char* message;
  } cases[] = {{Answer(500, R"({"error":"no"})"), "register non-2xx: 500"},
               {Answer(401), "register non-2xx: 401"},
               {NoAnswer(), "register transport failure"}};
  for (const auto& one : cases) {
    AccountMachine machine;
    SetAccountState();
    const std::string before = AccountState();
    machine.AnswerTo(kRegisterPath, one.answer);
    ExpectTrueReply(R"({"id":7,"method":"POST /ui/register","email":"a","password":"b"})",
                    Refused(one.message));
    EXPECT_EQ(Sent(), Lines{kRegisterPath});
    EXPECT_EQ(AccountState(), before);
  }
}

TEST(RegisterMethod, GivesTheReasonWithoutADeviceId) {
  AccountMachine machine;
  sim::PutFile(std::wstring(kDeviceIdFile) + L".protected", sim::SealElsewhere("other"));
  EXPECT_EQ(Register(), Refused("failed to load/create device id"));
  EXPECT_EQ(Sent(), Lines());
}

TEST(RegisterMethod, GivesTheReasonWhenTheLoginFailsAfterIt) {
  const struct {
    sim::HttpResponse answer;
    const char* message;
  } cases[] = {{Answer(401), "login non-2xx: 401"},
               {NoAnswer(), "login transport failure"},
               {Answer(200, "{}"), "login response missing access_token"}};
  for (const auto& one : cases) {
    RegisteringMachine machine;
    SetAccountState();
    const std::string before = AccountState();
    machine.AnswerTo("POST /v1/auth/login", one.answer);
    EXPECT_EQ(Register(), Refused(one.message));
    EXPECT_EQ(Sent(), (Lines{kRegisterPath, "POST /v1/auth/login"}));
    EXPECT_EQ(AccountState(), before);
  }
}

TEST(RegisterMethod, DoesNotTakeTheTokenWhenTheKeysAreNotRotated) {
  RegisteringMachine machine;
  SetAccountState();
  sim::Fail({.operation = "BCryptGenRandom", .times = UINT32_MAX});
  EXPECT_EQ(Register(), Refused("login ok but active WG key rotation failed"));
  EXPECT_EQ(gCachedAccessToken, L"access-0");
  EXPECT_TRUE(gAuthRequired);
}

TEST(RegisterMethod, KeepsWhatTheLoginDidWhenTheLockFails) {
  RegisteringMachine machine;
  SetAccountState();
  sim::FailLock(gSessionMutex);
  EXPECT_EQ(Register(), kLockFailed);
  EXPECT_NE(StoredSession().find(R"("access_token":"access-1")"), std::string::npos);
  EXPECT_EQ(gCachedAccessToken, L"access-0");
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
}

// There is no second save that would bring the session back, unlike in a login; wanted.
TEST(RegisterMethod, LosesTheSessionToALogoutBehindItsSave) {
  RegisteringMachine machine;
  SetAccountState();
  sim::Before("BCryptGenRandom", [] { Call("POST /ui/logout"); });
  EXPECT_EQ(Register(), kLoggedIn);
  EXPECT_FALSE(sim::FileExists(kSessionFile));
  EXPECT_EQ(gCachedAccessToken, L"access-1");
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
  EXPECT_EQ(State(), "desired=0 epoch=6 status=0 up=false");
}

TEST(RegisterMethod, NeedsBothParametersButNotTheirContent) {
  ExpectMissed("POST /ui/register", {"email", "password"}, "missing email/password");
  RegisteringMachine machine;
  CallWith("POST /ui/register", R"("email":"","password":"")");
  ASSERT_EQ(Sent().size(), 2u);
  EXPECT_EQ(SentBodies()[0], R"({"email":"","password":"","device_id":"desktop-ab12"})");
  EXPECT_EQ(SentBodies()[1], R"({"email":"","password":""})");
}

TEST(RegisterMethod, TurnsAParameterOfInvalidUtf8IntoAnEmptyOne) {
  RegisteringMachine machine;
  CallWith("POST /ui/register", "\"email\":\"u\xFF\",\"password\":\"\xC3\"");
  EXPECT_EQ(SentBodies(), (Lines{R"({"email":"","password":"","device_id":"desktop-ab12"})",
                                 R"({"email":"","password":""})"}));
}

TEST(RegisterMethod, LogsTheEmailButNoSecret) {
  RegisteringMachine machine;
  EXPECT_EQ(Register(), kLoggedIn);
  ASSERT_FALSE(sim::LogLines().empty());
  EXPECT_EQ(sim::LogLines()[0], "/v1/auth/register: User:user@example.com, device_id=desktop-ab12");
  for (const std::string word : {"secret", "access-1", "refresh-1"})
    EXPECT_EQ(sim::LogBytes().find(word), std::string::npos) << word;
}

// ---- Whether an email is registered ----

std::string IsRegistered(const std::string& email) {
  return CallWith("GET /ui/is-registered", R"("email":")" + email + '"');
}

std::string IsRegisteredFailure(const std::string& message) {
  return R"({"jsonrpc":"2.0","id":7,"result":{"registered":false},"error":{"message":")" + message + "\"}}";
}

TEST(IsRegisteredMethod, GivesTheAnswerBesideTheEmail) {
  for (const std::string answer : {"true", "false"}) {
    AccountMachine machine;
    SetAccountState();
    const std::string before = AccountState();
    machine.AnswerTo(kRegisteredPath, Answer(200, R"({"registered":)" + answer + "}"));
    EXPECT_EQ(IsRegistered("me@example.com"),
              ResultText(R"({"email":"me@example.com","registered":)" + answer + "}"));
    EXPECT_EQ(Sent(), Lines{"GET /v1/auth/registered?email=me%40example.com"});
    EXPECT_EQ(SentBearers(), Lines{""});
    EXPECT_EQ(AccountState(), before);
  }
}

TEST(IsRegisteredMethod, EchoesTheTrimmedEmailButSendsItsBlanks) {
  AccountMachine machine;
  machine.AnswerTo(kRegisteredPath, Answer(200, R"({"registered":true})"));
  EXPECT_EQ(IsRegistered("  a b@c "), ResultText(R"({"email":"a b@c","registered":true})"));
  EXPECT_EQ(Sent(), Lines{"GET /v1/auth/registered?email=%20%20a%20b%40c%20"});
  EXPECT_EQ(IsRegistered("\\t\\r\\n"), ResultText(R"({"email":"","registered":true})"));
}

TEST(IsRegisteredMethod, QuotesTheEmailAnew) {
  AccountMachine machine;
  machine.AnswerTo(kRegisteredPath, Answer(200, R"({"registered":true})"));
  EXPECT_EQ(IsRegistered(R"(a\"\\\/\u00e9\tb)"),
            ResultText("{\"email\":\"a\\\"\\\\/\xC3\xA9\\tb\",\"registered\":true}"));
}

TEST(IsRegisteredMethod, EchoesInvalidUtf8ButAsksForAnEmptyEmail) {
  AccountMachine machine;
  machine.AnswerTo(kRegisteredPath, Answer(200, R"({"registered":false})"));
  EXPECT_EQ(IsRegistered("u\xFF"), ResultText("{\"email\":\"u\xFF\",\"registered\":false}"));
  EXPECT_EQ(Sent(), Lines{"GET /v1/auth/registered?email="});
}

TEST(IsRegisteredMethod, FillsBothMembersWhenItFails) {
  const struct {
    sim::HttpResponse answer;
    const char* message;
  } cases[] = {{NoAnswer(), "is-registered transport failure"},
               {Answer(401, R"({"registered":true})"), "is-registered transport failure"},
               {Answer(204), "is-registered transport failure"},
               {Answer(200, "{}"), "is-registered response missing registered"}};
  for (const auto& one : cases) {
    AccountMachine machine;
    SetAccountState();
    const std::string before = AccountState();
    machine.AnswerTo(kRegisteredPath, one.answer);
    ExpectTrueReply(R"({"id":7,"method":"GET /ui/is-registered","email":"a"})",
                    IsRegisteredFailure(one.message));
    EXPECT_EQ(AccountState(), before);
  }
}

TEST(IsRegisteredMethod, NeedsTheEmailButNotItsContent) {
  ExpectMissed("GET /ui/is-registered", {"email"}, "missing email");
  AccountMachine machine;
  machine.AnswerTo(kRegisteredPath, Answer(200, R"({"registered":false})"));
  EXPECT_EQ(IsRegistered(""), ResultText(R"({"email":"","registered":false})"));
}

TEST(IsRegisteredMethod, EchoesAZeroByteEscapedWhereTheQueryEndsAtIt) {
  AccountMachine machine;
  machine.AnswerTo(kRegisteredPath, Answer(200, R"({"registered":true})"));
  EXPECT_EQ(IsRegistered(R"(a\u0000b)"), ResultText(R"({"email":"a\u0000b","registered":true})"));
  EXPECT_EQ(Sent(), Lines{"GET /v1/auth/registered?email=a"});
}

// ---- The start of a password reset ----

std::string StartReset(const std::string& email = "me@example.com") {
  return CallWith("POST /ui/password-reset/start", R"("email":")" + email + '"');
}

std::string StartFailure(const std::string& message) {
  return ResultText(
      R"({"ok":false,"request_id":null,"masked_email":null,"expires_in_seconds":0,"message":")" + message +
      "\"}");
}

TEST(PasswordResetStartMethod, HandsTheAnswerOn) {
  AccountMachine machine;
  SetAccountState();
  const std::string before = AccountState();
  machine.AnswerTo(kStartPath,
                   Answer(200, R"({"request_id":"r-1","masked_email":"m*@e*","expires_in_seconds":600})"));
  EXPECT_EQ(StartReset(), ResultText(R"({"ok":true,"request_id":"r-1","masked_email":"m*@e*",)"
                                     R"("expires_in_seconds":600,"message":"ok"})"));
  EXPECT_EQ(Sent(), Lines{kStartPath});
  EXPECT_EQ(SentBodies(), Lines{R"({"email":"me@example.com"})"});
  EXPECT_EQ(AccountState(), before);
}

TEST(PasswordResetStartMethod, QuotesTheTextsAndFillsInTheRest) {
  AccountMachine machine;
  machine.AnswerTo(kStartPath, Answer(200, R"({"request_id":"r\n","expires_in_seconds":"600"})"));
  EXPECT_EQ(StartReset(), ResultText(R"({"ok":true,"request_id":"r\\n","masked_email":"",)"
                                     R"("expires_in_seconds":900,"message":"ok"})"));
}

TEST(PasswordResetStartMethod, GivesTheReasonOfAFailure) {
  const struct {
    sim::HttpResponse answer;
    const char* message;
  } cases[] = {
      {NoAnswer(), "password reset start transport failure"},
      {Answer(500), "password reset start non-2xx: 500"},
      {Answer(404, R"({"error":"unknown","detail":"No such account."})"), "unknown: No such account."},
      {Answer(200, R"({"masked_email":"m"})"), "password reset start response missing request_id"},
      // Words of the server that are invalid UTF-8 leave no reason.
      {Answer(400, "{\"error\":\"\xFF\"}"), "password reset start failed"}};
  for (const auto& one : cases) {
    AccountMachine machine;
    SetAccountState();
    const std::string before = AccountState();
    machine.AnswerTo(kStartPath, one.answer);
    ExpectTrueReply(R"({"id":7,"method":"POST /ui/password-reset/start","email":"a"})",
                    StartFailure(one.message));
    EXPECT_EQ(AccountState(), before);
  }
}

TEST(PasswordResetStartMethod, NeedsTheEmailButNotItsContent) {
  ExpectMissed("POST /ui/password-reset/start", {"email"}, "missing email");
  AccountMachine machine;
  StartReset("");
  StartReset("u\xFF");
  EXPECT_EQ(SentBodies(), Lines(2, R"({"email":""})"));
}

// ---- The confirmation ----

constexpr char kResetDone[] = R"({"ok":true,"message":"password reset complete"})";
constexpr char kConfirmation[] = R"("email":"me@example.com","request_id":"r-1","code":"123456",)"
                                 R"("new_password":"fresh-one")";

const std::string kConfirmLine =
    std::string(R"({"id":7,"method":"POST /ui/password-reset/confirm",)") + kConfirmation + "}";

std::string ConfirmReset(const std::string& members) {
  return CallWith("POST /ui/password-reset/confirm", members);
}

TEST(PasswordResetConfirmMethod, HandsTheFourValuesOnAndDoesNotLogIn) {
  AccountMachine machine;
  SetAccountState();
  const std::string before = AccountState();
  machine.AnswerTo(kConfirmPath, Answer(204));
  ExpectTrueReply(kConfirmLine, ResultText(kResetDone));
  EXPECT_EQ(Sent(), Lines{kConfirmPath});
  EXPECT_EQ(SentBodies(), Lines{std::string("{") + kConfirmation + "}"});
  EXPECT_EQ(AccountState(), before);
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(PasswordResetConfirmMethod, GivesTheReasonOfAFailure) {
  const struct {
    sim::HttpResponse answer;
    const char* message;
  } cases[] = {{NoAnswer(), "password reset confirm transport failure"},
               {Answer(401), "password reset confirm non-2xx: 401"},
               {Answer(400, R"({"error":"bad_code"})"), "bad_code"},
               {Answer(400, R"({"error":"a\b"})"), R"(a\\b)"},
               {Answer(400, "{\"error\":\"\xFF\"}"), "password reset confirm failed"}};
  for (const auto& one : cases) {
    AccountMachine machine;
    SetAccountState();
    const std::string before = AccountState();
    machine.AnswerTo(kConfirmPath, one.answer);
    ExpectTrueReply(kConfirmLine, Refused(one.message));
    EXPECT_EQ(AccountState(), before);
    EXPECT_EQ(sim::LogBytes().find("fresh-one"), std::string::npos);
  }
}

TEST(PasswordResetConfirmMethod, NeedsAllFourParametersButNotTheirContent) {
  ExpectMissed("POST /ui/password-reset/confirm", {"email", "request_id", "code", "new_password"},
               "missing email/request_id/code/new_password");
  AccountMachine machine;
  machine.AnswerTo(kConfirmPath, Answer(200));
  EXPECT_EQ(ConfirmReset(R"("email":"","request_id":"","code":"","new_password":"")"),
            ResultText(kResetDone));
  EXPECT_EQ(
      ConfirmReset("\"email\":\"\xFF\",\"request_id\":\"\xFF\",\"code\":\"\xFF\",\"new_password\":\"\xFF\""),
      ResultText(kResetDone));
  EXPECT_EQ(SentBodies(), Lines(2, R"({"email":"","request_id":"","code":"","new_password":""})"));
}

// ---- All of them ----

std::string CallWithAll(const std::string& method, const std::string& email) {
  return CallWith(
      method, R"("email":")" + email + R"(","password":"p","request_id":"r","code":"c","new_password":"n")");
}

// A machine on which the control plane grants everything but the login, which it does not know.
struct GrantingMachine : AccountMachine {
  GrantingMachine() { AnswerTo("/v1/auth/", Answer(200, R"({"registered":true,"request_id":"r"})")); }
};

TEST(RegistrationMethods, HoldNoLockWhileTheyWait) {
  const struct {
    const char* method;
    Lines sent;
  } cases[] = {{"POST /ui/register", {kRegisterPath, "POST /v1/auth/login"}},
               {"GET /ui/is-registered", {"GET /v1/auth/registered?email=e"}},
               {"POST /ui/password-reset/start", {kStartPath}},
               {"POST /ui/password-reset/confirm", {kConfirmPath}}};
  for (const auto& one : cases) {
    GrantingMachine machine;
    const auto looks = LookForLocksBefore(Lines(one.sent.size(), "WinHttpSendRequest"));
    CallWithAll(one.method, "e");
    EXPECT_EQ(Sent(), one.sent);
    EXPECT_EQ(*looks, one.sent.size());
  }
}

TEST(RegistrationMethods, SendAZeroByteEscaped) {
  for (const char* method :
       {"POST /ui/register", "POST /ui/password-reset/start", "POST /ui/password-reset/confirm"}) {
    GrantingMachine machine;
    CallWithAll(method, R"(e\u0000e)");
    for (const std::string& body : SentBodies()) EXPECT_EQ(body.find(R"({"email":"e\u0000e")"), 0u) << body;
    EXPECT_NE(SentBodies(), Lines());
  }
}

}  // namespace
