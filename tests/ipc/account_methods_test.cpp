// Login and logout over the pipe.
#include "ipc/account_methods.h"

#include <gtest/gtest.h>

#include "controlplane/base_url.h"
#include "controlplane/session.h"
#include "tests/ipc/ipc_fixture.h"

namespace {

using namespace ipc_test;

const std::string kLoggedIn = ResultText(R"({"ok":true,"auth_state":"AUTH_OK","message":"registered"})");
const std::string kLoggedOut =
    ResultText(R"({"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"})");

std::string Refused(const std::string& message) {
  return ResultText(R"({"ok":false,"message":")" + message + "\"}");
}

std::string LogIn(const std::string& email = "user@example.com", const std::string& password = "secret") {
  return ReplyTo(R"({"id":7,"method":"POST /ui/login","params":{"email":")" + email + R"(","password":")" +
                 password + R"("}})");
}

// A machine with a control plane and without an account.
struct AccountMachine {
  AccountMachine() {
    WireRecordedOperations();
    sim::UseControlPlane();
  }
  sim::Machine machine;
};

size_t SessionWrites() {
  return sim::CountCalls("CryptProtectData");
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
  EXPECT_EQ(SessionWrites(), 2u);
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
  for (const std::string fields : {"", R"(,"email":"a")", R"(,"password":"b")",
                                   R"(,"email":5,"password":"b")", R"(,"email":"a","password":null)"}) {
    SCOPED_TRACE(fields);
    AccountMachine machine;
    std::string reply;
    EXPECT_TRUE(HandleIpcRequest(R"({"id":7,"method":"POST /ui/login")" + fields + "}", reply));
    EXPECT_EQ(reply, ErrorText("missing email/password"));
    EXPECT_EQ(sim::HttpRequests().size(), 0u);
  }
  AccountMachine machine;
  LogIn("", "");
  ASSERT_EQ(sim::HttpRequests().size(), 1u);
  EXPECT_EQ(sim::HttpRequests()[0].body, R"({"email":"","password":""})");
}

TEST(LoginMethod, GivesTheReasonOfARefusalAndChangesNothing) {
  AccountMachine machine;
  sim::SetHttpHandler([](const sim::HttpRequest&) { return sim::HttpResponse{.status = 401, .body = "no"}; });
  gLastError = L"AUTH_REQUIRED";
  gAuthRequired = true;
  gCachedAccessToken = L"access-0";
  std::string reply;
  EXPECT_TRUE(HandleIpcRequest(R"({"id":7,"method":"POST /ui/login","email":"a","password":"b"})", reply));
  EXPECT_EQ(reply, Refused("login non-2xx: 401"));
  EXPECT_EQ(gLastError, L"AUTH_REQUIRED");
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(gCachedAccessToken, L"access-0");
  EXPECT_FALSE(sim::FileExists(kSessionFile));
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
    EXPECT_EQ(sim::LogCount(word), 0u) << word;
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

// ---- The other account methods ----

TEST(AccountMethods, WithoutABodyAreUnknown) {
  AccountMachine machine;
  for (const std::string name :
       {"GET /ui/is-registered", "POST /ui/register", "POST /ui/password-reset/start",
        "POST /ui/password-reset/confirm", "GET /ui/entitlement", "GET /ui/quota",
        "POST /ui/billing/checkout", "GET /ui/account-page-url"}) {
    EXPECT_EQ(Call(name), ErrorText("IPC: unknown method")) << name;
  }
}

}  // namespace
