// Conversions between UTF-8 and UTF-16, the two trimmers, and the members of a request's object.
#include "controlplane/text.h"

#include <gtest/gtest.h>

#include <string>

#include "controlplane/json_text.h"
#include "sim/kernel.h"

namespace {

TEST(Utf8ToWide, ConvertsValidText) {
  sim::Machine machine;
  EXPECT_EQ(Utf8ToWide("abc"), L"abc");
  EXPECT_EQ(Utf8ToWide("\xC3\xA9\xE4\xB8\xAD"), L"\u00E9\u4E2D");
  EXPECT_EQ(Utf8ToWide(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(Utf8ToWide, GivesASurrogatePairAsTwoUnits) {
  sim::Machine machine;
  EXPECT_EQ(Utf8ToWide("\xF0\x9F\x98\x80"), std::wstring({wchar_t{0xD83D}, wchar_t{0xDE00}}));
}

TEST(Utf8ToWide, GivesNothingForInvalidText) {
  sim::Machine machine;
  for (const char* text : {"\xC3", "good\xC3", "\xC3good", "\x80", "\xC0\x80", "\xE0\x80\xAF", "\xED\xA0\x80",
                           "\xF4\x90\x80\x80", "\xE4\xB8", "\xFF"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Utf8ToWide(text), L"");
  }
}

TEST(Utf8ToWide, AsksOnceForTheLengthAndOnceForTheText) {
  sim::Machine machine;
  Utf8ToWide("abc");
  EXPECT_EQ(sim::CountCalls("MultiByteToWideChar"), 2U);
  EXPECT_EQ(sim::CountCalls("MultiByteToWideChar", "codePage=65001 flags=8"), 2U);
}

TEST(Utf8ToWideLenient, ConvertsValidText) {
  sim::Machine machine;
  EXPECT_EQ(Utf8ToWideLenient("a\xC3\xA9\xE4\xB8\xAD"), L"a\u00E9\u4E2D");
  EXPECT_EQ(Utf8ToWideLenient("\xF0\x9F\x98\x80"), std::wstring({wchar_t{0xD83D}, wchar_t{0xDE00}}));
  EXPECT_EQ(Utf8ToWideLenient(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
  EXPECT_EQ(sim::CountCalls("MultiByteToWideChar"), 6U);
  EXPECT_EQ(sim::CountCalls("MultiByteToWideChar", "codePage=65001 flags=0"), 6U);
}

TEST(Utf8ToWideLenient, ReplacesWhatIsInvalid) {
  sim::Machine machine;
  EXPECT_EQ(Utf8ToWideLenient("good\xFF!"), L"good\uFFFD!");
  EXPECT_EQ(Utf8ToWideLenient("\xC3"), L"\uFFFD");
}

TEST(WideToUtf8, ConvertsText) {
  sim::Machine machine;
  EXPECT_EQ(WideToUtf8(L"a\u00E9\u4E2D"), "a\xC3\xA9\xE4\xB8\xAD");
  EXPECT_EQ(WideToUtf8({wchar_t{0xD83D}, wchar_t{0xDE00}}), "\xF0\x9F\x98\x80");
  EXPECT_EQ(WideToUtf8(std::wstring(L"a\0b", 3)), std::string("a\0b", 3));
  EXPECT_EQ(sim::CountCalls("WideCharToMultiByte"), 6U);
  EXPECT_EQ(sim::CountCalls("WideCharToMultiByte", "codePage=65001 flags=0"), 6U);
}

TEST(WideToUtf8, ConvertsAnUnpairedSurrogateToTheReplacementCharacter) {
  sim::Machine machine;
  EXPECT_EQ(WideToUtf8({L'a', wchar_t{0xD83D}, L'b'}), "a\xEF\xBF\xBD\x62");
  EXPECT_EQ(WideToUtf8({wchar_t{0xDE00}}), "\xEF\xBF\xBD");
}

// What is half converted counts as nothing.
TEST(TextConversions, GiveNothingWhenThePlatformFailsAtTheLengthOrAtTheText) {
  for (const uint32_t passed : {0U, 1U}) {
    sim::Machine machine;
    sim::Fail({.operation = "MultiByteToWideChar", .skip = passed});
    EXPECT_EQ(Utf8ToWide("abc"), L"");
    EXPECT_EQ(sim::CountCalls("MultiByteToWideChar"), passed + 1);
    sim::Fail({.operation = "MultiByteToWideChar", .skip = passed});
    EXPECT_EQ(Utf8ToWideLenient("abc"), L"");
    sim::Fail({.operation = "WideCharToMultiByte", .skip = passed});
    EXPECT_EQ(WideToUtf8(L"abc"), "");
    EXPECT_EQ(sim::CountCalls("WideCharToMultiByte"), passed + 1);
  }
}

TEST(TextConversions, DoNotAskThePlatformForEmptyText) {
  sim::Machine machine;
  EXPECT_EQ(Utf8ToWide(""), L"");
  EXPECT_EQ(Utf8ToWideLenient(""), L"");
  EXPECT_EQ(WideToUtf8(L""), "");
  EXPECT_EQ(sim::Trace().size(), 0U);
}

TEST(JsonMember, GivesKeyAndValueInUtf8AndEscaped) {
  sim::Machine machine;
  EXPECT_EQ(JsonMember("email", L"m\u00E9\"\\\x1F/"), "\"email\":\"m\xC3\xA9\\\"\\\\\\u001f/\"");
  EXPECT_EQ(JsonMember("code", L""), R"("code":"")");
}

TEST(TrimAscii, RemovesBlankTabAndLineEndsAtBothEnds) {
  EXPECT_EQ(TrimAscii(" \t\r\n a b\tc \r\n"), "a b\tc");
  EXPECT_EQ(TrimAscii("abc"), "abc");
  EXPECT_EQ(TrimAscii(" \t\r\n"), "");
  EXPECT_EQ(TrimAscii(""), "");
}

TEST(TrimAscii, LeavesOtherWhiteSpace) {
  EXPECT_EQ(TrimAscii("\fa\v"), "\fa\v");
  EXPECT_EQ(TrimAscii("\xC2\xA0"
                      "a"),
            "\xC2\xA0"
            "a");
  EXPECT_EQ(TrimAscii(std::string("\0 ", 2)), std::string("\0", 1));
}

TEST(TrimWide, TrimsAsTheNarrowOne) {
  EXPECT_EQ(TrimWide(L" \t\r\n a b\tc \r\n"), L"a b\tc");
  EXPECT_EQ(TrimWide(L" \t\r\n"), L"");
  EXPECT_EQ(TrimWide(L""), L"");
  EXPECT_EQ(TrimWide(L"\f\u00A0a\u3000\v"), L"\f\u00A0a\u3000\v");
}

}  // namespace
