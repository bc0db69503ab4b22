// The flat readers of single fields. The quirks held here are wanted: callers depend on them.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "controlplane/json_text.h"

namespace {

// The value, or a word that no value of these tests is.
std::string StringField(const std::string& text, const char* key) {
  std::string value = "stale";
  const bool found = JsonGetString(text, key, value);
  EXPECT_TRUE(found || value.empty());
  return found ? value : "(not found)";
}

TEST(JsonGetString, GivesTheRawBytesBetweenTheQuotes) {
  EXPECT_EQ(StringField(R"({"a":"x"})", "a"), "x");
  EXPECT_EQ(StringField("{\"a\" \r\n\t:\n \"x y\"}", "a"), "x y");
  EXPECT_EQ(StringField("{\"a\":\"caf\xC3\xA9\xFF\"}", "a"), "caf\xC3\xA9\xFF");
  EXPECT_EQ(StringField(R"({"a":""})", "a"), "");
}

TEST(JsonGetString, MatchesTheQuotedKeyOnly) {
  const char text[] = R"({"token":"x","access_token":"y"})";
  EXPECT_EQ(StringField(text, "token"), "x");
  EXPECT_EQ(StringField(text, "access_token"), "y");
  EXPECT_EQ(StringField(R"({"access_token":"y"})", "token"), "(not found)");
  EXPECT_EQ(StringField(R"({"Token":"x"})", "token"), "(not found)");
  EXPECT_EQ(StringField(R"({"token_type":"x","token":"y"})", "token"), "y");
}

TEST(JsonGetString, TakesTheFirstOccurrenceWhateverItsDepth) {
  EXPECT_EQ(StringField(R"({"data":{"access_token":"n"},"access_token":"t"})", "access_token"), "n");
  EXPECT_EQ(StringField(R"([{"a":"1"},{"a":"2"}])", "a"), "1");
}

TEST(JsonGetString, TakesAStringValueForTheKey) {
  EXPECT_EQ(StringField(R"({"note":"access_token","access_token":"t"})", "access_token"), "t");
}

TEST(JsonGetString, SearchesTheColonFromTheStartOfTheMatch) {
  EXPECT_EQ(StringField(R"({"a:b":"v"})", "a:b"), ":");
}

TEST(JsonGetString, RunsOnToTheNextQuoteWhenTheValueIsNoString) {
  EXPECT_EQ(StringField(R"({"a":123,"b":"x"})", "a"), "b");
  EXPECT_EQ(StringField(R"({"a":null,"b":"x"})", "a"), "b");
  EXPECT_EQ(StringField(R"({"b":"x","a":123})", "a"), "(not found)");
}

TEST(JsonGetString, KnowsNoEscapes) {
  EXPECT_EQ(StringField(R"({"a":"x\"y"})", "a"), R"(x\)");
  EXPECT_EQ(StringField(R"({"a":"1\n2\u0041"})", "a"), R"(1\n2\u0041)");
}

TEST(JsonGetString, FailsOnTextThatEndsEarly) {
  for (const char* text : {"", "{", "\"a", "\"a\"", "\"a\" \"x\"", "\"a\":", "\"a\":\"", "\"a\":\"x"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(StringField(text, "a"), "(not found)");
  }
}

TEST(JsonGetString, SearchesPastAZeroByte) {
  const std::string text("\0{\"a\":\"x\0y\"}", 12);
  EXPECT_EQ(StringField(text, "a"), std::string("x\0y", 3));
}

TEST(JsonGetInt64, ReadsTheDigitsBehindTheColon) {
  const struct {
    const char* text;
    int64_t value;
  } cases[] = {{R"({"n":123})", 123},
               {"{\"n\" : \t 7}", 7},
               {R"({"n":-5})", -5},
               {R"({"n":12abc})", 12},
               {R"({"n":1.5e9})", 1},
               {R"({"n":007)", 7},
               {R"({"n":0)", 0},
               {"{\"n\":4\xB2}", 4},
               {R"({"n":9223372036854775807})", INT64_MAX},
               {R"({"n":-9223372036854775808})", INT64_MIN}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.text);
    int64_t value = 99;
    EXPECT_TRUE(JsonGetInt64(one.text, "n", value));
    EXPECT_EQ(value, one.value);
  }
}

TEST(JsonGetInt64, WrapsSilently) {
  int64_t value = 0;
  EXPECT_TRUE(JsonGetInt64(R"({"expires_at":99999999999999999999})", "expires_at", value));
  EXPECT_EQ(value, 7766279631452241919);
  EXPECT_TRUE(JsonGetInt64(R"({"expires_at":-18446744073709551617})", "expires_at", value));
  EXPECT_EQ(value, -1);
}

TEST(JsonGetInt64, FindsNoNumber) {
  for (const char* text :
       {"", R"({"m":1})", R"({"n"})", R"({"n":)", "{\"n\": \t", R"({"n":-)", R"({"n":- 5})", R"({"n":-})",
        R"({"n":+5})", R"({"n":"123"})", R"({"n":null})", R"({"n":.5})", "{\"n\":\xB2}"}) {
    SCOPED_TRACE(text);
    int64_t value = 99;
    EXPECT_FALSE(JsonGetInt64(text, "n", value));
    EXPECT_EQ(value, 0);
  }
}

TEST(JsonGetInt64, SkipsNoLineBreaks) {
  int64_t value = 99;
  EXPECT_FALSE(JsonGetInt64("{\"expires_at\":\n123}", "expires_at", value));
  EXPECT_FALSE(JsonGetInt64("{\"expires_at\":\r123}", "expires_at", value));
  EXPECT_EQ(value, 0);
}

TEST(JsonGetInt64, SearchesTheColonFromTheStartOfTheMatch) {
  int64_t value = 99;
  EXPECT_TRUE(JsonGetInt64(R"({"a:12":5})", "a:12", value));
  EXPECT_EQ(value, 12);
}

TEST(JsonGetBool, ReadsTheLiteralBehindTheColon) {
  const struct {
    const char* text;
    uint8_t value;
  } cases[] = {{R"({"ok":true})", 1},         {R"({"ok":false})", 0},   {"{\"ok\":\ntrue}", 1},
               {"{\"ok\" : \t\r\nfalse}", 0}, {R"({"ok":trueish})", 1}, {R"({"ok":falsehood})", 0},
               {R"({"ok":true)", 1},          {R"({"ok":false)", 0}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.text);
    uint8_t value = 99;
    EXPECT_TRUE(JsonGetBool(one.text, "ok", value));
    EXPECT_EQ(value, one.value);
  }
}

TEST(JsonGetBool, FindsNoLiteral) {
  for (const char* text :
       {"", R"({"no":true})", R"({"ok"})", R"({"ok":)", "{\"ok\": \r\n", R"({"ok":tru)", R"({"ok":fals)",
        R"({"ok":"true"})", R"({"ok":True})", R"({"ok":1})", R"({"ok":null})", "{\"ok\":\vtrue}"}) {
    SCOPED_TRACE(text);
    uint8_t value = 99;
    EXPECT_FALSE(JsonGetBool(text, "ok", value));
    EXPECT_EQ(value, 0);
  }
}

TEST(JsonGetPersistentKeepalive, ConvertsTheRunOfDigitsAndDashes) {
  const struct {
    const char* text;
    uint32_t value;
  } cases[] = {{R"({"persistent_keepalive":25})", 25},
               {"{\"persistent_keepalive\" : \t\r\n25}", 25},
               {R"({"persistent_keepalive":0})", 0},
               {R"({"persistent_keepalive":2-5})", 2},
               {R"({"persistent_keepalive":-1})", 4294967295U},
               {R"({"persistent_keepalive":--5})", 0},
               {R"({"persistent_keepalive":-})", 0},
               {R"({"persistent_keepalive":25.9})", 25},
               {R"({"persistent_keepalive":25)", 25}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.text);
    uint32_t value = 99;
    EXPECT_TRUE(JsonGetPersistentKeepalive(one.text, value));
    EXPECT_EQ(value, one.value);
  }
}

TEST(JsonGetPersistentKeepalive, SetsTheOutputToZeroWhenItFindsNothing) {
  for (const char* text :
       {"", R"({"keepalive":25})", R"({"persistent_keepalive"})", R"({"persistent_keepalive":)",
        "{\"persistent_keepalive\": \r\n", R"({"persistent_keepalive":"25"})",
        R"({"persistent_keepalive":null})", "{\"persistent_keepalive\":\v25}"}) {
    SCOPED_TRACE(text);
    uint32_t value = 25;
    EXPECT_FALSE(JsonGetPersistentKeepalive(text, value));
    EXPECT_EQ(value, 0U);
  }
}

}  // namespace
