// The reader of string arrays and the escaping of texts. The quirks held here are wanted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "controlplane/json_text.h"

namespace {

using Values = std::vector<std::string>;

const Values kNotFound = {"(not found)"};

Values Array(const std::string& text, const char* key) {
  Values values = {"stale"};
  const bool found = JsonGetStringArray(text, key, values);
  EXPECT_TRUE(found || values.empty());
  return found ? values : kNotFound;
}

TEST(JsonGetStringArray, GivesTheStringsInOrder) {
  EXPECT_EQ(Array(R"({"dns":["10.0.0.2"]})", "dns"), Values({"10.0.0.2"}));
  EXPECT_EQ(Array("{\"dns\" : [ \"b\" ,\n\"a\", \"b\",\"\"]}", "dns"), Values({"b", "a", "b", ""}));
}

TEST(JsonGetStringArray, AnArrayWithoutStringsIsAnEmptyList) {
  EXPECT_EQ(Array(R"({"allowed_ips":[]})", "allowed_ips"), Values());
  EXPECT_EQ(Array(R"({"allowed_ips":[1,2]})", "allowed_ips"), Values());
}

TEST(JsonGetStringArray, AMissingKeyOrBracketIsNotFound) {
  for (const char* text : {"", R"({"other":["x"]})", R"({"dns":"x"})", R"({"dns":["x")", R"(["x"],"dns")"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Array(text, "dns"), kNotFound);
  }
}

TEST(JsonGetStringArray, NeedsNoColonAndMayTakeALaterArray) {
  EXPECT_EQ(Array(R"({"dns" ["x"]})", "dns"), Values({"x"}));
  EXPECT_EQ(Array(R"({"dns":null,"allowed_ips":["y"]})", "dns"), Values({"y"}));
}

TEST(JsonGetStringArray, SearchesTheBracketFromTheKeysStart) {
  EXPECT_EQ(Array(R"({"a[b":["x"]})", "a[b"), Values({":["}));
}

TEST(JsonGetStringArray, EndsAtTheFirstClosingBracket) {
  EXPECT_EQ(Array(R"({"dns":[["a"],"b"]})", "dns"), Values({"a"}));
  EXPECT_EQ(Array(R"({"dns":["a","b]c","d"]})", "dns"), Values({"a"}));
}

TEST(JsonGetStringArray, GivesKeysAndValuesOfObjectsInside) {
  EXPECT_EQ(Array(R"({"dns":[{"k":"v","n":1}]})", "dns"), Values({"k", "v", "n"}));
}

TEST(JsonGetStringArray, KnowsNoEscapes) {
  EXPECT_EQ(Array(R"({"dns":["a\"b"]})", "dns"), Values({R"(a\)"}));
  EXPECT_EQ(Array(R"({"dns":["\u0041"]})", "dns"), Values({R"(\u0041)"}));
}

TEST(JsonEscape, MapsTheShortEscapes) {
  EXPECT_EQ(JsonEscape("\b\t\n\f\r\"\\"), R"(\b\t\n\f\r\"\\)");
  EXPECT_EQ(JsonEscape("a/b'c"), "a/b'c");
  EXPECT_EQ(JsonEscape(""), "");
}

TEST(JsonEscape, WritesOtherControlBytesInLowerCaseHexadecimal) {
  EXPECT_EQ(JsonEscape("\x1F"), R"(\u001f)");
  EXPECT_EQ(JsonEscape(std::string("\0\x01\x0B\x0E", 4)), R"(\u0000\u0001\u000b\u000e)");
}

TEST(JsonEscape, CopiesEverythingFrom32Up) {
  EXPECT_EQ(JsonEscape(" ~\x7F"), " ~\x7F");
  EXPECT_EQ(JsonEscape("\xC3\xA9"), "\xC3\xA9");
  EXPECT_EQ(JsonEscape("\x80\xFF"), "\x80\xFF");
}

TEST(JsonEscape, IsNotUndoneByTheReader) {
  std::string value;
  EXPECT_TRUE(JsonGetString("{\"a\":\"" + JsonEscape(R"(back\slash)") + "\"}", "a", value));
  EXPECT_EQ(value, R"(back\\slash)");
  EXPECT_TRUE(JsonGetString("{\"a\":\"" + JsonEscape(R"(cut"here)") + "\"}", "a", value));
  EXPECT_EQ(value, R"(cut\)");
}

}  // namespace
