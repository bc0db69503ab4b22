// RefreshSession: the exchange of the refresh token, and what its answers mean.
#include "controlplane/auth.h"
#include "controlplane/base_url.h"
#include "controlplane_fixture.h"
#include "engine/tunnel_state.h"

namespace {

struct Outcome {
  bool ok = false;
  SessionRecord session = {L"old access", L"old refresh", 11};
  std::wstring error = L"stale";
};

Outcome RefreshWith(const sim::HttpResponse& answer) {
  AnswerInTurn({answer});
  Outcome outcome;
  outcome.ok = RefreshSession(kBase, outcome.session, outcome.error);
  return outcome;
}

void ExpectUnchanged(const Outcome& outcome, const std::wstring& error) {
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, error);
  EXPECT_EQ(outcome.session.access_token, L"old access");
  EXPECT_EQ(outcome.session.refresh_token, L"old refresh");
  EXPECT_EQ(outcome.session.expires_at, 11);
}

TEST(RefreshSession, SendsTheRefreshTokenToTheGivenBaseUrl) {
  sim::Machine machine;
  gCpBaseUrl = L"https://elsewhere.test";
  AnswerInTurn({Answer(200, R"({"access_token":"a","expires_at":5})")});
  SessionRecord session = {L"access", L"r\"\\\u00E9", 11};
  std::wstring error;
  EXPECT_TRUE(RefreshSession(L"https://plane.test:9443/", session, error));
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  const sim::HttpRequest& request = sim::HttpRequests()[0];
  EXPECT_EQ(request.verb, "POST");
  EXPECT_EQ(request.host, L"plane.test");
  EXPECT_EQ(request.path, L"/v1/auth/refresh");
  EXPECT_EQ(request.headers, L"Accept: application/json\r\nContent-Type: application/json\r\n");
  EXPECT_EQ(request.body, "{\"refresh_token\":\"r\\\"\\\\\xC3\xA9\"}");
}

TEST(RefreshSession, ReplacesTheFieldsAndSaves) {
  sim::Machine machine;
  gCachedAccessToken = L"cached";
  const Outcome outcome =
      RefreshWith(Answer(200, R"({"access_token":" new ","refresh_token":" newer ","expires_at":12})"));
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.error, L"");
  EXPECT_EQ(outcome.session.access_token, L"new");
  EXPECT_EQ(outcome.session.refresh_token, L"newer");
  EXPECT_EQ(outcome.session.expires_at, 12);
  EXPECT_EQ(StoredSession(), R"({"access_token":"new","refresh_token":"newer","expires_at":12})");
  EXPECT_EQ(gCachedAccessToken, L"cached");
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(RefreshSession, KeepsTheOldRefreshTokenWhenTheAnswerHasNone) {
  for (const char* body : {R"({"access_token":"new","expires_at":12})",
                           R"({"access_token":"new","refresh_token":"","expires_at":12})",
                           R"({"access_token":"new","refresh_token":"  ","expires_at":12})",
                           // No text once it is converted.
                           "{\"access_token\":\"new\",\"refresh_token\":\"r\xFF\",\"expires_at\":12}"}) {
    SCOPED_TRACE(body);
    sim::Machine machine;
    EXPECT_TRUE(RefreshWith(Answer(200, body)).ok);
    EXPECT_EQ(StoredSession(), R"({"access_token":"new","refresh_token":"old refresh","expires_at":12})");
  }
}

TEST(RefreshSession, TakesTokenInPlaceOfAccessTokenAndEvery2xx) {
  sim::Machine machine;
  const Outcome outcome = RefreshWith(Answer(299, R"({"token":"new","expires_at":12})"));
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.session.access_token, L"new");
}

TEST(RefreshSession, TellsTheFirstMissingField) {
  const struct {
    const char* body;
    const wchar_t* error;
  } cases[] = {{"", L"refresh response missing access_token"},
               {R"({"refresh_token":"r","expires_at":12})", L"refresh response missing access_token"},
               {R"({"access_token":"new"})", L"refresh response missing expires_at"},
               {R"({"access_token":"new","expires_at":"12"})", L"refresh response missing expires_at"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.body);
    sim::Machine machine;
    ExpectUnchanged(RefreshWith(Answer(200, one.body)), one.error);
    EXPECT_FALSE(sim::FileExists(kSessionFile));
  }
}

TEST(RefreshSession, TellsTheTransportFailure) {
  for (const sim::HttpResponse& answer : {NoAnswer(), BrokenAnswer(400, R"({"error":"refresh_expired"})")}) {
    sim::Machine machine;
    ExpectUnchanged(RefreshWith(answer), L"refresh transport failure");
  }
}

TEST(RefreshSession, NamesTheReasonOfARefusal) {
  const struct {
    uint32_t status;
    const char* body;
    const wchar_t* error;
  } cases[] = {{400, R"({"error":"refresh_expired"})", L"SESSION_EXPIRED"},
               {401, R"({"error":" refresh_expired "})", L"SESSION_EXPIRED"},
               {400, R"({"error":"Refresh_Expired"})", L"Refresh_Expired"},
               {403, "{\"error\":\" caf\xC3\xA9 closed\t\"}", L"caf\u00E9 closed"},
               {400, "{\"error\":\"\xC3\"}", L""},
               {500, "", L"refresh non-2xx: 500"},
               {302, R"({"error":""})", L"refresh non-2xx: 302"},
               {429, R"({"error":"  "})", L"refresh non-2xx: 429"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.body);
    sim::Machine machine;
    StoreSession("access-1", 1000);
    const std::string stored = StoredSession();
    ExpectUnchanged(RefreshWith(Answer(one.status, one.body)), one.error);
    EXPECT_EQ(StoredSession(), stored);
  }
}

TEST(RefreshSession, HoldsNoLockAcrossTheNetworkAndTheSave) {
  sim::Machine machine;
  const auto looks = LookForLocksBefore({"WinHttpSendRequest", "WinHttpReceiveResponse", "CryptProtectData"});
  EXPECT_TRUE(RefreshWith(Answer(200, R"({"access_token":"new","expires_at":12})")).ok);
  EXPECT_EQ(*looks, 3U);
}

TEST(RefreshSession, AFailedSaveHasNoErrorText) {
  sim::Machine machine;
  sim::Fail({.operation = "CryptProtectData"});
  const Outcome outcome = RefreshWith(Answer(200, R"({"access_token":"new","expires_at":12})"));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, L"");
  EXPECT_FALSE(sim::FileExists(kSessionFile));
}

}  // namespace
