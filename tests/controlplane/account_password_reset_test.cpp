// The two calls of a password reset, and the server's own words about a refusal, which both show.
#include "account_fixture.h"

namespace {

struct StartOutcome {
  bool ok = false;
  std::string requestId = "stale";
  std::string maskedEmail = "stale";
  uint32_t expiresInSeconds = 77;
  std::wstring error = L"stale";
};

StartOutcome Start(const std::wstring& email = L"me@example.com") {
  StartOutcome outcome;
  outcome.ok = CpPasswordResetStart(email, outcome.requestId, outcome.maskedEmail, outcome.expiresInSeconds,
                                    outcome.error);
  return outcome;
}

StartOutcome StartWith(const std::string& body, uint32_t status = 200) {
  AnswerInTurn({Answer(status, body)});
  return Start();
}

std::wstring RefusedStart() {
  const StartOutcome outcome = Start();
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.requestId, "");
  EXPECT_EQ(outcome.maskedEmail, "");
  return outcome.error;
}

std::wstring RefusedConfirm() {
  std::wstring error = L"stale";
  EXPECT_FALSE(CpPasswordResetConfirm(L"me@example.com", L"r-1", L"123456", L"new", error));
  return error;
}

// ---- Start ----

TEST(CpPasswordResetStart, SendsTheEmailWithoutAToken) {
  AccountMachine machine;
  AnswerAlways(Answer(200, R"({"request_id":"r"})"));
  EXPECT_TRUE(Start(L"m\u00E9\"+@example.com").ok);
  ExpectSent("POST /v1/auth/password/reset/start", kPostHeaders,
             "{\"email\":\"m\xC3\xA9\\\"+@example.com\"}");
}

TEST(CpPasswordResetStart, GivesWhatTheAnswerHolds) {
  for (const uint32_t status : {200U, 202U, 299U}) {
    AccountMachine machine;
    const std::string before = StateText();
    const StartOutcome outcome =
        StartWith(R"({"request_id":"r-1","masked_email":"m*@e*","expires_in_seconds":600})", status);
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.requestId, "r-1");
    EXPECT_EQ(outcome.maskedEmail, "m*@e*");
    EXPECT_EQ(outcome.expiresInSeconds, 600U);
    EXPECT_EQ(outcome.error, L"");
    EXPECT_EQ(StateText(), before);
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

TEST(CpPasswordResetStart, GivesTheTextsRaw) {
  AccountMachine machine;
  const StartOutcome outcome = StartWith("{\"request_id\":\" r\\n \",\"masked_email\":\" \xFFm \"}");
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.requestId, " r\\n ");
  EXPECT_EQ(outcome.maskedEmail, " \xFFm ");
}

TEST(CpPasswordResetStart, AcceptsAnEmptyRequestIdAndNoMaskedEmail) {
  AccountMachine machine;
  const StartOutcome outcome = StartWith(R"({"request_id":""})");
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.requestId, "");
  EXPECT_EQ(outcome.maskedEmail, "");
  EXPECT_EQ(outcome.expiresInSeconds, 900U);
}

TEST(CpPasswordResetStart, FailsWithoutARequestId) {
  for (const char* body : {"", "{}", R"({"request_id":5})", R"({"Request_id":"r"})"}) {
    ExpectRefused(&RefusedStart, Answer(200, body), L"password reset start response missing request_id");
  }
  AccountMachine machine;
  const StartOutcome outcome = StartWith(R"({"masked_email":"m"})", 204);
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, L"password reset start response missing request_id");
}

TEST(CpPasswordResetStart, FallsBackTo15MinutesOutsideOfOneDay) {
  const struct {
    const char* field;
    uint32_t seconds;
  } cases[] = {{"1", 1},
               {"86399", 86399},
               {"86400", 86400},
               {"86401", 900},
               {"0", 900},
               {"-1", 900},
               {"4294967297", 900},
               {"9223372036854775807", 900},
               {"\"600\"", 900},
               {"null", 900},
               {"600.9", 600},
               // The number reader wraps.
               {"18446744073709551617", 1},
               // The number reader does not go on to the next line.
               {"\n600", 900}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.field);
    AccountMachine machine;
    const StartOutcome outcome =
        StartWith(std::string(R"({"request_id":"r","expires_in_seconds":)") + one.field + "}");
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.expiresInSeconds, one.seconds);
    EXPECT_EQ(outcome.error, L"");
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

// ---- Confirm ----

TEST(CpPasswordResetConfirm, SendsTheFourFieldsInOrderWithoutAToken) {
  AccountMachine machine;
  AnswerAlways(Answer(200));
  std::wstring error = L"stale";
  EXPECT_TRUE(CpPasswordResetConfirm(L"m\u00E9", L"r\"1", L"1\\2", L"n\tw", error));
  ExpectSent("POST /v1/auth/password/reset/confirm", kPostHeaders,
             "{\"email\":\"m\xC3\xA9\",\"request_id\":\"r\\\"1\",\"code\":\"1\\\\2\","
             "\"new_password\":\"n\\tw\"}");
}

TEST(CpPasswordResetConfirm, TakesEvery2xxWhateverItsBody) {
  for (const uint32_t status : {200U, 204U, 299U}) {
    for (const char* body : {"", "\xFF", R"({"error":"no","detail":"really"})"}) {
      SCOPED_TRACE(std::to_string(status) + body);
      AccountMachine machine;
      const std::string before = StateText();
      AnswerInTurn({Answer(status, body)});
      std::wstring error = L"stale";
      EXPECT_TRUE(CpPasswordResetConfirm(L"e", L"r", L"c", L"p", error));
      EXPECT_EQ(error, L"");
      EXPECT_EQ(StateText(), before);
      EXPECT_EQ(sim::LogLines(), Lines());
    }
  }
}

// ---- What both say of a refusal ----

void ExpectBothRefused(const sim::HttpResponse& answer, const std::wstring& error) {
  ExpectRefused(&RefusedStart, answer, error);
  ExpectRefused(&RefusedConfirm, answer, error);
}

TEST(PasswordReset, TellsTheTransportFailure) {
  ExpectTransportFailure(&RefusedStart, L"password reset start transport failure");
  ExpectTransportFailure(&RefusedConfirm, L"password reset confirm transport failure");
}

TEST(PasswordReset, TellsTheStatusWithoutWordsOfTheServer) {
  for (const uint32_t status : {199U, 300U, 400U, 401U, 404U, 409U, 429U, 500U}) {
    for (const char* body : {"", "{}", "no", R"({"error":"","detail":""})",
                             "{\"error\":\" \t\r\n\",\"detail\":\"\n\"}", R"({"detail":[]})"}) {
      ExpectRefused(&RefusedStart, Answer(status, body),
                    L"password reset start non-2xx: " + std::to_wstring(status));
      ExpectRefused(&RefusedConfirm, Answer(status, body),
                    L"password reset confirm non-2xx: " + std::to_wstring(status));
    }
  }
}

TEST(PasswordReset, ShowsTheServersWords) {
  const struct {
    const char* body;
    const wchar_t* error;
  } cases[] = {
      {R"({"error":"bad_code","detail":"It is too old."})", L"bad_code: It is too old."},
      {R"({"detail":"It is too old.","error":"bad_code"})", L"bad_code: It is too old."},
      {R"({"error":"bad_code"})", L"bad_code"},
      {R"({"detail":"It is too old."})", L"It is too old."},
      {"{\"error\":\" bad \t\",\"detail\":\"\r\n old \"}", L"bad: old"},
      {R"({"error":" ","detail":"old"})", L"old"},
      {R"({"error":"bad","detail":" "})", L"bad"},
      {"{\"error\":\"n\xC3\xA9\",\"detail\":\"\xE4\xB8\xAD\"}", L"n\u00E9: \u4E2D"},
      {R"({"error":"a\nb"})", L"a\\nb"},
  };
  for (const auto& one : cases) {
    for (const uint32_t status : {400U, 401U, 409U, 500U})
      ExpectBothRefused(Answer(status, one.body), one.error);
  }
}

// The flat reader takes the next quoted text, whatever it belongs to: wanted.
TEST(PasswordReset, TakesTheNextQuotedTextBehindAKey) {
  ExpectBothRefused(Answer(422, R"({"detail":["first","second"]})"), L"first");
  ExpectBothRefused(Answer(422, R"({"detail":[{"msg":"too short","loc":["body"]}]})"), L"msg");
  ExpectBothRefused(Answer(422, R"({"detail":{"why":"too short"}})"), L"why");
  ExpectBothRefused(Answer(422, R"({"error":null,"detail":"old"})"), L"detail: old");
}

TEST(PasswordReset, HasNoTextForWordsOfInvalidUtf8) {
  ExpectBothRefused(Answer(400, "{\"error\":\"n\xFF\"}"), L"");
  ExpectBothRefused(Answer(400, "{\"error\":\"good\",\"detail\":\"\xC3\"}"), L"");
}

}  // namespace
