// What is taken out of a text that is given away, and what stays readable.
#include "telvorctl/masking.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

using telvorctl::IsKey;
using telvorctl::MaskSecrets;

const std::string kKey = "ad+1Aa8b0X6UIAGv6XOAFDnwl8+NqW/aB7H8vWy5XBY=";
const std::string kToken = "q3Vn0-5JmX_kZ8dYwT2hLrB7sEoUaCfGi4PxNvWy6Rs";

struct Row {
  const char* text;
  const char* masked;
};

TEST(Masking, TakesTheValueBehindATellingName) {
  const Row rows[] = {
      {R"({"access_token":"a b","expires_at":9})", R"({"access_token":"***","expires_at":9})"},
      {R"({"refreshToken" : "a\"b" , "x":"y"})", R"({"refreshToken" : "***" , "x":"y"})"},
      {R"({\"password\":\"a\\\"b\",\"x\":1})", R"({\"password\":\"***\",\"x\":1})"},
      {"{\"new_password\":\n  \"a\"}", "{\"new_password\":\n  \"***\"}"},
      {R"({"password":"cut o)", R"({"password":"***)"},
      {"{\"password\":\"cut o\nnext line", "{\"password\":\"***\nnext line"},
      {R"({"token":null,"password_set":true})", R"({"token":null,"password_set":true})"},
      {R"({"token":nullable})", R"({"token":***)"},
      {R"({"tokens":["a","b"]})", R"({"tokens":***)"},
      {"Authorization: Bearer abc def\r\nnext", "Authorization: ***\r\nnext"},
      {"https://cp/account?access_token=abc&x=1", "https://cp/account?access_token=***"},
      {"x?access_token%3Dabc", "x?access_token%3D***"},
      {"PrivateKey = short", "PrivateKey = ***"},
      {"Password:my dog's name", "Password:***"},
      {R"({"code":"123456"})", R"({"code":"***"})"},
      {"/v1/auth/register: User:hunter2, device_id=x", "/v1/auth/register: User:***"},
  };
  for (const Row& row : rows) EXPECT_EQ(MaskSecrets(row.text), row.masked);
}

TEST(Masking, TakesTheMailboxAndLeavesTheDomain) {
  const Row rows[] = {
      {"to ada.l+x@telvor.test, now", "to ***@telvor.test, now"},
      {"?q=ada%40telvor.test", "***%40telvor.test"},  // more than the mailbox, never less
      {"a@b c@d", "***@b ***@d"},
      {"caf\xE9@telvor.test", "***@telvor.test"},
      {"@telvor.test a@ @", "@telvor.test a@ @"},
  };
  for (const Row& row : rows) EXPECT_EQ(MaskSecrets(row.text), row.masked);
}

TEST(Masking, TakesKeysAndTokensThatStandAlone) {
  EXPECT_EQ(MaskSecrets("head=" + kKey + "\t12"), "head=***\t12");
  EXPECT_EQ(MaskSecrets("(" + kToken + ")"), "(***)");
  EXPECT_EQ(MaskSecrets("eyJhbGciOiJIUzI1NiJ9.eyJzdWIiOiIxMjM0NTY3ODkwIn0.x"), "***.***.x");
  EXPECT_EQ(MaskSecrets("id 6f1c2a0e-9b3d-4c57-8e21-d0a94b7f3c65!"), "id ***!");
  EXPECT_EQ(MaskSecrets("0123456789abcdef0123456789abcdef"), "***");
  EXPECT_EQ(MaskSecrets(std::string(43, 'A') + "="), "***");
}

TEST(Masking, LeavesWhatIsNoSecret) {
  for (const char* text : {
           "[2026-01-02 03:04:05] BuildID: BOOTSTRAPFIX-2026-03-20-05:07pm-Z",
           "EnsureDeviceRegistered: HTTP 401 (token invalid/expired); re-login and retry once",
           R"([BOOTSTRAP] AUTH_REQUIRED (no session: C:\ProgramData\TELVOR\auth\session.dat))",
           "WinHttpSendRequest FAILED gle=12029 host=cp port=443 path=/v1/devices/desktop-4j8k2lq/wg-profile",
           "HTTP GET status=401 body-head={\"error\":\"device_limit\",\"message\":\"too many devices\"}",
           "wireguard.exe installtunnelservice failed ec=1",
           "  bypass4: 203.0.113.7",
           "2026-01-02 03:04:05  44  C:\\ProgramData\\TELVOR\\auth\\wg_client_privatekey.txt",
           "exit code: 5",
       }) {
    EXPECT_EQ(MaskSecrets(text), text);
  }
}

// The page of the log quotes every line that the service writes; <...> stands for what differs.
TEST(Masking, LeavesTheServicesOwnWordsReadable) {
  std::ifstream page(TELVOR_SOURCE_ROOT "/docs/log.md");
  size_t quoted = 0;
  for (std::string line; std::getline(page, line);) {
    if (!line.starts_with("| `")) continue;
    const std::string cell = line.substr(2, line.find('|', 2) - 2);
    ++quoted;
    if (cell.find("User:<email>") != std::string::npos) continue;
    EXPECT_EQ(MaskSecrets(cell), cell);
  }
  EXPECT_GT(quoted, 80u);
}

TEST(Masking, KnowsTheFormOfAKey) {
  EXPECT_TRUE(IsKey(kKey));
  EXPECT_FALSE(IsKey(kKey.substr(1)));
  EXPECT_FALSE(IsKey(kToken + "-"));
  EXPECT_FALSE(IsKey(""));
}

// ---- Random secrets in every surrounding that could hold them ----

std::string RandomText(std::mt19937& random, const std::string& alphabet, size_t size) {
  std::string text;
  while (text.size() < size) text += alphabet[random() % alphabet.size()];
  return text;
}

const std::string kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

TEST(Masking, TakesRandomSecretsOutOfEverySurrounding) {
  const std::vector<std::string> surroundings = {
      R"([2026-01-02 03:04:05] HTTP GET status=200 body-head={"access_token":"@@","n":1})",
      R"(body-head={"a":{"password": "@@)",
      "stdout: PrivateKey = @@",
      "WinHttpSendRequest FAILED headers=Accept: x\r\nAuthorization: Bearer @@\r\n",
      "CrackUrl: https://cp/account?access_token=@@&page=1",
      "/v1/auth/register: User:@@, device_id=desktop-1",
      R"({"msg":"{\"refresh_token\":\"@@\"}"})",
  };
  std::mt19937 random(1);
  for (int round = 0; round < 3000; ++round) {
    const std::string secret = RandomText(random, kLetters + " !$%&/()=?+*-_.:;,<>|~", 6 + random() % 40);
    for (std::string text : surroundings) {
      text.replace(text.find("@@"), 2, secret);
      EXPECT_EQ(MaskSecrets(text).find(secret), std::string::npos) << text;
    }
  }
}

TEST(Masking, TakesRandomKeysAndTokensThatStandAlone) {
  std::mt19937 random(2);
  for (int round = 0; round < 3000; ++round) {
    const std::string secrets[] = {
        RandomText(random, kLetters + "+/", 43) + "=",
        RandomText(random, kLetters + "-_", 43),
        RandomText(random, "0123456789abcdef", 64),
        RandomText(random, "0123456789abcdef", 32),
        RandomText(random, kLetters, 32),
    };
    for (const std::string& secret : secrets) {
      for (const std::string& text : {secret, "head=" + secret + "\t1", "a \"" + secret + "\" b"})
        EXPECT_EQ(MaskSecrets(text).find(secret), std::string::npos) << text;
    }
  }
}

}  // namespace
