// The conversions between UTF-8 and UTF-16, whose rules for invalid input are the platform's.
#include "controlplane/text.h"

#include <vector>

#include "platform/platform_fixture.h"
#include "service/platform.h"

namespace {

using TextTest = PlatformTest;

// With replacements, as the process runner reads output.
std::wstring Replacing(const std::string& bytes) {
  const int size = static_cast<int>(bytes.size());
  const int length =
      platform::MultiByteToWideChar(platform::kCodePageUtf8, 0, bytes.data(), size, nullptr, 0);
  std::wstring text(static_cast<size_t>(length), L'\0');
  platform::MultiByteToWideChar(platform::kCodePageUtf8, 0, bytes.data(), size, text.data(), length);
  return text;
}

}  // namespace

TEST_F(TextTest, Utf8ToWideConvertsSequencesOfEachLength) {
  EXPECT_EQ(Utf8ToWide("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"), L"a\u00E9\u4E2D\xD83D\xDE00");
  EXPECT_EQ(Utf8ToWide(""), L"");
  EXPECT_EQ(Utf8ToWide(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST_F(TextTest, Utf8ToWideTakesTheFirstAndTheLastOfEachLength) {
  EXPECT_EQ(Utf8ToWide("\xC2\x80\xDF\xBF"), L"\x80\x7FF");
  EXPECT_EQ(Utf8ToWide("\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"), L"\x800\xD7FF\xE000\xFFFF");
  EXPECT_EQ(Utf8ToWide("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"), L"\xD800\xDC00\xDBFF\xDFFF");
}

TEST_F(TextTest, Utf8ToWideGivesNothingForInvalidInput) {
  const std::vector<std::string> invalid = {
      "\xC3",              // ends early
      "ok\xE4\xB8",        // ends early behind valid text
      "\xF0\x9F\x98",      // ends early
      "\x80",              // continuation without a start
      "a\xBFz",            // the same inside a text
      "\xC3(",             // start without its continuation
      "\xC0\x80",          // overlong
      "\xC1\xBF",          // overlong
      "\xE0\x9F\xBF",      // overlong
      "\xF0\x8F\xBF\xBF",  // overlong
      "\xED\xA0\x80",      // surrogate
      "\xED\xBF\xBF",      // surrogate
      "\xF4\x90\x80\x80",  // above U+10FFFF
      "\xF5\x80\x80\x80",  // above U+10FFFF
      "\xFE",
      "\xFF",  // never in UTF-8
  };
  for (const std::string& bytes : invalid) {
    EXPECT_EQ(Utf8ToWide(bytes), L"") << testing::PrintToString(bytes);
    EXPECT_EQ(Utf8ToWide("{\"a\":1}" + bytes), L"") << testing::PrintToString(bytes);
  }
}

TEST_F(TextTest, WithoutTheStrictFlagInvalidBytesAreReplaced) {
  EXPECT_EQ(Replacing("a\xFFz"), L"a\xFFFDz");
  EXPECT_EQ(Replacing("\xC3("), L"\xFFFD(");
  EXPECT_EQ(Replacing("\x80"), L"\xFFFD");
  EXPECT_EQ(Replacing("ok\xC3"), L"ok\xFFFD");
  EXPECT_EQ(Replacing("a\xC3\xA9z"), L"a\u00E9z");
}

TEST_F(TextTest, WideToUtf8ConvertsPairsAndReplacesUnpairedSurrogates) {
  EXPECT_EQ(WideToUtf8(L"a\u00E9\u4E2D\xD83D\xDE00"), "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80");
  EXPECT_EQ(WideToUtf8(L""), "");
  EXPECT_EQ(WideToUtf8(L"a\xD83D"), "a\xEF\xBF\xBD");
  EXPECT_EQ(WideToUtf8(L"\xDE00z"), "\xEF\xBF\xBDz");
  EXPECT_EQ(WideToUtf8(L"\xDE00\xD83D"), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(WideToUtf8(L"\xD83D\xD83D\xDE00"), "\xEF\xBF\xBD\xF0\x9F\x98\x80");
}

TEST_F(TextTest, WideToUtf8KeepsZeros) {
  EXPECT_EQ(WideToUtf8(std::wstring(L"a\0b", 3)), std::string("a\0b", 3));
}
