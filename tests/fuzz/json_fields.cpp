// The flat readers of the control plane's answers.
#include "controlplane/json_text.h"

#include "controlplane/text.h"
#include "fuzz/naive_json.h"
#include "fuzz/target.h"

namespace fuzz {
namespace {

void HoldStrings(const std::string& text, const char* key) {
  std::string value = "left over";
  const bool found = JsonGetString(text, key, value);
  const auto expected = NaiveString(text, key);
  Require(found == expected.has_value() && value == expected.value_or(""), "JsonGetString");
  std::vector<std::string> values{"left over"};
  const bool listed = JsonGetStringArray(text, key, values);
  const auto list = NaiveStrings(text, key);
  Require(listed == list.has_value() && values == list.value_or(std::vector<std::string>()),
          "JsonGetStringArray");
  const bool read = ExtractJsonUrlField(text, key, value);
  const auto url = NaiveUrl(text, key);
  Require(read == url.has_value() && (!read || value == *url), "ExtractJsonUrlField");
}

void HoldNumbers(const std::string& text, const char* key) {
  int64_t number = 99;
  const bool counted = JsonGetInt64(text, key, number);
  const auto expected = NaiveInt64(text, key);
  Require(counted == expected.has_value() && number == expected.value_or(0), "JsonGetInt64");
  uint8_t word = 99;
  const bool decided = JsonGetBool(text, key, word);
  const auto decision = NaiveBool(text, key);
  Require(decided == decision.has_value() && word == (decision.value_or(false) ? 1 : 0), "JsonGetBool");
  uint32_t keepalive = 99;
  const bool given = JsonGetPersistentKeepalive(text, keepalive);
  const auto seconds = NaiveKeepalive(text);
  Require(given == seconds.has_value() && keepalive == seconds.value_or(0), "JsonGetPersistentKeepalive");
}

}  // namespace

void RunJsonFields(const std::string& bytes) {
  for (const char* key : {"a", "access_token", "expires_at", "persistent_keepalive", "dns"}) {
    HoldStrings(bytes, key);
    HoldNumbers(bytes, key);
  }
  const std::string escaped = JsonEscape(bytes);
  Require(escaped == NaiveEscape(bytes), "JsonEscape");
  Require(IsJson('"' + escaped + '"'), "JsonEscape gives the inside of a JSON string");
}

}  // namespace fuzz
