// CpGetQuota and CpGetEntitlement: two reads with the token, which take what the answer holds.
#include "account_fixture.h"

namespace {

struct Quota {
  bool ok = false;
  bool current = false;
  std::wstring error = L"stale";
};

Quota QuotaWith(const std::string& body) {
  AnswerInTurn({Answer(200, body)});
  Quota quota;
  quota.current = true;
  quota.ok = CpGetQuota(kToken, quota.current, quota.error);
  return quota;
}

std::wstring RefusedQuota() {
  Quota quota;
  EXPECT_FALSE(CpGetQuota(kToken, quota.current, quota.error));
  return quota.error;
}

struct Entitlement {
  bool ok = false;
  bool paid = true;
  std::string status = "stale";
  std::string periodEnd = "stale";
  std::wstring error = L"stale";
};

Entitlement Ask(const std::wstring& token = kToken) {
  Entitlement entitlement;
  entitlement.ok =
      CpGetEntitlement(token, entitlement.paid, entitlement.status, entitlement.periodEnd, entitlement.error);
  return entitlement;
}

Entitlement EntitlementWith(const std::string& body) {
  AnswerInTurn({Answer(200, body)});
  return Ask();
}

std::wstring RefusedEntitlement() {
  const Entitlement entitlement = Ask();
  EXPECT_FALSE(entitlement.ok);
  EXPECT_EQ(entitlement.status, "");
  EXPECT_EQ(entitlement.periodEnd, "");
  return entitlement.error;
}

// ---- Quota ----

TEST(CpGetQuota, AsksWithTheTokenThatItWasGiven) {
  AccountMachine machine;
  EXPECT_TRUE(QuotaWith("{}").ok);
  ExpectSent("GET /v1/me/quota", std::wstring(kGetHeaders) + kBearer, "");
  EXPECT_EQ(sim::LogLines(), Lines({"HTTP GET status=200 body-head={}"}));
}

TEST(CpGetQuota, GivesTheAnswersBooleanOrFalse) {
  const struct {
    const char* body;
    bool current;
  } cases[] = {{R"({"quota_current":true})", true},
               {R"({"quota_current":false})", false},
               {"{\"quota_current\" :\n true}", true},
               {R"({"quota_current":"true"})", false},
               {R"({"quota_current":"text"})", false},
               {R"({"quota_current":1})", false},
               {R"({"me":{"quota_current":true}})", true},
               {"{}", false},
               {"", false}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.body);
    AccountMachine machine;
    const std::string before = StateText();
    const Quota quota = QuotaWith(one.body);
    EXPECT_TRUE(quota.ok);
    EXPECT_EQ(quota.current, one.current);
    EXPECT_EQ(quota.error, L"");
    EXPECT_EQ(StateText(), before);
  }
}

TEST(CpGetQuota, TellsEveryRefusalAsATransportFailure) {
  ExpectEveryRefusedGetIsATransportFailure(&RefusedQuota, L"quota transport failure");
}

// ---- Entitlement ----

TEST(CpGetEntitlement, AsksWithTheTokenThatItWasGiven) {
  AccountMachine machine;
  EXPECT_TRUE(EntitlementWith("{}").ok);
  ExpectSent("GET /v1/me/entitlement", std::wstring(kGetHeaders) + kBearer, "");
  EXPECT_EQ(sim::LogLines(), Lines({"HTTP GET status=200 body-head={}"}));
}

TEST(CpGetEntitlement, SendsNoBearerForAnEmptyToken) {
  AccountMachine machine;
  AnswerAlways(Answer(200, "{}"));
  EXPECT_TRUE(Ask(L"").ok);
  ExpectSent("GET /v1/me/entitlement", kGetHeaders, "");
}

TEST(CpGetEntitlement, GivesWhatTheAnswerHolds) {
  const struct {
    const char* body;
    bool paid;
    const char* status;
    const char* periodEnd;
  } cases[] = {
      {R"({"payment_current":true,"status":"active","period_end":"2027-01-01"})", true, "active",
       "2027-01-01"},
      {R"({"period_end":"p","status":"s","payment_current":false})", false, "s", "p"},
      {"{\"status\":\" a b\t\",\"period_end\":\"\r\n\"}", false, "a b", ""},
      {R"({"payment_current":true})", true, "", ""},
      {R"({"payment_current":"true","status":"active","period_end":null})", false, "active", ""},
      {"{\"status\":\"\xFF\\n\"}", false, "\xFF\\n", ""},
      // The flat reader runs on to the next quoted text: wanted.
      {R"({"period_end":null,"status":"active"})", false, "active", "status"},
      {"", false, "", ""},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.body);
    AccountMachine machine;
    const std::string before = StateText();
    const Entitlement entitlement = EntitlementWith(one.body);
    EXPECT_TRUE(entitlement.ok);
    EXPECT_EQ(entitlement.paid, one.paid);
    EXPECT_EQ(entitlement.status, one.status);
    EXPECT_EQ(entitlement.periodEnd, one.periodEnd);
    EXPECT_EQ(entitlement.error, L"");
    EXPECT_EQ(StateText(), before);
  }
}

TEST(CpGetEntitlement, TellsEveryRefusalAsATransportFailure) {
  ExpectEveryRefusedGetIsATransportFailure(&RefusedEntitlement, L"entitlement transport failure");
}

}  // namespace
