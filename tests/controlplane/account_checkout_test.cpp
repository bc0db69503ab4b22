// CpBillingCheckout and the search for the address to pay at.
#include "account_fixture.h"

namespace {

struct Outcome {
  bool ok = false;
  std::string url = "stale";
  std::wstring error = L"stale";
};

Outcome CheckOut(const std::wstring& token = kToken) {
  Outcome outcome;
  outcome.ok = CpBillingCheckout(token, outcome.url, outcome.error);
  return outcome;
}

std::wstring Refused() {
  const Outcome outcome = CheckOut();
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.url, "");
  return outcome.error;
}

// The address in an answer, or a word that no address of these tests is.
std::string UrlIn(const std::string& answer) {
  std::string url = "stale";
  return ExtractCheckoutUrl(answer, url) ? url : "(none)";
}

// ---- The call ----

TEST(CpBillingCheckout, AsksForTheOnePlanWithTheToken) {
  AccountMachine machine;
  AnswerAlways(Answer(200, R"({"url":"https://pay.test/1"})"));
  EXPECT_TRUE(CheckOut().ok);
  ExpectSent("POST /v1/billing/checkout", std::wstring(kPostHeaders) + kBearer,
             R"({"provider":"stripe","plan_id":"basic_monthly"})");
}

TEST(CpBillingCheckout, SendsNoBearerForAnEmptyToken) {
  AccountMachine machine;
  AnswerAlways(Answer(200, R"({"url":"https://pay.test/1"})"));
  EXPECT_TRUE(CheckOut(L"").ok);
  ExpectSent("POST /v1/billing/checkout", kPostHeaders, R"({"provider":"stripe","plan_id":"basic_monthly"})");
}

TEST(CpBillingCheckout, GivesTheAddressOfEvery2xx) {
  for (const uint32_t status : {200U, 201U, 299U}) {
    AccountMachine machine;
    const std::string before = StateText();
    AnswerInTurn({Answer(status, R"({"checkout_url":"https:\/\/pay.test\/1"})")});
    const Outcome outcome = CheckOut();
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.url, "https://pay.test/1");
    EXPECT_EQ(outcome.error, L"");
    EXPECT_EQ(StateText(), before);
    EXPECT_EQ(sim::LogLines(), Lines());
  }
}

TEST(CpBillingCheckout, FailsWithoutAnAddress) {
  for (const char* body : {"", "{}", R"({"url":""})", "http://pay.test/1", "https:/"})
    ExpectRefused(&Refused, Answer(200, body), L"checkout response missing url");
  ExpectRefused(&Refused, Answer(204), L"checkout response missing url");
}

TEST(CpBillingCheckout, TellsTheTransportFailure) {
  ExpectTransportFailure(&Refused, L"checkout transport failure");
}

TEST(CpBillingCheckout, TellsARefusedToken) {
  for (const char* body : {"", R"({"error":"no","url":"https://pay.test/1"})"})
    ExpectRefused(&Refused, Answer(401, body), L"unauthorized");
}

TEST(CpBillingCheckout, ShowsTheWholeBodyOfEveryOtherRefusal) {
  const std::string longBody(5000, 'a');
  for (const uint32_t status : {199U, 300U, 400U, 402U, 409U, 500U}) {
    const std::wstring begin = L"checkout non-2xx: " + std::to_wstring(status) + L" resp=";
    ExpectRefused(&Refused, Answer(status), begin);
    ExpectRefused(&Refused, Answer(status, R"({"url":"https://pay.test/1"})"),
                  begin + LR"({"url":"https://pay.test/1"})");
    ExpectRefused(&Refused, Answer(status, longBody), begin + std::wstring(longBody.begin(), longBody.end()));
  }
}

// Unlike the body of a refused registration in the log, which is left out then.
TEST(CpBillingCheckout, ShowsABodyOfInvalidUtf8WithReplacementCharacters) {
  ExpectRefused(&Refused, Answer(500, "n\xC3\xA9 \xFF!"), L"checkout non-2xx: 500 resp=n\u00E9 \uFFFD!");
}

// ---- The address ----

TEST(ExtractCheckoutUrl, TakesTheFirstKeyThatGivesSomething) {
  EXPECT_EQ(UrlIn(R"({"url":"c","checkoutUrl":"b","checkout_url":"a"})"), "a");
  EXPECT_EQ(UrlIn(R"({"url":"c","checkoutUrl":"b"})"), "b");
  EXPECT_EQ(UrlIn(R"({"url":"c"})"), "c");
  EXPECT_EQ(UrlIn(R"({"url":"c","checkoutUrl":"b","checkout_url":" "})"), "b");
  EXPECT_EQ(UrlIn(R"({"url":"c","checkoutUrl":null,"checkout_url":5})"), "c");
}

TEST(ExtractCheckoutUrl, LooksAtNoScheme) {
  EXPECT_EQ(UrlIn(R"({"checkout_url":"http://pay.test","url":"https://pay.test"})"), "http://pay.test");
  EXPECT_EQ(UrlIn(R"({"checkout_url":"javascript:1"})"), "javascript:1");
}

TEST(ExtractCheckoutUrl, FindsANestedUrlAndRestoresItsSlashes) {
  EXPECT_EQ(UrlIn(R"({"session":{"id":"s","url":"https:\/\/pay.test\/c\/1?a=b"}})"),
            "https://pay.test/c/1?a=b");
}

TEST(ExtractCheckoutUrl, FallsThroughEmptyKeysToTheScan) {
  EXPECT_EQ(UrlIn(R"({"checkoutUrl":"","url":"u"})"), "u");
  EXPECT_EQ(UrlIn(R"({"checkoutUrl":"","url":"","link":"https://pay.test/2"})"), "https://pay.test/2");
  // Only the first occurrence of a key counts.
  EXPECT_EQ(UrlIn(R"({"url":null,"to":{"url":"u"}})"), "(none)");
}

TEST(ExtractCheckoutUrl, ScansForTheFirstHttpsAddress) {
  for (const char end : {'\t', '\n', '\r', ' ', '"'}) {
    const std::string answer = std::string("Pay at https://pay.test/3?x=1,2'<") + end + "or https://b.test";
    EXPECT_EQ(UrlIn(answer), "https://pay.test/3?x=1,2'<");
  }
  EXPECT_EQ(UrlIn("https://pay.test/4"), "https://pay.test/4");
  EXPECT_EQ(UrlIn("http://a.test https://pay.test/5"), "https://pay.test/5");
  EXPECT_EQ(UrlIn("HTTPS://pay.test/6"), "(none)");
  // The scan does not undo escapes.
  EXPECT_EQ(UrlIn(R"({"link":"https:\/\/pay.test"})"), "(none)");
}

// No other control character ends the address or is trimmed off it.
TEST(ExtractCheckoutUrl, GoesOnOverFormFeedVerticalTabAndZeroByte) {
  for (const char inside : {'\f', '\v', '\0'}) {
    const std::string address = std::string("https://pay.test/3") + inside + "x" + inside;
    EXPECT_EQ(UrlIn("Pay at " + address + " now"), address);
    EXPECT_EQ(UrlIn(address), address);
    EXPECT_EQ(UrlIn("{\"url\":\"" + address + "\"}"), address);
  }
}

TEST(ExtractCheckoutUrl, TakesAnAnswerThatIsNoMoreThanTheScheme) {
  EXPECT_EQ(UrlIn("https://"), "https://");
  EXPECT_EQ(UrlIn("https:/"), "(none)");
  EXPECT_EQ(UrlIn(""), "(none)");
}

}  // namespace
