// Login and logout over the pipe.
#include "ipc/account_methods.h"

#include <functional>

#include "tests/ipc/account_fixture.h"

namespace {

using namespace ipc_test;

const std::string kLoggedOut =
    ResultText(R"({"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"})");

constexpr char kLogoutLine[] = R"({"id":7,"method":"POST /ui/logout"})";

std::string LogIn(const std::string& email = "user@example.com", const std::string& password = "secret") {
  return CallWith("POST /ui/login", R"("email":")" + email + R"(","password":")" + password + '"');
}

// ---- Login ----

TEST(LoginMethod, StoresTheSession) {
  AccountMachine machine;
  gAuthRequired = true;
  gLastError = L"HANDSHAKE_TIMEOUT";
  EXPECT_EQ(LogIn(), kLoggedIn);
  SessionRecord session;
  EXPECT_TRUE(LoadSession(session));
  EXPECT_EQ(session.access_token, L"access-1");
  EXPECT_EQ(session.refresh_token, L"refresh-1");
  EXPECT_EQ(gCachedAccessToken, L"access-1");
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(gLastError, L"");
  EXPECT_TRUE(sim::FileExists(kPrivateKeyFile));
}

TEST(LoginMethod, SavesTheSessionTwice) {
  AccountMachine machine;
  EXPECT_EQ(LogIn(), kLoggedIn);
  EXPECT_EQ(WritesOf(kSessionFile), 2u);
}

TEST(LoginMethod, NeverStartsAConnection) {
  AccountMachine machine;
  SetState(1, 5, 3, false);
  EXPECT_EQ(LogIn(), kLoggedIn);
  EXPECT_EQ(State(), "desired=1 epoch=5 status=3 up=false");
  EXPECT_EQ(gOperations.calls, Lines{});
}

TEST(LoginMethod, SendsTheParametersUnescapedAndQuotedAnew) {
  AccountMachine machine;
  LogIn("us\\u00e9r", "a\\\"b\\\\c\\td/");
  ASSERT_EQ(sim::HttpRequests().size(), 1u);
  const sim::HttpRequest request = sim::HttpRequests()[0];
  EXPECT_EQ(request.verb + " " + request.path8, "POST /v1/auth/login");
  EXPECT_EQ(request.body, "{\"email\":\"us\xC3\xA9r\",\"password\":\"a\\\"b\\\\c\\td/\"}");
}

TEST(LoginMethod, TurnsAParameterOfInvalidUtf8IntoAnEmptyOne) {
  AccountMachine machine;
  LogIn("us\xFFr", "secret");
  ASSERT_EQ(sim::HttpRequests().size(), 1u);
  EXPECT_EQ(sim::HttpRequests()[0].body, R"({"email":"","password":"secret"})");
}

TEST(LoginMethod, NeedsBothParametersButNotTheirContent) {
  ExpectMissed("POST /ui/login", {"email", "password"}, "missing email/password");
  AccountMachine machine;
  LogIn("", "");
  EXPECT_EQ(SentBodies(), Lines{R"({"email":"","password":""})"});
}

TEST(LoginMethod, GivesTheReasonOfARefusalAndChangesNothing) {
  AccountMachine machine;
  SetAccountState();
  const std::string before = AccountState();
  ExpectTrueReply(R"({"id":7,"method":"POST /ui/login","email":"user@example.com","password":"wrong"})",
                  Refused("login non-2xx: 401"));
  EXPECT_EQ(AccountState(), before);
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(LoginMethod, ReadsItsParametersWhereverTheyStand) {
  AccountMachine machine;
  EXPECT_EQ(ReplyTo(R"({"password":"secret","id":7,"email":"user@example.com","method":"POST /ui/login"})"),
            kLoggedIn);
}

TEST(LoginMethod, KeepsWhatTheLoginDidWhenTheLockFails) {
  AccountMachine machine;
  SetAccountState();
  sim::FailLock(gSessionMutex);
  EXPECT_EQ(LogIn(), kLockFailed);
  EXPECT_NE(StoredSession(), "");
  EXPECT_EQ(gCachedAccessToken, L"access-0");
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
}

TEST(LoginMethod, EmptiesTheLastErrorLast) {
  AccountMachine machine;
  SetAccountState();
  sim::FailLock(gLastErrorMutex);
  EXPECT_EQ(LogIn(), kLockFailed);
  EXPECT_EQ(gCachedAccessToken, L"access-1");
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
}

TEST(LoginMethod, HoldsNoLockWhileItWaits) {
  AccountMachine machine;
  const auto looks = LookForLocksBefore({"WinHttpSendRequest", "WinHttpReceiveResponse", "BCryptGenRandom",
                                         "CryptProtectData", "CryptProtectData"});
  EXPECT_EQ(LogIn(), kLoggedIn);
  EXPECT_EQ(*looks, 5u);
}

TEST(LoginMethod, SendsAZeroByteEscaped) {
  AccountMachine machine;
  LogIn(R"(a\u0000b)", R"(\u0000)");
  EXPECT_EQ(SentBodies(), Lines{R"({"email":"a\u0000b","password":"\u0000"})"});
}

TEST(LoginMethod, GivesTheReasonOfAnUnreachableControlPlane) {
  AccountMachine machine;
  sim::SetHttpHandler([](const sim::HttpRequest&) { return sim::HttpResponse{.failSend = 12029}; });
  EXPECT_EQ(LogIn(), Refused("login transport failure"));
}

TEST(LoginMethod, FailsWhenTheKeysAreNotRotatedThoughTheSessionIsSaved) {
  AccountMachine machine;
  sim::Fail({.operation = "BCryptGenRandom", .times = UINT32_MAX});
  EXPECT_EQ(LogIn(), Refused("login ok but active WG key rotation failed"));
  SessionRecord session;
  EXPECT_TRUE(LoadSession(session));
  EXPECT_EQ(gCachedAccessToken, L"");
}

TEST(LoginMethod, RequiresAuthenticationWhenItsOwnSaveFails) {
  AccountMachine machine;
  gAuthRequired = true;
  gLastError = L"AUTH_REQUIRED";
  sim::Fail({.operation = "CryptProtectData", .skip = 1});
  EXPECT_EQ(LogIn(),
            ResultText(R"({"ok":false,"auth_state":"AUTH_REQUIRED","message":"save session failed"})"));
  EXPECT_EQ(gCachedAccessToken, L"");
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
  // What the login itself saved stands, and the status goes by that.
  SessionRecord session;
  EXPECT_TRUE(LoadSession(session));
  EXPECT_EQ(Call("GET /ui/status").find(R"({"jsonrpc":"2.0","id":7,"result":{"auth_state":"AUTH_OK",)"), 0u);
}

TEST(LoginMethod, DoesNotLogThePasswordOrTheTokens) {
  AccountMachine machine;
  EXPECT_EQ(LogIn("user@example.com", "secret"), kLoggedIn);
  for (const std::string word : {"secret", "access-1", "refresh-1"})
    EXPECT_EQ(sim::LogBytes().find(word), std::string::npos) << word;
}

// ---- Beside each other ----

// `action` runs as another thread's turn just before a login closes the session file of its second save: what
// is left to it then is in memory.
void AtTheEndOfTheLastSave(const std::function<void()>& action) {
  sim::Before("BCryptGenRandom", [action] {
    sim::Before("CryptProtectData", [action] { sim::Before("CloseHandle", action); });
  });
}

TEST(LoginMethod, TheLoginThatIsAnsweredLaterWins) {
  AccountMachine machine;
  Lines replies;
  sim::HttpResponse slow =
      Answer(200, R"({"access_token":"slow","refresh_token":"r","expires_at":1900000000})");
  slow.milliseconds = 2000;
  machine.AnswerTo("POST /v1/auth/login", slow);
  sim::StartThread("slow", [&replies] { replies.push_back(LogIn()); });
  sim::Run(1000);
  machine.plane.overrides.clear();
  EXPECT_EQ(LogIn(), kLoggedIn);
  EXPECT_EQ(gCachedAccessToken, L"access-1");
  EXPECT_EQ(replies, Lines());
  sim::Run(5000);
  EXPECT_EQ(replies, Lines{kLoggedIn});
  EXPECT_EQ(gCachedAccessToken, L"slow");
  EXPECT_EQ(StoredSession(), slow.body);
}

// The later save and the later assignment need not be of the same login; wanted.
TEST(LoginMethod, OneOfTwoMayWinTheFileAndTheOtherTheMemory) {
  AccountMachine machine;
  std::string other;
  AtTheEndOfTheLastSave([&machine, &other] {
    machine.plane.accessToken = "access-2";
    other = LogIn();
    EXPECT_EQ(gCachedAccessToken, L"access-2");
  });
  EXPECT_EQ(LogIn(), kLoggedIn);
  EXPECT_EQ(other, kLoggedIn);
  EXPECT_NE(StoredSession().find(R"("access_token":"access-2")"), std::string::npos);
  EXPECT_EQ(gCachedAccessToken, L"access-1");
}

// Nothing guards against it: the login goes on and ends as any other. Only the intent of the logout stays.
TEST(LoginMethod, OutlivesALogoutInItsMidst) {
  for (const char* operation : {"WinHttpSendRequest", "BCryptGenRandom"}) {
    SCOPED_TRACE(operation);
    AccountMachine machine;
    SetAccountState();
    std::string other;
    sim::Before(operation, [&other] { other = Call("POST /ui/logout"); });
    EXPECT_EQ(LogIn(), kLoggedIn);
    EXPECT_EQ(other, kLoggedOut);
    EXPECT_NE(StoredSession().find(R"("access_token":"access-1")"), std::string::npos);
    EXPECT_EQ(gCachedAccessToken, L"access-1");
    EXPECT_FALSE(gAuthRequired);
    EXPECT_EQ(gLastError, L"");
    EXPECT_EQ(State(), "desired=0 epoch=6 status=0 up=false");
    EXPECT_EQ(gOperations.calls, Lines{At("RollbackToOpen", State())});
  }
}

// ---- Logout ----

TEST(LogoutMethod, ForgetsTheSessionAndOpensTheFirewall) {
  AccountMachine machine;
  EXPECT_EQ(LogIn(), kLoggedIn);
  sim::PutFile(kLegacyTokenFile, "old");
  sim::PutFile(kDeviceIdFile, "device\r\n");
  SetState(1, 5, 2, true);
  gUiServers = {ServerRecord{}};
  gSelectedServerId = "srv-a";
  gSelectedServer.id = "srv-a";
  gSelectedServerValid = true;
  sim::ClearHttpRequests();

  EXPECT_EQ(Call("POST /ui/logout"), kLoggedOut);
  const std::string written = "desired=0 epoch=6 status=0 up=false";
  // The tunnel service is left to the worker.
  EXPECT_EQ(gOperations.calls, Lines{At("RollbackToOpen", written)});
  EXPECT_EQ(gCachedAccessToken, L"");
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
  EXPECT_EQ(gUiServers.size(), 0u);
  EXPECT_EQ(gSelectedServerId, "");
  EXPECT_EQ(gSelectedServer.id, "");
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_FALSE(sim::FileExists(kSessionFile));
  EXPECT_FALSE(sim::FileExists(kLegacyTokenFile));
  EXPECT_TRUE(sim::FileExists(kDeviceIdFile));
  EXPECT_TRUE(sim::FileExists(kPrivateKeyFile));
  EXPECT_EQ(sim::HttpRequests().size(), 0u);
}

TEST(LogoutMethod, SucceedsWithoutASessionAndRunsAllItsSteps) {
  AccountMachine machine;
  ExpectTrueReply(kLogoutLine, kLoggedOut);
  EXPECT_EQ(gOperations.calls, Lines{At("RollbackToOpen", "desired=0 epoch=1 status=0 up=false")});
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
  EXPECT_EQ(sim::CountCalls("DeleteFileW"), 2u);
}

// A lock that fails ends it where it stands, and the client gets the exception instead of the fixed result.
TEST(LogoutMethod, EndsAtTheLockThatFails) {
  const struct {
    platform::Mutex* lock;
    const wchar_t* token;
    bool sessionStays;
    const char* selected;
    bool authRequired;
  } cases[] = {{&gSessionMutex, L"access-0", true, "srv-a", false},
               {&gUiLock, L"", false, "srv-a", false},
               {&gLastErrorMutex, L"", false, "", true}};
  for (const auto& one : cases) {
    AccountMachine machine;
    SetAccountState();
    gAuthRequired = false;
    gSelectedServerId = "srv-a";
    PutSession("access-0", 3600);
    const std::string before = State();
    sim::FailLock(*one.lock);
    ExpectTrueReply(kLogoutLine, kLockFailed);
    EXPECT_EQ(gCachedAccessToken, one.token);
    EXPECT_EQ(sim::FileExists(kSessionFile), one.sessionStays);
    EXPECT_EQ(gSelectedServerId, one.selected);
    EXPECT_EQ(gAuthRequired, one.authRequired);
    EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
    EXPECT_EQ(State(), before);
    EXPECT_EQ(gOperations.calls, Lines());
  }
}

TEST(LogoutMethod, ShowsAtOnce) {
  AccountMachine machine;
  EXPECT_EQ(LogIn(), kLoggedIn);
  SetState(1, 5, 2, true);
  EXPECT_EQ(Call("POST /ui/logout"), kLoggedOut);
  EXPECT_NE(Call("GetState").find(R"("state":"disconnected")"), std::string::npos);
  const std::string status = Call("GET /ui/status");
  EXPECT_NE(status.find(R"("auth_state":"AUTH_REQUIRED","last_error":"AUTH_REQUIRED")"), std::string::npos)
      << status;
}

}  // namespace
