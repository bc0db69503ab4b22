// The readers of a request line.
#include "ipc/request_fields.h"

#include <gtest/gtest.h>

#include "ipc/replies.h"

namespace {

using namespace std::string_literals;

constexpr int32_t kPreset = 120;

struct IntCase {
  std::string line;
  bool found;
  int32_t value;
};

void ExpectInts(const std::vector<IntCase>& cases) {
  for (const IntCase& row : cases) {
    SCOPED_TRACE(row.line);
    int32_t value = kPreset;
    EXPECT_EQ(ReadRequestInt(row.line, "limit", value), row.found);
    EXPECT_EQ(value, row.value);
  }
}

TEST(ReadRequestInt, ReadsADecimalNumber) {
  ExpectInts({{R"({"limit":0})", true, 0},
              {R"({"limit":50})", true, 50},
              {R"({"limit":-5})", true, -5},
              {R"({"limit":007})", true, 7},
              {R"("limit":50)", true, 50}});
}

TEST(ReadRequestInt, SkipsBlanksAndTabsBehindTheColonAlone) {
  ExpectInts({{"{\"limit\": \t 50}", true, 50},
              {"{\"limit\" :50}", false, kPreset},
              {"{\"limit\":\n50}", false, kPreset},
              {"{\"limit\":- 5}", false, kPreset}});
}

TEST(ReadRequestInt, StopsAtTheFirstNonDigit) {
  ExpectInts(
      {{R"({"limit":12abc})", true, 12}, {R"({"limit":1.5})", true, 1}, {R"({"limit":1e5})", true, 1}});
}

TEST(ReadRequestInt, IsFalseWithoutADigitAndKeepsTheDefault) {
  ExpectInts({{R"({})", false, kPreset},
              {R"()", false, kPreset},
              {R"({"limit":"50"})", false, kPreset},
              {R"({"limit":null})", false, kPreset},
              {R"({"limit":-})", false, kPreset},
              {R"({"limit":--5})", false, kPreset},
              {R"({"limit":+5})", false, kPreset},
              {R"({"limit":)", false, kPreset},
              {R"({"limit":  )", false, kPreset},
              {R"({"limit":-)", false, kPreset},
              {R"({"Limit":5})", false, kPreset},
              {R"({limit:5})", false, kPreset}});
}

TEST(ReadRequestInt, StopsAtTheDigitThatPassesTheLimit) {
  ExpectInts({{R"({"limit":2147483647})", true, 2147483647},
              {R"({"limit":2147483648})", true, INT32_MIN},
              {R"({"limit":21474836480})", true, INT32_MIN},
              {R"({"limit":-2147483648})", true, INT32_MIN},
              {R"({"limit":-2147483647})", true, -2147483647},
              // 2147483647 does not pass the limit yet, so the 1 is taken: 21474836471.
              {R"({"limit":21474836471})", true, -9},
              {R"({"limit":-21474836471})", true, 9},
              // 9999999999 passes with its last digit.
              {R"({"limit":99999999999})", true, 1410065407},
              {R"({"limit":99999999999999999999999999})", true, 1410065407},
              {R"({"limit":4294967296})", true, 0},
              {R"({"limit":4294967297})", true, 1}});
}

TEST(ReadRequestInt, TakesTheFirstTextualMatchWhateverSurroundsIt) {
  ExpectInts({{R"({"params":{"limit":3},"limit":4})", true, 3},
              {R"({"note":"see "limit":5","limit":6})", true, 5},
              {R"({"limit":x,"limit":6})", false, kPreset},
              {R"({"note":"\"limit\":5","limit":6})", true, 6}});
}

// ---- Strings ----

struct StringCase {
  std::string line;
  bool found;
  std::string value;
};

void ExpectStrings(const std::vector<StringCase>& cases) {
  for (const StringCase& row : cases) {
    SCOPED_TRACE(row.line);
    std::string value = "preset";
    EXPECT_EQ(ReadRequestString(row.line, "k", value), row.found);
    EXPECT_EQ(value, row.found ? row.value : "preset");
  }
}

TEST(ReadRequestString, ReadsUpToAnUnescapedQuote) {
  ExpectStrings({{R"({"k":"value"})", true, "value"},
                 {R"({"k":""})", true, ""},
                 {"{\"k\": \t \"value\"}", true, "value"},
                 {R"({"k":"a\"b"})", true, "a\"b"},
                 {R"({"k":"a\\"})", true, "a\\"},
                 {"{\"k\":\"caf\xC3\xA9 \xFF\"}", true, "caf\xC3\xA9 \xFF"},
                 {R"("k":"value")", true, "value"}});
}

TEST(ReadRequestString, CountsAnythingElseThanATextAsAbsent) {
  ExpectStrings({{R"({})", false, ""},
                 {R"()", false, ""},
                 {R"({"k":5})", false, ""},
                 {R"({"k":null,"x":"y"})", false, ""},
                 {R"({"k":)", false, ""},
                 {R"({"k": )", false, ""},
                 {R"({"k" :"value"})", false, ""},
                 {"{\"k\":\n\"value\"}", false, ""},
                 {R"({"K":"value"})", false, ""}});
}

TEST(ReadRequestString, KeepsNothingOfATextWithoutAnEnd) {
  ExpectStrings({{R"({"k":"value)", false, ""},
                 {R"({"k":")", false, ""},
                 {R"({"k":"value\)", false, ""},
                 {R"({"k":"value\")", false, ""}});
}

TEST(ReadRequestString, UndoesTheShortEscapes) {
  ExpectStrings({{R"({"k":"\b\f\n\r\t"})", true, "\b\f\n\r\t"},
                 {R"({"k":"\"\\\/"})", true, "\"\\/"},
                 {R"({"k":"\q\'\x\U\N"})", true, "q'xUN"}});
}

TEST(ReadRequestString, WritesCodePointsAsUtf8) {
  ExpectStrings({{R"({"k":"\u0041\u007f"})", true, "A\x7F"},
                 {R"({"k":"\u0080\u00e9\u07FF"})", true, "\xC2\x80\xC3\xA9\xDF\xBF"},
                 {R"({"k":"\u0800\u20AC\uffff"})", true, "\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF"},
                 {R"({"k":"\u00E9x"})", true, "\xC3\xA9x"},
                 {R"({"k":"a\u0000b"})", true, "a\0b"s}});
}

TEST(ReadRequestString, DoesNotJoinSurrogateHalves) {
  ExpectStrings({{R"({"k":"\ud83d\ude00"})", true, "\xED\xA0\xBD\xED\xB8\x80"}});
}

TEST(ReadRequestString, IsFalseWithABrokenCodePoint) {
  ExpectStrings({{R"({"k":"\u12"})", false, ""},
                 {R"({"k":"\u12"}   )", false, ""},
                 {R"({"k":"\u12g4"})", false, ""},
                 {R"({"k":"\u 123"})", false, ""},
                 {R"({"k":"\u-123"})", false, ""},
                 {R"({"k":"\u123)", false, ""},
                 {R"({"k":"\u)", false, ""}});
}

TEST(ReadRequestString, TakesTheFirstTextualMatchWhateverSurroundsIt) {
  ExpectStrings({{R"({"params":{"k":"inner"},"k":"outer"})", true, "inner"},
                 {R"({"k":5,"k":"second"})", false, ""},
                 {R"({"note":"\"k\":\"no\"","k":"yes"})", true, "yes"}});
}

// ---- The shapes of replies ----

TEST(JsonQuote, EscapesBetweenDoubleQuotes) {
  EXPECT_EQ(JsonQuote(""), "\"\"");
  EXPECT_EQ(JsonQuote("a\"b\\c\n\x01/"), R"("a\"b\\c\n\u0001/")");
  EXPECT_EQ(JsonQuote("caf\xC3\xA9"), "\"caf\xC3\xA9\"");
}

TEST(JsonQuoteOrNull, IsTheBareWordForAnEmptyText) {
  EXPECT_EQ(JsonQuoteOrNull(""), "null");
  EXPECT_EQ(JsonQuoteOrNull(" "), "\" \"");
}

TEST(Replies, AreExactDownToTheLastComma) {
  EXPECT_EQ(ResultReply(7, "true"), R"({"jsonrpc":"2.0","id":7,"result":true,"error":null})");
  EXPECT_EQ(ResultReply(-5, ""), R"({"jsonrpc":"2.0","id":-5,"result":,"error":null})");
  EXPECT_EQ(ErrorReply(INT32_MIN, "say \"no\""),
            R"({"jsonrpc":"2.0","id":-2147483648,"result":null,"error":{"message":"say \"no\""}})");
}

}  // namespace
