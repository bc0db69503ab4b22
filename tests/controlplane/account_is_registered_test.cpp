// CpIsRegistered: how the email goes into the query, and what counts as an answer.
#include "account_fixture.h"

namespace {

struct Outcome {
  bool ok = false;
  bool registered = false;
  std::wstring error = L"stale";
};

Outcome Ask(const std::wstring& email = L"me@example.com") {
  Outcome outcome;
  outcome.ok = CpIsRegistered(email, outcome.registered, outcome.error);
  return outcome;
}

Outcome AskWith(const sim::HttpResponse& answer) {
  AnswerInTurn({answer});
  return Ask();
}

std::wstring Refused() {
  const Outcome outcome = Ask();
  EXPECT_FALSE(outcome.ok);
  return outcome.error;
}

TEST(CpIsRegistered, SendsTheEmailInTheQueryWithoutAToken) {
  AccountMachine machine;
  AskWith(Answer(200, R"({"registered":true})"));
  ExpectSent("GET /v1/auth/registered?email=me%40example.com", kGetHeaders, "");
  EXPECT_EQ(sim::HttpRequests()[0].bearer, "");
}

TEST(CpIsRegistered, EncodesAtPlusAndBlank) {
  AccountMachine machine;
  AnswerAlways(Answer(200, R"({"registered":true})"));
  Ask(L" a+b+c d@@x ");
  ExpectSent("GET /v1/auth/registered?email=%20a%2Bb%2Bc%20d%40%40x%20", kGetHeaders, "");
}

// An ampersand splits the query, and a percent sign may make a byte of its own: wanted.
TEST(CpIsRegistered, LetsEveryOtherByteThroughRaw) {
  AccountMachine machine;
  AnswerAlways(Answer(200, R"({"registered":true})"));
  Ask(L"a&b=c%41#?/;:'\"<>\\,!$()*~\u00E9\u4E2D");
  ExpectSent("GET /v1/auth/registered?email=a&b=c%41#?/;:'\"<>\\,!$()*~\xC3\xA9\xE4\xB8\xAD", kGetHeaders,
             "");
}

TEST(CpIsRegistered, AsksAlsoForAnEmptyEmail) {
  AccountMachine machine;
  AnswerAlways(Answer(200, R"({"registered":false})"));
  EXPECT_TRUE(Ask(L"").ok);
  ExpectSent("GET /v1/auth/registered?email=", kGetHeaders, "");
}

TEST(CpIsRegistered, GivesBothAnswersAsASuccess) {
  const struct {
    const char* body;
    bool registered;
  } cases[] = {{R"({"registered":true})", true},
               {R"({"registered":false})", false},
               {"{\"registered\":\r\n\t true}", true},
               {R"({"data":{"registered":trueish}})", true},
               {R"({"registered":false,"registered":true})", false}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.body);
    AccountMachine machine;
    const std::string before = StateText();
    const Outcome outcome = AskWith(Answer(200, one.body));
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.registered, one.registered);
    EXPECT_EQ(outcome.error, L"");
    EXPECT_EQ(StateText(), before);
  }
}

TEST(CpIsRegistered, FailsWithoutABoolean) {
  for (const char* body : {"", "{}", R"({"registered":"true"})", R"({"registered":1})",
                           R"({"registered":null})", R"({"Registered":true})"}) {
    ExpectRefused(&Refused, Answer(200, body), L"is-registered response missing registered");
  }
}

TEST(CpIsRegistered, TellsEveryRefusalAsATransportFailure) {
  ExpectEveryRefusedGetIsATransportFailure(&Refused, L"is-registered transport failure");
}

TEST(CpIsRegistered, TellsAUrlThatDoesNotFitAsATransportFailure) {
  AccountMachine machine;
  EXPECT_FALSE(Ask(std::wstring(2048, L'a')).ok);
  EXPECT_EQ(Ask(std::wstring(2048, L'a')).error, L"is-registered transport failure");
  EXPECT_EQ(Sent(), Lines());
}

}  // namespace
