// CpRegister: the device id that it needs, the request, the friendly text for 409, its log.
#include "account_fixture.h"

namespace {

struct Outcome {
  bool ok = false;
  std::wstring error = L"stale";
};

constexpr char kRegisterLine[] = "/v1/auth/register: User:me@example.com, device_id=desktop-ab12";
constexpr wchar_t kExists[] = L"User already exists. Please log in or reset your password.";

Outcome Register(const std::wstring& email = L"me@example.com", const std::wstring& password = L"pass-word") {
  Outcome outcome;
  outcome.ok = CpRegister(email, password, outcome.error);
  return outcome;
}

Outcome RegisterWith(const sim::HttpResponse& answer) {
  AnswerInTurn({answer});
  return Register();
}

std::wstring Refused() {
  const Outcome outcome = Register();
  EXPECT_FALSE(outcome.ok);
  return outcome.error;
}

TEST(CpRegister, SendsEmailPasswordAndDeviceIdWithoutAToken) {
  AccountMachine machine;
  sim::PutFile(kDeviceIdFile, "  device 7\r\n");
  AnswerAlways(Answer(200));
  EXPECT_TRUE(Register(L"m\u00E9@example.com", L"a\"b\\c\n\x01/").ok);
  ExpectSent("POST /v1/auth/register", kPostHeaders,
             "{\"email\":\"m\xC3\xA9@example.com\",\"password\":\"a\\\"b\\\\c\\n\\u0001/\","
             "\"device_id\":\"device 7\"}");
}

TEST(CpRegister, MakesADeviceIdWhenThereIsNone) {
  AccountMachine machine;
  EXPECT_TRUE(RegisterWith(Answer(201)).ok);
  ExpectSent("POST /v1/auth/register", kPostHeaders,
             R"({"email":"me@example.com","password":"pass-word","device_id":"desktop-ab12"})");
  EXPECT_EQ(sim::FileBytes(kDeviceIdFile), "desktop-ab12\r\n");
}

TEST(CpRegister, EscapesTheDeviceId) {
  AccountMachine machine;
  sim::PutFile(kDeviceIdFile, "a\"b\r\n");
  AnswerAlways(Answer(200));
  EXPECT_TRUE(Register(L"", L"").ok);
  ExpectSent("POST /v1/auth/register", kPostHeaders, R"({"email":"","password":"","device_id":"a\"b"})");
  EXPECT_EQ(sim::LogLines(), Lines({R"(/v1/auth/register: User:, device_id=a"b)"}));
}

TEST(CpRegister, TakesEvery2xxWhateverItsBody) {
  for (const uint32_t status : {200U, 201U, 204U, 299U}) {
    for (const char* body : {"", "\xFF", R"({"error":"no","access_token":"taken"})"}) {
      SCOPED_TRACE(std::to_string(status) + body);
      AccountMachine machine;
      const std::string before = StateText();
      const Outcome outcome = RegisterWith(Answer(status, body));
      EXPECT_TRUE(outcome.ok);
      EXPECT_EQ(outcome.error, L"");
      EXPECT_EQ(StateText(), before);
      EXPECT_EQ(sim::LogLines(), Lines({kRegisterLine}));
    }
  }
}

TEST(CpRegister, SendsNothingWithoutADeviceId) {
  AccountMachine machine;
  sim::PutFile(std::wstring(kDeviceIdFile) + L".protected", sim::SealElsewhere("other"));
  const std::string before = StateText();
  const Outcome outcome = Register();
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, L"failed to load/create device id");
  EXPECT_EQ(Sent(), Lines());
  EXPECT_EQ(StateText(), before);
  ASSERT_FALSE(sim::LogLines().empty());
  EXPECT_EQ(sim::LogLines().back(), "/v1/auth/register: failed to load/create device_id");
  EXPECT_EQ(sim::LogCount("User:"), 0U);
}

TEST(CpRegister, TellsTheTransportFailure) {
  ExpectTransportFailure(&Refused, L"register transport failure");
}

TEST(CpRegister, LogsNothingOfItsOwnAboutATransportFailure) {
  AccountMachine machine;
  sim::SetSystemMessage(12029, L"unreachable");
  RegisterWith(NoAnswer());
  EXPECT_EQ(sim::LogLines(),
            Lines({kRegisterLine, "HttpPostUtf8 transport failure failed: 12029 (unreachable)"}));
}

TEST(CpRegister, HasATextOfItsOwnForAnExistingAccount) {
  for (const char* body : {"", R"({"error":"email taken","detail":"really"})", "\xFF"})
    ExpectRefused(&Refused, Answer(409, body), kExists);
  AccountMachine machine;
  RegisterWith(Answer(409, R"({"error":"email taken"})"));
  EXPECT_EQ(sim::LogLines(), Lines({kRegisterLine, "/v1/auth/register: already registered (409)"}));
}

TEST(CpRegister, TellsTheStatusOfEveryOtherRefusal) {
  for (const uint32_t status : {199U, 300U, 400U, 401U, 404U, 408U, 410U, 422U, 500U})
    ExpectRefused(&Refused, Answer(status, R"({"error":"no","detail":"really"})"),
                  L"register non-2xx: " + std::to_wstring(status));
}

TEST(CpRegister, LogsTheWholeBodyOfARefusal) {
  const std::string longBody(5000, 'a');
  const struct {
    std::string body;
    std::string logged;
  } cases[] = {{R"({"error":"no"})", R"({"error":"no"})"},
               {longBody, longBody},
               // The log has one byte a character.
               {"n\xC3\xA9", "n\xE9"},
               {"", ""},
               {"bad \xFF", ""}};
  for (const auto& one : cases) {
    AccountMachine machine;
    RegisterWith(Answer(401, one.body));
    EXPECT_EQ(sim::LogLines(), Lines({kRegisterLine, "/v1/auth/register: HTTP 401, resp=" + one.logged}));
  }
}

TEST(CpRegister, ReadsNoStatusAsARefusalWithStatus0) {
  AccountMachine machine;
  sim::Fail({.operation = "WinHttpQueryHeaders"});
  EXPECT_EQ(RegisterWith(Answer(200, "ok")).error, L"register non-2xx: 0");
  EXPECT_EQ(sim::LogLines(), Lines({kRegisterLine, "/v1/auth/register: HTTP 0, resp=ok"}));
}

}  // namespace
