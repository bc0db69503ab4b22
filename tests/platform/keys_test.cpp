// Key material on the platform's random bytes and Base64.
#include "wireguard/keys.h"

#include <algorithm>
#include <array>

#include "platform/platform_fixture.h"
#include "wireguard/platform.h"

namespace {

using KeysTest = PlatformTest;

using Key = std::array<uint8_t, 32>;

// RFC 7748, section 6.1: Alice's keys.
constexpr char kAlicePrivate[] = "dwdtCnMYpX08FsFyUbJmRd9ML4frwJkqsXf7pR25LCo=";
constexpr char kAlicePublic[] = "hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=";

}  // namespace

TEST_F(KeysTest, Base64KeepsThirtyTwoBytes) {
  Key bytes;
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 8 + 7);
  std::string text;
  std::wstring error;
  ASSERT_TRUE(Base64Encode32(bytes.data(), text, error));
  EXPECT_EQ(text, "Bw8XHycvNz9HT1dfZ293f4ePl5+nr7e/x8/X3+fv9/8=");
  Key decoded{};
  uint32_t length = 0;
  ASSERT_TRUE(Base64Decode(text, decoded.data(), length, error));
  EXPECT_EQ(length, 32u);
  EXPECT_EQ(decoded, bytes);
}

TEST_F(KeysTest, Base64UsesTheStandardAlphabetWithoutLineBreaks) {
  Key bytes;
  bytes.fill(0xFF);
  std::string text;
  std::wstring error;
  ASSERT_TRUE(Base64Encode32(bytes.data(), text, error));
  EXPECT_EQ(text, "//////////////////////////////////////////8=");
  bytes.fill(0xFB);
  ASSERT_TRUE(Base64Encode32(bytes.data(), text, error));
  EXPECT_EQ(text, "+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/s=");
}

TEST_F(KeysTest, Base64DecodeTakesThirtyTwoBytesAndNoMore) {
  Key bytes{};
  uint32_t length = 0;
  std::wstring error;
  EXPECT_TRUE(Base64Decode(std::string(42, 'A') + "A=", bytes.data(), length, error));
  EXPECT_EQ(length, 32u);
  EXPECT_FALSE(Base64Decode(std::string(44, 'A'), bytes.data(), length, error));
  EXPECT_EQ(error, L"Base64Decode: output too large");
  EXPECT_FALSE(Base64Decode(std::string(4000, 'A'), bytes.data(), length, error));
  EXPECT_EQ(error, L"Base64Decode: output too large");
}

TEST_F(KeysTest, Base64DecodeGivesTheLengthOfShorterTexts) {
  Key bytes{};
  uint32_t length = 0;
  std::wstring error;
  EXPECT_TRUE(Base64Decode("YWJj", bytes.data(), length, error));
  EXPECT_EQ(length, 3u);
  EXPECT_EQ(bytes[0], 'a');
  EXPECT_EQ(bytes[2], 'c');
}

TEST_F(KeysTest, Base64DecodeRefusesWhatIsNoBase64) {
  Key bytes{};
  uint32_t length = 0;
  std::wstring error;
  EXPECT_FALSE(Base64Decode("!not base64!", bytes.data(), length, error));
  EXPECT_TRUE(error.starts_with(L"CryptStringToBinaryA(size) failed: ")) << testing::PrintToString(error);
}

TEST_F(KeysTest, NewKeysAreClampedAndDiffer) {
  std::string first;
  std::string second;
  std::string publicKey;
  std::wstring error;
  ASSERT_TRUE(WgGenerateKeypairBase64(first, publicKey, error));
  ASSERT_TRUE(WgGenerateKeypairBase64(second, publicKey, error));
  EXPECT_EQ(first.size(), 44u);
  EXPECT_NE(first, second);
  Key key{};
  uint32_t length = 0;
  ASSERT_TRUE(Base64Decode(first, key.data(), length, error));
  EXPECT_EQ(key[0] & 7, 0);
  EXPECT_EQ(key[31] & 192, 64);
}

TEST_F(KeysTest, ThePublicKeyOfTheKnownVectorIsDerivedAndWritten) {
  const std::wstring path = File(L"wg_client_publickey.txt");
  std::string publicKey;
  ASSERT_TRUE(DeriveWgPublicKeyB64FromPrivateB64(path, kAlicePrivate, publicKey));
  EXPECT_EQ(publicKey, kAlicePublic);
  EXPECT_EQ(FileBytes(path), std::string(kAlicePublic) + "\r\n");
}

TEST_F(KeysTest, RandomBytesFillTheWholeBuffer) {
  std::array<uint8_t, 256> bytes{};
  ASSERT_EQ(platform::BCryptGenRandom(bytes.data(), 256, platform::kBcryptUseSystemPreferredRng), 0);
  EXPECT_LT(std::count(bytes.begin() + 128, bytes.end(), 0), 64);
}
