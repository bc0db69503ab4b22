// Bootstrap and the account: no token, a refused one, a new one on the way.
#include "tests/engine/bootstrap_fixture.h"

namespace {

// The texts hold a character above U+00FF, which ends the line there, its line end included.
std::string CutLine(const std::string& reason) {
  return "[BOOTSTRAP] AUTH_REQUIRED (" + reason + ") \xE2";
}

void StoreNewSession() {
  StoreSession("access-22");
  const std::lock_guard lock(gSessionMutex);
  gCachedAccessToken.clear();
}

void ForgetSession() {
  sim::RemoveFile(kSessionFile);
}

TEST(BootstrapToken, IsMissingWithoutASession) {
  BootstrapRun run;
  ForgetSession();
  EXPECT_FALSE(Bootstrap());
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(LastErrorText(), "AUTH_REQUIRED");
  EXPECT_TRUE(Sent().empty());
  EXPECT_FALSE(Config().has_value());
  EXPECT_EQ(sim::LogBytes(),
            "[2026-01-01 00:00:00] Bootstrap: CP base URL = https://cp.telvor.test:8443\r\n"
            "[2026-01-01 00:00:00] " +
                std::string(kAuthRequired) + "\xE2");
}

// What the writer of the log makes of the three odd characters: the first is a byte, the second ends the
// line.
TEST(BootstrapToken, TheLineOfAMissingOneHasNoEnd) {
  BootstrapRun run;
  ForgetSession();
  EXPECT_FALSE(Bootstrap());
  EXPECT_FALSE(Bootstrap());
  const std::string bytes = sim::LogBytes();
  EXPECT_NE(bytes.find(") \xE2[2026-01-01 00:00:00] Bootstrap: CP base URL = "), std::string::npos);
  EXPECT_EQ(bytes.find("waiting for GUI login"), std::string::npos);
}

TEST(BootstrapToken, KeepsTheWordOfAnExpiredSession) {
  BootstrapRun run;
  StoreSession("access-1", 299);
  run.AnswerTo(kRefresh, {Answer(401, R"({"error":"refresh_expired"})")});
  EXPECT_FALSE(Bootstrap());
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(LastErrorText(), "SESSION_EXPIRED");
  EXPECT_EQ(LastLine(), CutLine("SESSION_EXPIRED"));
  EXPECT_EQ(Sent(), Lines{kRefresh});
  EXPECT_EQ(sim::HttpRequests()[0].host, kControlPlaneHost);
}

TEST(BootstrapToken, CallsEveryOtherFailureAuthRequired) {
  const struct {
    sim::HttpResponse answer;
    const char* reason;
  } cases[] = {
      {Answer(401, R"({"error":"Session_Expired"})"), "Session_Expired"},
      {Answer(500), "refresh non-2xx: 500"},
      {NoAnswer(), "refresh transport failure"},
      {Answer(200, "{}"), "refresh response missing access_token"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.reason);
    BootstrapRun run;
    StoreSession("access-1", 299);
    run.AnswerTo(kRefresh, {row.answer});
    EXPECT_FALSE(Bootstrap());
    EXPECT_TRUE(gAuthRequired);
    EXPECT_EQ(LastErrorText(), "AUTH_REQUIRED");
    EXPECT_EQ(LastLine(), CutLine(row.reason));
  }
}

// Only the exact word counts, whoever says it.
TEST(BootstrapToken, TakesTheWordFromTheControlPlaneToo) {
  BootstrapRun run;
  StoreSession("access-1", 299);
  run.AnswerTo(kRefresh, {Answer(400, R"({"error":" SESSION_EXPIRED "})")});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(LastErrorText(), "SESSION_EXPIRED");
}

TEST(BootstrapToken, IsRefreshedWhenItIsAboutToExpire) {
  BootstrapRun run;
  StoreSession("access-1", 299);
  run.AnswerTo(kRefresh, {Answer(200, R"({"access_token":"access-2","expires_at":1767229200})")});
  gAuthRequired = true;
  EXPECT_TRUE(Bootstrap());
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(SentBearers(), (Lines{"", "access-2", "access-2", "access-2", "access-2", "access-2"}));
}

TEST(BootstrapToken, IsReplacedByTheRegistrations) {
  BootstrapRun run;
  run.OnRequest(kRegister, StoreNewSession);
  run.AnswerTo(kRegister, {Answer(401), Answer(201)});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Sent(), (Lines{kLocations, kRegister, kRegister, kUploadKey, kSelect, kProfile}));
  EXPECT_EQ(SentBearers(),
            (Lines{"access-1", "access-1", "access-22", "access-22", "access-22", "access-22"}));
  EXPECT_TRUE(sim::LogHas("EnsureDeviceRegistered: ok after re-login (201)"));
}

// The upload's own new token goes unused: the profile is asked for with the old one.
TEST(BootstrapToken, IsNotReplacedByTheKeyUploads) {
  BootstrapRun run;
  run.OnRequest(kUploadKey, StoreNewSession);
  run.AnswerTo(kUploadKey, {Answer(401), Answer(200)});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SentBearers(), Lines(6, "access-1"));
}

// ---- Refused at the profile ----

constexpr char kRetryLine[] = "Bootstrap: token invalid/expired; re-login and retry wg-profile once";

TEST(BootstrapProfileRefused, AsksOnceMoreWithTheSameToken) {
  BootstrapRun run;
  run.AnswerTo(kProfile, {Answer(401, "no"), Answer(200, kFullProfile)});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Sent(), (Lines{kLocations, kRegister, kUploadKey, kSelect, kProfile, kProfile}));
  EXPECT_EQ(SentBearers(), Lines(6, "access-1"));
  EXPECT_EQ(Config(), kFullConfig);
  const Lines lines = sim::LogLines();
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(
      Lines(lines.end() - 6, lines.end() - 3),
      (Lines{"HTTP GET status=401 body-head=no", "Bootstrap: wg-profile HTTP 401 head=no", kRetryLine}));
}

TEST(BootstrapProfileRefused, GivesUpAfterTheSecondRefusal) {
  BootstrapRun run;
  run.AnswerTo(kProfile, {Answer(401, "first"), Answer(401, "second")});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(Sent().size(), 6u);
  EXPECT_EQ(LastLine(), "Bootstrap: wg-profile retry HTTP 401 head=second");
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(LastErrorText(), "");
  EXPECT_FALSE(Config().has_value());
}

TEST(BootstrapProfileRefused, TakesWhateverTokenThereIsNow) {
  BootstrapRun run;
  run.OnRequest(kProfile, [] {
    StoreNewSession();
    gAuthRequired = true;
  });
  run.AnswerTo(kProfile, {Answer(401), Answer(500, std::string(300, 'x'))});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(SentBearers().back(), "access-22");
  EXPECT_EQ(LastLine(), "Bootstrap: wg-profile retry HTTP 500 head=" + std::string(200, 'x'));
}

TEST(BootstrapProfileRefused, ATokenForTheRetryClearsTheFlag) {
  BootstrapRun run;
  std::vector<bool> required;
  run.OnRequest(kProfile, [&required] {
    required.push_back(gAuthRequired);
    gAuthRequired = true;
  });
  run.AnswerTo(kProfile, {Answer(401), Answer(200, kFullProfile)});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(required, (std::vector<bool>{false, false}));
}

// The first answer's body is gone when the second request gets none.
TEST(BootstrapProfileRefused, ARetryWithoutAnAnswerHasStatusZeroAndNoHead) {
  BootstrapRun run;
  run.AnswerTo(kProfile, {Answer(401, "first"), NoAnswer()});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(LastLine(), "Bootstrap: wg-profile retry HTTP 0 head=");
}

TEST(BootstrapProfileRefused, FailsLikeAMissingTokenWhenThereIsNoneAnyMore) {
  BootstrapRun run;
  run.OnRequest(kProfile, ForgetSession);
  run.AnswerTo(kProfile, {Answer(401)});
  EXPECT_FALSE(Bootstrap());
  EXPECT_TRUE(gAuthRequired);
  EXPECT_EQ(LastErrorText(), "AUTH_REQUIRED");
  EXPECT_EQ(LastLine(), std::string(kAuthRequired) + "\xE2");
  EXPECT_EQ(Sent().size(), 5u);
}

TEST(BootstrapProfileRefused, KeepsTheWordOfASessionThatExpiredMeanwhile) {
  BootstrapRun run;
  run.OnRequest(kProfile, [] { StoreSession("access-1", 10); });
  run.AnswerTo(kProfile, {Answer(401)});
  run.AnswerTo(kRefresh, {Answer(400, R"({"error":"refresh_expired"})")});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(LastErrorText(), "SESSION_EXPIRED");
  EXPECT_EQ(LastLine(), CutLine("SESSION_EXPIRED"));
}

// A registration and an upload that meet a 401 and then no session count as done; the profile ends the run.
TEST(BootstrapProfileRefused, IsWhereARunEndsThatLostItsSession) {
  BootstrapRun run;
  run.OnRequest(kRegister, ForgetSession);
  for (const char* request : {kRegister, kUploadKey, kProfile}) run.AnswerTo(request, {Answer(401)});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(Sent(), (Lines{kLocations, kRegister, kUploadKey, kSelect, kProfile}));
  EXPECT_EQ(sim::LogCount("Auth: no session; waiting for GUI login"), 2u);
  EXPECT_EQ(LastErrorText(), "AUTH_REQUIRED");
  EXPECT_TRUE(gAuthRequired);
}

}  // namespace
