// Login and logout over the pipe.
#include "ipc/account_methods.h"

#include <system_error>

#include "tests/ipc/account_fixture.h"

namespace {

using namespace ipc_test;

const std::string kLoggedOut =
    ResultText(R"({"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"})");

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
  const std::string text =
      std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur)).what();
  EXPECT_EQ(LogIn(), ErrorText(text));
  EXPECT_NE(StoredSession(), "");
  EXPECT_EQ(gCachedAccessToken, L"access-0");
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
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
  // What the login itself saved stands.
  SessionRecord session;
  EXPECT_TRUE(LoadSession(session));
}

TEST(LoginMethod, DoesNotLogThePasswordOrTheTokens) {
  AccountMachine machine;
  EXPECT_EQ(LogIn("user@example.com", "secret"), kLoggedIn);
  for (const std::string word : {"secret", "access-1", "refresh-1"})
    EXPECT_EQ(sim::LogBytes().find(word), std::string::npos) << word;
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
  EXPECT_EQ(Call("POST /ui/logout"), kLoggedOut);
  EXPECT_EQ(gOperations.calls, Lines{At("RollbackToOpen", "desired=0 epoch=1 status=0 up=false")});
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
  EXPECT_EQ(sim::CountCalls("DeleteFileW"), 2u);
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
