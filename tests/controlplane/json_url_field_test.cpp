// ExtractJsonUrlField: the reader for addresses, which unlike the other readers undoes escapes and does not
// run on to the next quoted text.
#include <gtest/gtest.h>

#include <string>

#include "controlplane/json_text.h"

namespace {

// The value, or a word that no value of these tests is.
std::string UrlField(const std::string& text, const char* key = "url") {
  std::string value = "stale";
  const bool found = ExtractJsonUrlField(text, key, value);
  EXPECT_EQ(found, !value.empty());
  return found ? value : "(not found)";
}

TEST(ExtractJsonUrlField, GivesTheTextBehindTheKeysColon) {
  EXPECT_EQ(UrlField(R"({"url":"https://a.test/?b=c"})"), "https://a.test/?b=c");
  EXPECT_EQ(UrlField("{\"url\" junk : \t\r\n \"x\"}"), "x");
  EXPECT_EQ(UrlField("{\"url\":\"caf\xC3\xA9\xFF\"}"), "caf\xC3\xA9\xFF");
}

TEST(ExtractJsonUrlField, MatchesTheQuotedKeyOnly) {
  EXPECT_EQ(UrlField(R"({"checkout_url":"a","url":"b"})"), "b");
  EXPECT_EQ(UrlField(R"({"checkout_url":"a"})"), "(not found)");
  EXPECT_EQ(UrlField(R"({"URL":"a"})"), "(not found)");
}

TEST(ExtractJsonUrlField, TakesTheFirstOccurrenceWhateverItIs) {
  EXPECT_EQ(UrlField(R"({"o":{"url":"inner"},"url":"outer"})"), "inner");
  EXPECT_EQ(UrlField(R"({"kind":"url","next":"x"})"), "x");
  EXPECT_EQ(UrlField(R"({"url":5,"o":{"url":"x"}})"), "(not found)");
}

TEST(ExtractJsonUrlField, DoesNotRunOnToTheNextQuote) {
  for (const char* value : {"5", "null", "true", "[\"x\"]", "{\"a\":\"x\"}", ",\"x\"", "\f\"x\""}) {
    SCOPED_TRACE(value);
    EXPECT_EQ(UrlField("{\"url\":" + std::string(value) + ",\"b\":\"x\"}"), "(not found)");
  }
}

TEST(ExtractJsonUrlField, FailsOnTextThatEndsBeforeTheValue) {
  for (const char* text :
       {"", "{", "\"url", "\"url\"", "\"url\" \"x\"", "\"url\":", "\"url\": \t\r\n", "\"url\":\""}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(UrlField(text), "(not found)");
  }
}

TEST(ExtractJsonUrlField, ToleratesAMissingClosingQuote) {
  EXPECT_EQ(UrlField(R"({"url":"https://a.test)"), "https://a.test");
  EXPECT_EQ(UrlField(R"({"url":"https://a.test\"})"), "https://a.test\"}");
  EXPECT_EQ(UrlField(R"({"url":"https://a.test\)"), "https://a.test");
  EXPECT_EQ(UrlField(R"({"url":" )"), "(not found)");
}

TEST(ExtractJsonUrlField, UndoesEscapes) {
  EXPECT_EQ(UrlField(R"({"url":"https:\/\/a.test\/x\"y\\z"})"), R"(https://a.test/x"y\z)");
  EXPECT_EQ(UrlField(R"({"url":"a\nb\rc\td"})"), "a\nb\rc\td");
  EXPECT_EQ(UrlField(R"({"url":"a\\"})"), "a\\");
  EXPECT_EQ(UrlField(R"({"url":"a\bb\fc\qd"})"), "abbfcqd");
}

// No hexadecimal escape is known; wanted.
TEST(ExtractJsonUrlField, LeavesTheDigitsOfAHexadecimalEscape) {
  EXPECT_EQ(UrlField(R"({"url":"https://a.test?b=1\u0026c=2"})"), "https://a.test?b=1u0026c=2");
}

TEST(ExtractJsonUrlField, TrimsWhatTheEscapesGave) {
  EXPECT_EQ(UrlField("{\"url\":\" \\n\\t a b \\r\t\\n\"}"), "a b");
  EXPECT_EQ(UrlField(R"({"url":"\fa\v"})"), "fav");
  EXPECT_EQ(UrlField(R"({"url":""})"), "(not found)");
  EXPECT_EQ(UrlField(R"({"url":" \n\t "})"), "(not found)");
}

}  // namespace
