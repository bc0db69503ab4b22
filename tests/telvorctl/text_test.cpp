// Bytes made showable, columns, sizes, spans, tables.
#include "telvorctl/text.h"

#include <gtest/gtest.h>

namespace {

using namespace telvorctl;
using Lines = std::vector<std::string>;

TEST(Text, RepairsWhatIsNoUtf8) {
  EXPECT_EQ(RepairUtf8("Zürich €  \xF0\x9F\x98\x80"), "Zürich €  \xF0\x9F\x98\x80");
  EXPECT_EQ(RepairUtf8("caf\xE9!"), "caf\uFFFD!");
  EXPECT_EQ(RepairUtf8("\xC3"), "\uFFFD");
  EXPECT_EQ(RepairUtf8("\xC0\xAF"), "\uFFFD\uFFFD");                      // too long a form
  EXPECT_EQ(RepairUtf8("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");            // half of a pair
  EXPECT_EQ(RepairUtf8("\xF4\x90\x80\x80"), "\uFFFD\uFFFD\uFFFD\uFFFD");  // beyond the last code point
  EXPECT_EQ(RepairUtf8("\xE2\x82z"), "\uFFFD\uFFFDz");
  EXPECT_TRUE(IsUtf8("\xEF\xBF\xBD"));
  EXPECT_FALSE(IsUtf8("\xFF"));
}

TEST(Text, ShowsNothingThatDrivesATerminal) {
  EXPECT_EQ(Showable("a\tb\x1b[2Jc\r\n\x7F"), "a b?[2Jc???");
  EXPECT_EQ(Showable("\xC2\x9B"
                     "31m\xC2\xA0"),
            "?31m\xC2\xA0");
  EXPECT_EQ(Showable("\xFFx"), "\uFFFDx");
}

TEST(Text, FitsColumns) {
  EXPECT_EQ(Columns("Zürich"), 6u);
  EXPECT_EQ(FitColumns("Zürich", 8, true), "Zürich  ");
  EXPECT_EQ(FitColumns("Zürich", 8, false), "Zürich");
  EXPECT_EQ(FitColumns("Zürich", 2, true), "Zü");
  EXPECT_EQ(FitColumns("Zürich", 0, true), "");
}

TEST(Text, WrapsAtBlanks) {
  EXPECT_EQ(WrapColumns("short", 10), Lines({"short"}));
  EXPECT_EQ(WrapColumns("the service is there", 11), Lines({"the service", "is there"}));
  EXPECT_EQ(WrapColumns("the service is there", 13), Lines({"the service", "is there"}));
  EXPECT_EQ(WrapColumns("unbreakable", 4), Lines({"unbr", "eaka", "ble"}));
  EXPECT_EQ(WrapColumns(" ab", 1), Lines({" ", "a", "b"}));
}

TEST(Text, TellsSizes) {
  EXPECT_EQ(SizeText(0), "0 B");
  EXPECT_EQ(SizeText(1023), "1023 B");
  EXPECT_EQ(SizeText(1024), "1.0 KiB");
  EXPECT_EQ(SizeText(1536), "1.5 KiB");
  EXPECT_EQ(SizeText(1024 * 1024 - 1), "1023.9 KiB");
  EXPECT_EQ(SizeText(5ull << 30), "5.0 GiB");
  EXPECT_EQ(SizeText(UINT64_MAX), "15.9 EiB");
}

TEST(Text, TellsSpans) {
  EXPECT_EQ(SpanText(0), "0 seconds");
  EXPECT_EQ(SpanText(1), "1 second");
  EXPECT_EQ(SpanText(59), "59 seconds");
  EXPECT_EQ(SpanText(60), "1 minute");
  EXPECT_EQ(SpanText(900), "15 minutes");
  EXPECT_EQ(SpanText(7200), "2 hours");
  EXPECT_EQ(SpanText(86400), "1 day");
}

TEST(Text, LaysTablesOut) {
  EXPECT_EQ(TableLines({{"ID", "CITY"}, {"ch-zrh-1", "Zürich"}, {"x", ""}}),
            Lines({"ID        CITY", "ch-zrh-1  Zürich", "x"}));
}

TEST(Text, ComparesWithoutCase) {
  EXPECT_TRUE(EqualIgnoringCase("Tokyo", "tOKYO"));
  EXPECT_FALSE(EqualIgnoringCase("Tokyo", "Toky"));
  EXPECT_FALSE(EqualIgnoringCase("@", "`"));
}

}  // namespace
