// Login: the request, the answers that count, the session and the key pair that it leaves.
#include "controlplane/auth.h"
#include "controlplane/base_url.h"
#include "controlplane_fixture.h"
#include "engine/tunnel_state.h"

namespace {

constexpr char kGoodAnswer[] = R"({"access_token":"acc","refresh_token":"ref","expires_at":1800000000})";

struct Outcome {
  bool ok = false;
  SessionRecord session = {L"stale", L"stale", 99};
  std::wstring error = L"stale";
};

Outcome LogIn(const std::wstring& email = L"me@example.com", const std::wstring& password = L"word") {
  Outcome outcome;
  outcome.ok = Login(email, password, outcome.session, outcome.error);
  return outcome;
}

Outcome LogInWith(const sim::HttpResponse& answer) {
  AnswerInTurn({answer});
  return LogIn();
}

void ExpectRefused(const Outcome& outcome, const wchar_t* error) {
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, error);
  EXPECT_EQ(outcome.session.access_token, L"");
  EXPECT_EQ(outcome.session.refresh_token, L"");
  EXPECT_EQ(outcome.session.expires_at, 0);
}

TEST(Login, SendsEmailAndPasswordToTheBaseUrlOfTheAccountCalls) {
  sim::Machine machine;
  gCpBaseUrl = L"https://plane.test:9443/";
  AnswerInTurn({Answer(200, kGoodAnswer)});
  EXPECT_TRUE(LogIn(L"m\u00E9@example.com", L"a\"b\\c").ok);
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  const sim::HttpRequest& request = sim::HttpRequests()[0];
  EXPECT_EQ(request.verb, "POST");
  EXPECT_EQ(request.host, L"plane.test");
  EXPECT_EQ(request.port, 9443);
  EXPECT_EQ(request.path, L"/v1/auth/login");
  EXPECT_EQ(request.headers, L"Accept: application/json\r\nContent-Type: application/json\r\n");
  EXPECT_EQ(request.body, "{\"email\":\"m\xC3\xA9@example.com\",\"password\":\"a\\\"b\\\\c\"}");
  EXPECT_EQ(gCpBaseUrl, L"https://plane.test:9443/");
}

TEST(Login, SavesTheSessionAndRotatesTheKeyPair) {
  sim::Machine machine;
  gCachedAccessToken = L"cached";
  sim::PutFile(kPrivateKeyFile, "old private\r\n");
  sim::PutFile(kPublicKeyFile, "old public\r\n");
  const Outcome outcome = LogInWith(Answer(200, kGoodAnswer));
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.error, L"");
  EXPECT_EQ(outcome.session.access_token, L"acc");
  EXPECT_EQ(outcome.session.refresh_token, L"ref");
  EXPECT_EQ(outcome.session.expires_at, 1800000000);
  EXPECT_EQ(StoredSession(), kGoodAnswer);
  EXPECT_EQ(gCachedAccessToken, L"cached");
  EXPECT_EQ(sim::FileBytes(kPrivateKeyFile).value_or("").size(), 46U);
  EXPECT_EQ(sim::FileBytes(kPublicKeyFile).value_or("").size(), 46U);
  EXPECT_EQ(sim::LogLines(), Lines({"RotateActiveBootstrapWgKeypair: begin",
                                    "RotateActiveBootstrapWgKeypair: keypair generated",
                                    "RotateActiveBootstrapWgKeypair: private key written",
                                    "RotateActiveBootstrapWgKeypair: public key written; success",
                                    "Auth: rotated active WG keypair after /v1/auth/login"}));
}

TEST(Login, EachLoginMakesAKeyPairOfItsOwnAndSendsNothingOfIt) {
  sim::Machine machine;
  EXPECT_TRUE(LogInWith(Answer(200, kGoodAnswer)).ok);
  const std::string first = sim::FileBytes(kPublicKeyFile).value_or("");
  EXPECT_TRUE(LogInWith(Answer(200, kGoodAnswer)).ok);
  EXPECT_NE(sim::FileBytes(kPublicKeyFile).value_or(""), first);
  EXPECT_EQ(Sent(), Lines({"POST /v1/auth/login", "POST /v1/auth/login"}));
}

TEST(Login, TakesEveryStatusFrom200To299) {
  for (const uint32_t status : {200U, 201U, 204U, 299U}) {
    SCOPED_TRACE(status);
    sim::Machine machine;
    EXPECT_TRUE(LogInWith(Answer(status, kGoodAnswer)).ok);
  }
}

TEST(Login, TrimsTheTokensAndTakesTokenInPlaceOfAccessToken) {
  sim::Machine machine;
  const Outcome outcome =
      LogInWith(Answer(200, "{\"token\":\" acc\\t\",\"refresh_token\":\"\tref \",\"expires_at\":7}"));
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.session.access_token, L"acc\\t");
  EXPECT_EQ(outcome.session.refresh_token, L"ref");
  EXPECT_EQ(outcome.session.expires_at, 7);
}

TEST(Login, TellsTheTransportFailure) {
  for (const sim::HttpResponse& answer : {NoAnswer(), BrokenAnswer(200, kGoodAnswer)}) {
    sim::Machine machine;
    ExpectRefused(LogInWith(answer), L"login transport failure");
  }
}

TEST(Login, TellsTheStatusWithoutLookingAtTheBody) {
  const struct {
    uint32_t status;
    const wchar_t* error;
  } cases[] = {{300, L"login non-2xx: 300"}, {401, L"login non-2xx: 401"}, {500, L"login non-2xx: 500"}};
  for (const auto& one : cases) {
    sim::Machine machine;
    ExpectRefused(LogInWith(Answer(one.status, kGoodAnswer)), one.error);
  }
  sim::Machine machine;
  sim::Fail({.operation = "WinHttpQueryHeaders"});
  ExpectRefused(LogInWith(Answer(200, kGoodAnswer)), L"login non-2xx: 0");
}

TEST(Login, TellsTheFirstMissingField) {
  const struct {
    const char* body;
    const wchar_t* error;
  } cases[] = {{"", L"login response missing access_token"},
               {R"({"error":1})", L"login response missing access_token"},
               {R"({"access_token":"a"})", L"login response missing refresh_token"},
               {R"({"access_token":"a","expires_at":5})", L"login response missing refresh_token"},
               {R"({"access_token":"a","refresh_token":"r"})", L"login response missing expires_at"},
               {R"({"access_token":"a","refresh_token":"r","expires_at":"2030-01-01"})",
                L"login response missing expires_at"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.body);
    sim::Machine machine;
    ExpectRefused(LogInWith(Answer(200, one.body)), one.error);
  }
}

TEST(Login, ARefusedLoginLeavesSessionCacheAndKeys) {
  for (const sim::HttpResponse& answer : {NoAnswer(), Answer(401), Answer(200, "{}")}) {
    sim::Machine machine;
    gCachedAccessToken = L"cached";
    StoreSession("access-1", 1000);
    const std::string stored = StoredSession();
    EXPECT_FALSE(LogInWith(answer).ok);
    EXPECT_EQ(StoredSession(), stored);
    EXPECT_EQ(gCachedAccessToken, L"cached");
    EXPECT_FALSE(sim::FileExists(kPrivateKeyFile));
    EXPECT_EQ(sim::LogCount("Auth: "), 0U);
    EXPECT_EQ(sim::LogCount("RotateActiveBootstrapWgKeypair"), 0U);
  }
}

TEST(Login, FailsWhenTheSessionCannotBeSaved) {
  sim::Machine machine;
  sim::Fail({.operation = "CryptProtectData"});
  const Outcome outcome = LogInWith(Answer(200, kGoodAnswer));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, L"login ok but SaveSession failed");
  EXPECT_EQ(outcome.session.access_token, L"acc");
  EXPECT_EQ(sim::LogLines(), Lines({"Auth: SaveSession failed after /v1/auth/login"}));
  EXPECT_FALSE(sim::FileExists(kPrivateKeyFile));
}

TEST(Login, FailsWhenTheKeysCannotBeRotatedThoughTheSessionIsSaved) {
  sim::Machine machine;
  gCachedAccessToken = L"cached";
  sim::Fail({.operation = "MoveFileExW", .code = 5, .argumentsContain = "wg_client_publickey.txt"});
  sim::PutFile(kPrivateKeyFile, "old private\r\n");
  sim::PutFile(kPublicKeyFile, "old public\r\n");
  const Outcome outcome = LogInWith(Answer(200, kGoodAnswer));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, L"login ok but active WG key rotation failed");
  EXPECT_EQ(outcome.session.access_token, L"acc");
  EXPECT_EQ(StoredSession(), kGoodAnswer);
  EXPECT_EQ(gCachedAccessToken, L"cached");
  EXPECT_NE(sim::FileBytes(kPrivateKeyFile), "old private\r\n");
  EXPECT_EQ(sim::FileBytes(kPublicKeyFile), "old public\r\n");
  ASSERT_FALSE(sim::LogLines().empty());
  EXPECT_EQ(sim::LogLines().back(), "Auth: RotateActiveBootstrapWgKeypair failed after /v1/auth/login");
  EXPECT_EQ(sim::LogCount("Auth: "), 1U);
}

TEST(Login, HoldsNoLockAcrossTheNetworkTheSaveAndTheKeys) {
  sim::Machine machine;
  const auto looks = LookForLocksBefore(
      {"WinHttpSendRequest", "WinHttpReceiveResponse", "CryptProtectData", "BCryptGenRandom"});
  EXPECT_TRUE(LogInWith(Answer(200, kGoodAnswer)).ok);
  EXPECT_EQ(*looks, 4U);
}

TEST(Login, NeverLogsEmailPasswordOrToken) {
  for (const sim::HttpResponse& answer : {NoAnswer(), Answer(401, kGoodAnswer), Answer(200, kGoodAnswer)}) {
    sim::Machine machine;
    LogInWith(answer);
    for (const char* text : {"me@example.com", "word", "\"acc\"", "\"ref\""}) {
      EXPECT_EQ(sim::LogBytes().find(text), std::string::npos) << text;
    }
  }
}

}  // namespace
