#include "sim_fixture.h"
#include "wireguard/platform.h"

namespace {

struct Wide {
  int length;
  std::wstring text;
  uint32_t error;
};

Wide ToWide(const std::string& bytes, uint32_t flags) {
  sim::Machine machine;
  const int size = static_cast<int>(bytes.size());
  Wide wide{platform::MultiByteToWideChar(platform::kCodePageUtf8, flags, bytes.data(), size, nullptr, 0),
            L"", 0};
  wide.error = wide.length == 0 ? platform::GetLastError() : 0;
  wide.text.resize(static_cast<size_t>(wide.length));
  platform::MultiByteToWideChar(platform::kCodePageUtf8, flags, bytes.data(), size, wide.text.data(),
                                wide.length);
  return wide;
}

std::string ToUtf8(const std::wstring& text) {
  sim::Machine machine;
  std::string bytes(100, '\0');
  const int length = platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, text.data(),
                                                   static_cast<int>(text.size()), bytes.data(), 100);
  bytes.resize(static_cast<size_t>(length));
  return bytes;
}

TEST(Utf8ToUtf16, EveryLengthOfSequenceConverts) {
  EXPECT_EQ(ToWide("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", platform::kMbErrInvalidChars).text,
            (std::wstring{L'a', L'\u00E9', L'\u20AC', wchar_t{0xD83D}, wchar_t{0xDE00}}));
}

TEST(Utf8ToUtf16, StrictlyEveryInvalidSequenceFailsTheWhole) {
  for (const char* bytes : {"\xC3", "\x80", "\xC0\x80", "\xC1\xBF", "\xE0\x80\x80", "\xF0\x80\x80\x80",
                            "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "ok\xE2\x82"}) {
    const Wide wide = ToWide(bytes, platform::kMbErrInvalidChars);
    EXPECT_EQ(wide.length, 0) << bytes;
    EXPECT_EQ(wide.error, 1113u) << bytes;
  }
}

TEST(Utf8ToUtf16, LenientlyInvalidSequencesBecomeReplacementCharacters) {
  EXPECT_EQ(ToWide("a\xFF"
                   "b",
                   0)
                .text,
            L"a\uFFFD"
            L"b");
  EXPECT_EQ(ToWide("\xE2\x82"
                   "x",
                   0)
                .text,
            L"\uFFFDx");
  EXPECT_EQ(ToWide("\xED\xA0\x80", 0).text, L"\uFFFD\uFFFD\uFFFD");
}

TEST(Utf16ToUtf8, UnpairedSurrogatesBecomeReplacementCharacters) {
  EXPECT_EQ(ToUtf8(std::wstring{L'a', wchar_t{0xD83D}, wchar_t{0xDE00}}), "a\xF0\x9F\x98\x80");
  EXPECT_EQ(ToUtf8(std::wstring{wchar_t{0xD83D}, L'x'}), "\xEF\xBF\xBDx");
  EXPECT_EQ(ToUtf8(std::wstring{wchar_t{0xDE00}, wchar_t{0xD83D}}), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Utf16ToUtf8, ABufferThatIsTooSmallIsRefused) {
  sim::Machine machine;
  char bytes[2];
  EXPECT_EQ(platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, L"abc", 3, bytes, 2), 0);
  EXPECT_EQ(platform::GetLastError(), 122u);
  EXPECT_EQ(platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, L"abc", 0, nullptr, 0), 0);
  EXPECT_EQ(platform::GetLastError(), 87u);
}

TEST(Base64, GoesThereAndBackAndRefusesOtherCharacters) {
  sim::Machine machine;
  const uint8_t bytes[] = {0, 0xFF, 0x10, 0x80};
  char text[16];
  uint32_t size = 0;
  EXPECT_TRUE(platform::CryptBinaryToStringA(bytes, 4, platform::kCryptStringBase64NoCrLf, nullptr, size));
  EXPECT_EQ(size, 9u);
  EXPECT_TRUE(platform::CryptBinaryToStringA(bytes, 4, platform::kCryptStringBase64NoCrLf, text, size));
  EXPECT_STREQ(text, "AP8QgA==");
  uint8_t back[4];
  size = sizeof back;
  EXPECT_TRUE(platform::CryptStringToBinaryA("AP8Q\r\ngA==", platform::kCryptStringBase64, back, size));
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(back[3], 0x80);
  for (const char* bad : {"", "A", "AP8*", "AP=Q", "AP8QgA==="}) {
    EXPECT_FALSE(platform::CryptStringToBinaryA(bad, platform::kCryptStringBase64, nullptr, size)) << bad;
    EXPECT_EQ(platform::GetLastError(), 13u);
  }
}

TEST(RandomBytes, ComeFromTheSeed) {
  const auto draw = [](uint64_t seed) {
    sim::Options options;
    options.seed = seed;
    sim::Machine machine(options);
    std::string bytes(32, '\0');
    EXPECT_EQ(platform::BCryptGenRandom(bytes.data(), 32, platform::kBcryptUseSystemPreferredRng), 0);
    return bytes;
  };
  EXPECT_EQ(draw(1), draw(1));
  EXPECT_NE(draw(1), draw(2));
}

}  // namespace
