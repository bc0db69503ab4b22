// How wide texts are compared, sorted and cleaned.
#include "service/wide_text.h"

#include <gtest/gtest.h>

namespace {

TEST(EqualsIgnoringCase, FoldsAsciiLettersOnly) {
  EXPECT_TRUE(EqualsIgnoringCase(L"TelVor-Z[", L"tELvOR-z["));
  EXPECT_FALSE(EqualsIgnoringCase(L"\u00C9", L"\u00E9"));
  EXPECT_FALSE(EqualsIgnoringCase(L"[", L"{"));
  EXPECT_FALSE(EqualsIgnoringCase(L"@", L"`"));
  EXPECT_FALSE(EqualsIgnoringCase(L"ab", L"abc"));
  EXPECT_TRUE(EqualsIgnoringCase(L"", L""));
}

TEST(SortAndRemoveDuplicates, SortsByCodeUnitNotByNumber) {
  std::vector<std::wstring> texts = {L"9.0.0.1", L"10.0.0.1", L"9.0.0.1", L"a", L"B"};
  SortAndRemoveDuplicates(texts);
  EXPECT_EQ(texts, (std::vector<std::wstring>{L"10.0.0.1", L"9.0.0.1", L"B", L"a"}));
}

// U+FF21 sorts behind the surrogates of U+1F600, as UTF-16 has it.
TEST(SortAndRemoveDuplicates, SortsSurrogatesBeforeTheTopOfTheBasicPlane) {
  std::vector<std::wstring> texts = {L"\uFF21", L"\xD83D\xDE00"};
  SortAndRemoveDuplicates(texts);
  EXPECT_EQ(texts, (std::vector<std::wstring>{L"\xD83D\xDE00", L"\uFF21"}));
}

TEST(Utf16LittleEndian, GivesTheLowByteFirst) {
  EXPECT_EQ(Utf16LittleEndian(L"a\u4E2D\xDE00"), std::string("a\0\x2D\x4E\x00\xDE", 6));
  EXPECT_EQ(Utf16LittleEndian(L""), "");
}

TEST(FromUtf16LittleEndian, ReadsItBackAndDropsAnOddByte) {
  EXPECT_EQ(FromUtf16LittleEndian(std::string("a\0\x2D\x4E\x00\xDE", 6)), L"a\u4E2D\xDE00");
  EXPECT_EQ(FromUtf16LittleEndian(std::string("a\0b", 3)), L"a");
  EXPECT_EQ(FromUtf16LittleEndian(""), L"");
}

TEST(IsNoAddress, SkipsTheEmptyAndTheZeroAddressAlone) {
  EXPECT_TRUE(IsNoAddress(L""));
  EXPECT_TRUE(IsNoAddress(L"0.0.0.0"));
  EXPECT_FALSE(IsNoAddress(L" 0.0.0.0"));
  EXPECT_FALSE(IsNoAddress(L"0.0.0.0/0"));
  EXPECT_FALSE(IsNoAddress(L"10.0.0.0"));
}

TEST(CleanBypassAddress, CutsAtTheFirstSlashAndTrims) {
  EXPECT_EQ(CleanBypassAddress(L" \t1.2.3.4 /24/x\r\n"), L"1.2.3.4");
  EXPECT_EQ(CleanBypassAddress(L"1.2.3.4"), L"1.2.3.4");
  EXPECT_EQ(CleanBypassAddress(L"/24"), L"");
  EXPECT_EQ(CleanBypassAddress(L" \r\n"), L"");
  EXPECT_EQ(CleanBypassAddress(L"1. 2"), L"1. 2");
}

}  // namespace
