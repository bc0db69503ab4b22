#include "wireguard/keys.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "sim/files.h"
#include "sim/kernel.h"
#include "tests/wireguard/known_keys.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Decoded {
  bool ok = false;
  Bytes bytes;
  std::wstring error;
};

Decoded Decode(const std::string& text) {
  uint8_t buffer[32] = {};
  uint32_t length = 0;
  Decoded result;
  result.ok = Base64Decode(text, buffer, length, result.error);
  if (result.ok) result.bytes.assign(buffer, buffer + length);
  return result;
}

std::string Generate(std::string& publicKey, std::wstring& error) {
  std::string privateKey;
  return WgGenerateKeypairBase64(privateKey, publicKey, error) ? privateKey : std::string();
}

TEST(ClampX25519Scalar, ClearsAndSetsOnlyTheBitsOfTheFirstAndLastByte) {
  sim::Machine machine;
  uint8_t ones[32];
  std::memset(ones, 0xFF, sizeof ones);
  ClampX25519Scalar(ones);
  EXPECT_EQ(ones[0], 0xF8);
  for (int i = 1; i < 31; ++i) EXPECT_EQ(ones[i], 0xFF) << i;
  EXPECT_EQ(ones[31], 0x7F);

  uint8_t zeros[32] = {};
  ClampX25519Scalar(zeros);
  for (int i = 0; i < 31; ++i) EXPECT_EQ(zeros[i], 0) << i;
  EXPECT_EQ(zeros[31], 64);
}

TEST(Base64Decode, GivesTheBytesAndTheirCount) {
  sim::Machine machine;
  const Decoded whole = Decode(kAlicePrivate);
  ASSERT_TRUE(whole.ok);
  ASSERT_EQ(whole.bytes.size(), 32U);
  EXPECT_EQ(whole.bytes[0], 0x77);
  EXPECT_EQ(whole.bytes[31], 0x2A);

  const Decoded three = Decode("YWJj");
  ASSERT_TRUE(three.ok);
  EXPECT_EQ(three.bytes, (Bytes{'a', 'b', 'c'}));
}

TEST(Base64Decode, RefusesMoreThan32Bytes) {
  sim::Machine machine;
  EXPECT_TRUE(Decode(std::string(42, 'A') + "A=").ok);  // 32 bytes
  for (const std::string& tooLong :
       {std::string(44, 'A'), std::string(45, 'A') + "A==", std::string(400, 'A')}) {
    SCOPED_TRACE(tooLong);
    const Decoded refused = Decode(tooLong);
    EXPECT_FALSE(refused.ok);
    EXPECT_EQ(refused.error, L"Base64Decode: output too large");
  }
}

TEST(Base64Decode, TellsWhichOfItsTwoCallsFailedAndTheLastError) {
  for (const uint32_t passed : {0U, 1U}) {
    SCOPED_TRACE(passed);
    sim::Machine machine;
    sim::Fail({.operation = "CryptStringToBinaryA", .code = 13, .skip = passed});
    const Decoded failed = Decode(kAlicePrivate);
    EXPECT_FALSE(failed.ok);
    EXPECT_EQ(failed.error,
              passed ? L"CryptStringToBinaryA(data) failed: 13" : L"CryptStringToBinaryA(size) failed: 13");
  }
}

TEST(Base64Decode, ReportsTextThatIsNotBase64AsAFailedSizeCall) {
  sim::Machine machine;
  const Decoded failed = Decode("!!!!");
  EXPECT_FALSE(failed.ok);
  EXPECT_EQ(failed.error, L"CryptStringToBinaryA(size) failed: 13");
}

TEST(Base64Encode32, GivesPaddedTextOf44CharactersWithoutLineEndOrNul) {
  sim::Machine machine;
  const Decoded alice = Decode(kAlicePublic);
  ASSERT_EQ(alice.bytes.size(), 32U);
  std::string text = "old";
  std::wstring error;
  ASSERT_TRUE(Base64Encode32(alice.bytes.data(), text, error));
  EXPECT_EQ(text, kAlicePublic);
  EXPECT_EQ(text.size(), 44U);
}

TEST(Base64Encode32, TellsWhichOfItsTwoCallsFailedAndTheLastError) {
  for (const uint32_t passed : {0U, 1U}) {
    SCOPED_TRACE(passed);
    sim::Machine machine;
    sim::Fail({.operation = "CryptBinaryToStringA", .code = 87, .skip = passed});
    const uint8_t zeros[32] = {};
    std::string text;
    std::wstring error;
    EXPECT_FALSE(Base64Encode32(zeros, text, error));
    EXPECT_EQ(error,
              passed ? L"CryptBinaryToStringA(data) failed: 87" : L"CryptBinaryToStringA(size) failed: 87");
  }
}

TEST(WgGenerateKeypairBase64, MakesAClampedPrivateKeyAndThePublicKeyThatBelongsToIt) {
  sim::Machine machine;
  std::string publicKey;
  std::wstring error;
  const std::string privateKey = Generate(publicKey, error);
  EXPECT_EQ(privateKey.size(), 44U);
  EXPECT_EQ(publicKey.size(), 44U);
  const Decoded bytes = Decode(privateKey);
  ASSERT_EQ(bytes.bytes.size(), 32U);
  EXPECT_EQ(bytes.bytes[0] & 7, 0);
  EXPECT_EQ(bytes.bytes[31] & 0xC0, 64);

  std::string derived;
  ASSERT_TRUE(DeriveWgPublicKeyB64FromPrivateB64(L"C:\\ProgramData\\public.txt", privateKey, derived));
  EXPECT_EQ(publicKey, derived);
}

TEST(WgGenerateKeypairBase64, MakesANewPairEachTime) {
  sim::Machine machine;
  std::string firstPublic, secondPublic;
  std::wstring error;
  EXPECT_NE(Generate(firstPublic, error), Generate(secondPublic, error));
  EXPECT_NE(firstPublic, secondPublic);
}

TEST(WgGenerateKeypairBase64, AsksTheSystemsPreferredGeneratorFor32Bytes) {
  sim::Machine machine;
  std::string publicKey;
  std::wstring error;
  Generate(publicKey, error);
  EXPECT_EQ(sim::CountCalls("BCryptGenRandom"), 1U);
  EXPECT_EQ(sim::CountCalls("BCryptGenRandom", "size=32 flags=2"), 1U);
}

TEST(WgGenerateKeypairBase64, WritesTheFailedStatusInDecimalBehindTheHexadecimalPrefix) {
  const struct {
    uint32_t status;
    const wchar_t* error;
  } cases[] = {{258, L"BCryptGenRandom failed: 0x258"},
               {0xC0000001, L"BCryptGenRandom failed: 0x-1073741823"}};  // an NTSTATUS has a sign
  for (const auto& failure : cases) {
    sim::Machine machine;
    sim::Fail({.operation = "BCryptGenRandom", .code = failure.status});
    std::string publicKey;
    std::wstring error;
    EXPECT_EQ(Generate(publicKey, error), "");
    EXPECT_EQ(error, failure.error);
  }
}

TEST(WgGenerateKeypairBase64, TellsWhichHalfCouldNotBeEncoded) {
  const wchar_t* const errors[] = {L"Base64(priv) CryptBinaryToStringA(size) failed: 8",
                                   L"Base64(priv) CryptBinaryToStringA(data) failed: 8",
                                   L"Base64(pub) CryptBinaryToStringA(size) failed: 8",
                                   L"Base64(pub) CryptBinaryToStringA(data) failed: 8"};
  for (uint32_t passed = 0; passed < 4; ++passed) {
    SCOPED_TRACE(passed);
    sim::Machine machine;
    sim::Fail({.operation = "CryptBinaryToStringA", .code = 8, .skip = passed});
    std::string publicKey;
    std::wstring error;
    EXPECT_EQ(Generate(publicKey, error), "");
    EXPECT_EQ(error, errors[passed]);
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(GeneratePrivateKeyBase64, HandsOutThePrivateHalfAndLogsNothing) {
  sim::Machine machine;
  std::string privateKey;
  ASSERT_TRUE(GeneratePrivateKeyBase64(privateKey));
  const Decoded bytes = Decode(privateKey);
  ASSERT_EQ(bytes.bytes.size(), 32U);
  EXPECT_EQ(bytes.bytes[31] & 0xC0, 64);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(GeneratePrivateKeyBase64, LogsTheErrorOfAFailedGeneration) {
  sim::Machine machine;
  sim::Fail({.operation = "BCryptGenRandom", .code = 258});
  std::string privateKey;
  EXPECT_FALSE(GeneratePrivateKeyBase64(privateKey));
  EXPECT_EQ(sim::LogLines(),
            (std::vector<std::string>{"WgGenerateKeypairBase64 failed: BCryptGenRandom failed: 0x258"}));
}

}  // namespace
