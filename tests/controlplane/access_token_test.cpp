// EnsureValidAccessToken: the gate through which every authenticated call gets its token.
#include <mutex>
#include <system_error>

#include "controlplane/auth.h"
#include "controlplane/base_url.h"
#include "controlplane_fixture.h"
#include "engine/tunnel_state.h"

namespace {

constexpr wchar_t kNoSession[] = L"no session: C:\\ProgramData\\TELVOR\\auth\\session.dat";

struct Outcome {
  bool ok = false;
  std::wstring token = L"stale";
  std::wstring error = L"stale";
};

Outcome Ensure() {
  Outcome outcome;
  outcome.ok = EnsureValidAccessToken(kBase, outcome.token, outcome.error);
  return outcome;
}

void ExpectToken(const Outcome& outcome, const wchar_t* token) {
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.token, token);
  EXPECT_EQ(outcome.error, L"");
}

void ExpectRefused(const Outcome& outcome, const wchar_t* error) {
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, error);
}

// What the refresh answers in these tests; good for an hour.
sim::HttpResponse NewToken() {
  return Answer(200,
                "{\"access_token\":\"new\",\"expires_at\":" + std::to_string(sim::UnixTime() + 3600) + "}");
}

TEST(EnsureValidAccessToken, NamesThePathWithoutASession) {
  sim::Machine machine;
  ExpectRefused(Ensure(), kNoSession);
  EXPECT_EQ(Ensure().token, L"");
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(EnsureValidAccessToken, TheFileDecidesNotTheCache) {
  sim::Machine machine;
  StoreSession("file", 1000);
  ExpectToken(Ensure(), L"file");
  sim::RemoveFile(kSessionFile);
  ExpectRefused(Ensure(), kNoSession);
  EXPECT_EQ(gCachedAccessToken, L"file");
}

TEST(EnsureValidAccessToken, FillsTheCacheFromTheFile) {
  sim::Machine machine;
  StoreSession("file", 1000);
  ExpectToken(Ensure(), L"file");
  EXPECT_EQ(gCachedAccessToken, L"file");
  EXPECT_EQ(sim::HttpRequests().size(), 0U);
  EXPECT_EQ(sim::CountCalls("CryptProtectData"), 0U);
}

TEST(EnsureValidAccessToken, GivesTheCacheThoughTheFileSaysOtherwise) {
  sim::Machine machine;
  StoreSession("file", 300);
  gCachedAccessToken = L"cached";
  ExpectToken(Ensure(), L"cached");
  EXPECT_EQ(gCachedAccessToken, L"cached");
  EXPECT_EQ(sim::HttpRequests().size(), 0U);
}

TEST(EnsureValidAccessToken, ReadsTheFileEachTime) {
  sim::Machine machine;
  StoreSession("file", 1000);
  for (int i = 0; i < 3; ++i) ExpectToken(Ensure(), L"file");
  EXPECT_EQ(sim::CountCalls("CryptUnprotectData"), 3U);
}

TEST(EnsureValidAccessToken, RefreshesWithLessThan300SecondsLeft) {
  const struct {
    int64_t secondsLeft;
    bool refreshes;
  } cases[] = {{301, false}, {300, false}, {299, true}, {0, true}, {-1000, true}};
  for (const auto& one : cases) {
    for (const wchar_t* cached : {L"", L"cached"}) {
      SCOPED_TRACE(one.secondsLeft);
      sim::Machine machine;
      StoreSession("file", one.secondsLeft);
      gCachedAccessToken = cached;
      AnswerAlways(NewToken());
      const wchar_t* const known = *cached ? cached : L"file";
      ExpectToken(Ensure(), one.refreshes ? L"new" : known);
      EXPECT_EQ(sim::HttpRequests().size(), one.refreshes ? 1U : 0U);
    }
  }
}

TEST(EnsureValidAccessToken, TrustsTheLocalClock) {
  sim::Machine machine;
  StoreSession("file", 1000);
  AnswerAlways(NewToken());
  sim::SetUnixTime(sim::UnixTime() + 701);
  ExpectToken(Ensure(), L"new");
  EXPECT_EQ(Sent(), Lines({"POST /v1/auth/refresh"}));
}

TEST(EnsureValidAccessToken, RefreshesAtTheGivenBaseUrlAndSavesTwice) {
  sim::Machine machine;
  StoreSession("file", 10, "refresh-7");
  gCachedAccessToken = L"cached";
  gCpBaseUrl = L"https://elsewhere.test";
  AnswerInTurn({NewToken()});
  ExpectToken(Ensure(), L"new");
  ASSERT_EQ(sim::HttpRequests().size(), 1U);
  EXPECT_EQ(sim::HttpRequests()[0].host, L"plane.test");
  EXPECT_EQ(sim::HttpRequests()[0].body, R"({"refresh_token":"refresh-7"})");
  EXPECT_EQ(gCachedAccessToken, L"new");
  EXPECT_EQ(WritesOf(kSessionFile), 2U);
  EXPECT_EQ(StoredSession(), "{\"access_token\":\"new\",\"refresh_token\":\"refresh-7\",\"expires_at\":" +
                                 std::to_string(sim::UnixTime() + 3600) + "}");
}

TEST(EnsureValidAccessToken, HandsOnTheReasonOfAFailedRefresh) {
  const struct {
    sim::HttpResponse answer;
    const wchar_t* error;
  } cases[] = {{NoAnswer(), L"refresh transport failure"},
               {Answer(400, R"({"error":"refresh_expired"})"), L"SESSION_EXPIRED"},
               {Answer(400, R"({"error":"revoked"})"), L"revoked"},
               {Answer(500), L"refresh non-2xx: 500"},
               {Answer(200, "{}"), L"refresh response missing access_token"},
               {Answer(400, "{\"error\":\"\xC3\"}"), L"refresh failed"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(sim::Narrow(one.error));
    sim::Machine machine;
    StoreSession("file", 10);
    const std::string stored = StoredSession();
    gCachedAccessToken = L"cached";
    AnswerInTurn({one.answer});
    ExpectRefused(Ensure(), one.error);
    EXPECT_EQ(StoredSession(), stored);
    EXPECT_EQ(gCachedAccessToken, L"cached");
  }
}

TEST(EnsureValidAccessToken, TellsAFailedSave) {
  const struct {
    uint32_t savesBefore;
    const wchar_t* error;
  } cases[] = {{0, L"refresh failed"}, {1, L"refresh ok but failed to save session"}};
  for (const auto& one : cases) {
    sim::Machine machine;
    StoreSession("file", 10);
    gCachedAccessToken = L"cached";
    AnswerInTurn({NewToken()});
    sim::Fail({.operation = "CryptProtectData", .skip = one.savesBefore});
    ExpectRefused(Ensure(), one.error);
    EXPECT_EQ(gCachedAccessToken, L"cached");
  }
}

TEST(EnsureValidAccessToken, RefusesAnEmptyToken) {
  sim::Machine machine;
  StoreSession("file", 10);
  AnswerInTurn({Answer(200, R"({"access_token":"","expires_at":1900000000})")});
  ExpectRefused(Ensure(), L"session access token empty");
  EXPECT_EQ(gCachedAccessToken, L"");
}

TEST(EnsureValidAccessToken, HoldsNoLockAcrossFilesAndNetwork) {
  sim::Machine machine;
  StoreSession("file", 10);
  AnswerInTurn({NewToken()});
  const auto looks = LookForLocksBefore({"CryptUnprotectData", "WinHttpSendRequest", "WinHttpReceiveResponse",
                                         "CryptProtectData", "CryptProtectData"});
  ExpectToken(Ensure(), L"new");
  EXPECT_EQ(*looks, 5U);
}

// Also where no cached token could be taken: the lock comes first.
TEST(EnsureValidAccessToken, TakesTheLockBeforeAnyRefresh) {
  for (const int64_t secondsLeft : {1000, 10}) {
    for (const wchar_t* cached : {L"", L"cached"}) {
      sim::Machine machine;
      StoreSession("file", secondsLeft);
      const std::string stored = StoredSession();
      gCachedAccessToken = cached;
      AnswerAlways(NewToken());
      sim::FailLock(gSessionMutex);
      EXPECT_THROW(Ensure(), std::system_error);
      EXPECT_EQ(Sent(), Lines());
      EXPECT_EQ(StoredSession(), stored);
      EXPECT_EQ(gCachedAccessToken, cached);
    }
  }
}

TEST(EnsureValidAccessToken, KeepsTheRefreshedSessionWhenTheCacheCannotBeLocked) {
  sim::Machine machine;
  StoreSession("file", 10);
  gCachedAccessToken = L"cached";
  AnswerInTurn({NewToken()});
  sim::Before("WinHttpSendRequest", [] { sim::FailLock(gSessionMutex); });
  EXPECT_THROW(Ensure(), std::system_error);
  EXPECT_NE(StoredSession().find(R"("access_token":"new")"), std::string::npos);
  EXPECT_EQ(gCachedAccessToken, L"cached");
}

TEST(EnsureValidAccessToken, LooksAtTheClockForACachedTokenAndForTheRefresh) {
  const struct {
    const wchar_t* cached;
    int64_t secondsLeft;
    size_t looks;
  } cases[] = {{L"", 1000, 1}, {L"", 10, 1}, {L"cached", 1000, 1}, {L"cached", 10, 2}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.secondsLeft);
    sim::Machine machine;
    StoreSession("file", one.secondsLeft);
    gCachedAccessToken = one.cached;
    AnswerAlways(NewToken());
    EXPECT_TRUE(Ensure().ok);
    EXPECT_EQ(sim::CountCalls("_time64"), one.looks);
  }
}

// Too old for the cached token, and by the second look good again.
TEST(EnsureValidAccessToken, TakesTheFilesTokenWhenTheClockGoesBackBetweenTheLooks) {
  sim::Machine machine;
  StoreSession("file", 10);
  gCachedAccessToken = L"cached";
  sim::Before("_time64", [] { sim::Before("_time64", [] { sim::SetUnixTime(sim::UnixTime() - 1000); }); });
  ExpectToken(Ensure(), L"file");
  EXPECT_EQ(gCachedAccessToken, L"file");
  EXPECT_EQ(Sent(), Lines());
}

// The check of a cached token is one with its taking: no other thread comes between.
TEST(EnsureValidAccessToken, LooksAtTheClockUnderTheLockForACachedToken) {
  sim::Machine machine;
  StoreSession("file", 1000);
  gCachedAccessToken = L"cached";
  bool lockedByOther = false;
  sim::Before("_time64", [&lockedByOther] {
    sim::StartThread("other", [&lockedByOther] {
      const std::lock_guard<platform::Mutex> lock(gSessionMutex);
      lockedByOther = true;
    });
    platform::Sleep(100);
    EXPECT_FALSE(lockedByOther);
  });
  ExpectToken(Ensure(), L"cached");
  sim::Run(100);
  EXPECT_TRUE(lockedByOther);
}

TEST(EnsureValidAccessToken, TwoThreadsNearExpiryBothRefresh) {
  sim::Machine machine;
  StoreSession("file", 10);
  sim::HttpResponse slow = NewToken();
  slow.milliseconds = 1000;
  AnswerAlways(slow);
  int good = 0;
  for (const char* name : {"one", "two"}) {
    sim::StartThread(name, [&good] {
      if (Ensure().token == L"new") ++good;
    });
  }
  sim::Run(5000);
  EXPECT_EQ(good, 2);
  EXPECT_EQ(Sent(), Lines({"POST /v1/auth/refresh", "POST /v1/auth/refresh"}));
}

}  // namespace
