#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/data_files.h"
#include "sim/files.h"
#include "sim/kernel.h"
#include "tests/wireguard/known_keys.h"
#include "wireguard/keys.h"

namespace {

using Lines = std::vector<std::string>;

std::string PrivateFile() {
  return sim::FileBytes(kPrivateKeyFile).value_or("(none)");
}
std::string PublicFile() {
  return sim::FileBytes(kPublicKeyFile).value_or("(none)");
}

size_t DecodedLength(const std::string& text) {
  uint8_t bytes[32];
  uint32_t length = 0;
  std::wstring error;
  return Base64Decode(text, bytes, length, error) ? length : 0;
}

// Both outputs hold something beforehand.
struct Pair {
  bool ok = false;
  std::string privateKey = "old private";
  std::string publicKey = "old public";
};
Pair Rotate() {
  Pair pair;
  pair.ok = RotateActiveBootstrapWgKeypair(pair.privateKey, pair.publicKey);
  return pair;
}
Pair LoadAndDerive() {
  Pair pair;
  pair.ok = LoadOrCreatePrivateKey(kPrivateKeyFile, pair.privateKey) &&
            DeriveWgPublicKeyB64FromPrivateB64(kPublicKeyFile, pair.privateKey, pair.publicKey);
  return pair;
}

// The line of a failed derivation.
Lines Failed(const std::string& error) {
  return {"DeriveWgPublicKeyB64FromPrivateB64 failed: " + error};
}

TEST(LoadOrCreatePrivateKey, TakesTheTrimmedContentOfTheFileUnchecked) {
  const std::string contents[] = {kAlicePrivate, "abc", "\r\n\t " + std::string(kBobPrivate) + " \t\r\n",
                                  "not Base64 \xC3\xA4 at all"};
  const std::string keys[] = {kAlicePrivate, "abc", kBobPrivate, "not Base64 \xC3\xA4 at all"};
  for (size_t i = 0; i < std::size(contents); ++i) {
    SCOPED_TRACE(contents[i]);
    sim::Machine machine;
    sim::PutFile(kPrivateKeyFile, contents[i]);
    std::string key;
    EXPECT_TRUE(LoadOrCreatePrivateKey(kPrivateKeyFile, key));
    EXPECT_EQ(key, keys[i]);
    EXPECT_EQ(PrivateFile(), contents[i]);
    EXPECT_EQ(sim::CountCalls("BCryptGenRandom"), 0U);
  }
}

TEST(LoadOrCreatePrivateKey, WritesANewKeyAndLineEndForAMissingOrBlankFile) {
  for (const char* content : {static_cast<const char*>(nullptr), "", " \t\r\n"}) {
    sim::Machine machine;
    if (content) sim::PutFile(kPrivateKeyFile, content);
    std::string key;
    ASSERT_TRUE(LoadOrCreatePrivateKey(kPrivateKeyFile, key));
    EXPECT_EQ(DecodedLength(key), 32U);
    EXPECT_EQ(PrivateFile(), key + "\r\n");
    EXPECT_EQ(PrivateFile().size(), 46U);
    EXPECT_EQ(PublicFile(), "(none)");
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(LoadOrCreatePrivateKey, ReplacesTheFileThroughATemporarySibling) {
  sim::Machine machine;
  std::string key;
  ASSERT_TRUE(LoadOrCreatePrivateKey(kPrivateKeyFile, key));
  EXPECT_EQ(sim::CountCalls("MoveFileExW", "wg_client_privatekey.txt.tmp"), 1U);
  EXPECT_FALSE(sim::FileExists(std::wstring(kPrivateKeyFile) + L".tmp"));
}

TEST(LoadOrCreatePrivateKey, FailsWithoutTheFoldersAndGeneratesNothing) {
  sim::Machine machine;
  const std::vector<std::wstring> filesAtBoot = sim::AllFiles();
  sim::Fail({.operation = "CreateDirectoryW", .code = 5, .argumentsContain = "TELVOR\\auth"});
  std::string key = "old";
  EXPECT_FALSE(LoadOrCreatePrivateKey(kPrivateKeyFile, key));
  EXPECT_EQ(key, "");
  EXPECT_EQ(sim::CountCalls("BCryptGenRandom"), 0U);

  key = "old";
  EXPECT_FALSE(LoadOrCreatePrivateKey(L"bare_name.txt", key));
  EXPECT_EQ(key, "");
  EXPECT_EQ(sim::AllFiles(), filesAtBoot);
}

TEST(LoadOrCreatePrivateKey, LeavesTheOutputEmptyAndTheFileAsItWasWhenTheWriteFails) {
  sim::Machine machine;
  sim::PutFile(kPrivateKeyFile, " ");
  sim::Fail({.operation = "CreateFileW", .code = 5, .argumentsContain = "privatekey.txt.tmp"});
  std::string key = "old";
  EXPECT_FALSE(LoadOrCreatePrivateKey(kPrivateKeyFile, key));
  EXPECT_EQ(key, "");
  EXPECT_EQ(PrivateFile(), " ");
}

TEST(LoadOrCreatePrivateKey, LogsWhyNoKeyCouldBeMade) {
  sim::Machine machine;
  sim::Fail({.operation = "BCryptGenRandom", .code = 258});
  std::string key = "old";
  EXPECT_FALSE(LoadOrCreatePrivateKey(kPrivateKeyFile, key));
  EXPECT_EQ(key, "");
  EXPECT_EQ(PrivateFile(), "(none)");
  EXPECT_EQ(sim::LogLines(), (Lines{"WgGenerateKeypairBase64 failed: BCryptGenRandom failed: 0x258"}));
}

TEST(KeyFiles, AreNotWrittenWithoutKeyMaterial) {
  sim::Machine machine;
  sim::GiveBlankBase64();
  std::string key = "old";
  EXPECT_FALSE(LoadOrCreatePrivateKey(kPrivateKeyFile, key));
  EXPECT_EQ(key, "");
  key = "old";
  EXPECT_FALSE(DeriveWgPublicKeyB64FromPrivateB64(kPublicKeyFile, kAlicePrivate, key));
  EXPECT_EQ(key, "");
  EXPECT_TRUE(sim::LogLines().empty());
  EXPECT_FALSE(Rotate().ok);
  EXPECT_EQ(sim::LogLines(), (Lines{"RotateActiveBootstrapWgKeypair: begin",
                                    "RotateActiveBootstrapWgKeypair: generated empty key material"}));
  EXPECT_EQ(PrivateFile(), "(none)");
  EXPECT_EQ(PublicFile(), "(none)");
}

TEST(DeriveWgPublicKey, GivesThePublicKeysOfTheRfcForUnclampedPrivateKeys) {
  const char* const pairs[][2] = {{kAlicePrivate, kAlicePublic}, {kBobPrivate, kBobPublic}};
  for (const auto& pair : pairs) {
    sim::Machine machine;
    std::string key = "old";
    ASSERT_TRUE(DeriveWgPublicKeyB64FromPrivateB64(kPublicKeyFile, pair[0], key));
    EXPECT_EQ(key, pair[1]);
    EXPECT_EQ(PublicFile(), std::string(pair[1]) + "\r\n");
    EXPECT_EQ(PublicFile().size(), 46U);
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(DeriveWgPublicKey, LeavesAnUnclampedPrivateKeyInItsFileAndInTheOutput) {
  sim::Machine machine;
  sim::PutFile(kPrivateKeyFile, std::string(kAlicePrivate) + "\r\n");
  const Pair pair = LoadAndDerive();
  ASSERT_TRUE(pair.ok);
  EXPECT_EQ(pair.privateKey, kAlicePrivate);
  EXPECT_EQ(pair.publicKey, kAlicePublic);
  EXPECT_EQ(PrivateFile(), std::string(kAlicePrivate) + "\r\n");
}

TEST(DeriveWgPublicKey, HandsOutAnExistingPublicFileWithoutDerivingOrComparing) {
  const std::string contents[] = {kBobPublic, " \r\nanything\t", "any\tthing"};
  for (const std::string& content : contents) {
    SCOPED_TRACE(content);
    sim::Machine machine;
    sim::PutFile(kPublicKeyFile, content);
    std::string key = "old";
    EXPECT_TRUE(DeriveWgPublicKeyB64FromPrivateB64(kPublicKeyFile, "no Base64 either", key));
    EXPECT_EQ(key, content == " \r\nanything\t" ? "anything" : content);
    EXPECT_EQ(PublicFile(), content);
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(DeriveWgPublicKey, LogsAPrivateKeyThatIsNot32BytesOfBase64) {
  const struct {
    std::string privateKey;
    std::string error;
  } cases[] = {
      {"YWJj", "Private key decoded length != 32"},
      {std::string(40, 'A') + "AA==", "Private key decoded length != 32"},  // 31 bytes
      {std::string(44, 'A'), "Base64Decode: output too large"},             // 33 bytes
      {std::string(88, 'A'), "Base64Decode: output too large"},
      {"!!!!", "CryptStringToBinaryA(size) failed: 13"},
  };
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.privateKey);
    sim::Machine machine;
    std::string key = "old";
    EXPECT_FALSE(DeriveWgPublicKeyB64FromPrivateB64(kPublicKeyFile, bad.privateKey, key));
    EXPECT_EQ(key, "");
    EXPECT_EQ(PublicFile(), "(none)");
    EXPECT_EQ(sim::LogLines(), Failed(bad.error));
  }
}

TEST(DeriveWgPublicKey, FailsOnAPrivateFileOfAbcThatLoadingAccepted) {
  sim::Machine machine;
  sim::PutFile(kPrivateKeyFile, "abc");
  const Pair pair = LoadAndDerive();
  EXPECT_FALSE(pair.ok);
  EXPECT_EQ(pair.privateKey, "abc");
  ASSERT_EQ(sim::LogLines().size(), 1U);
  const std::string line = sim::LogLines()[0];
  const bool wrongLength = line == Failed("Private key decoded length != 32")[0];
  EXPECT_TRUE(wrongLength || line.starts_with(Failed("CryptStringToBinaryA(")[0])) << line;
}

TEST(DeriveWgPublicKey, LogsAnEncoderThatFails) {
  sim::Machine machine;
  sim::Fail({.operation = "CryptBinaryToStringA", .code = 8});
  std::string key = "old";
  EXPECT_FALSE(DeriveWgPublicKeyB64FromPrivateB64(kPublicKeyFile, kAlicePrivate, key));
  EXPECT_EQ(key, "");
  EXPECT_EQ(sim::LogLines(), Failed("CryptBinaryToStringA(size) failed: 8"));
}

TEST(DeriveWgPublicKey, FailsQuietlyWithoutTheFoldersOrTheWrite) {
  const sim::Fault faults[] = {
      {.operation = "CreateDirectoryW", .code = 5, .argumentsContain = "TELVOR\\auth"},
      {.operation = "CreateFileW", .code = 5, .argumentsContain = "publickey.txt.tmp"},
      {.operation = "MoveFileExW", .code = 5, .argumentsContain = "publickey.txt.tmp"},
  };
  for (const sim::Fault& fault : faults) {
    SCOPED_TRACE(fault.operation);
    sim::Machine machine;
    sim::Fail(fault);
    std::string key = "old";
    EXPECT_FALSE(DeriveWgPublicKeyB64FromPrivateB64(kPublicKeyFile, kAlicePrivate, key));
    EXPECT_EQ(key, "");
    EXPECT_EQ(PublicFile(), "(none)");
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(KeyFiles, AreUsedAsTheyAreEvenIfTheyDoNotBelongTogether) {
  sim::Machine machine;
  sim::PutFile(kPrivateKeyFile, kAlicePrivate);
  sim::PutFile(kPublicKeyFile, kBobPublic);
  const Pair pair = LoadAndDerive();
  EXPECT_TRUE(pair.ok);
  EXPECT_EQ(pair.privateKey, kAlicePrivate);
  EXPECT_EQ(pair.publicKey, kBobPublic);
}

TEST(KeyFiles, ABlankPublicFileIsDerivedAnew) {
  sim::Machine machine;
  sim::PutFile(kPrivateKeyFile, kBobPrivate);
  sim::PutFile(kPublicKeyFile, "\r\n");
  EXPECT_EQ(LoadAndDerive().publicKey, kBobPublic);
  EXPECT_EQ(PublicFile(), std::string(kBobPublic) + "\r\n");
}

TEST(KeyFiles, ALostPrivateKeyIsReplacedWhileTheOldPublicKeyStays) {
  sim::Machine machine;
  sim::PutFile(kPublicKeyFile, kBobPublic);
  const Pair pair = LoadAndDerive();
  EXPECT_TRUE(pair.ok);
  EXPECT_EQ(PrivateFile(), pair.privateKey + "\r\n");
  EXPECT_EQ(pair.publicKey, kBobPublic);
  EXPECT_EQ(PublicFile(), kBobPublic);
}

TEST(KeyFiles, WithoutBothANewPairIsMadeAndKept) {
  sim::Machine machine;
  const Pair first = LoadAndDerive();
  ASSERT_TRUE(first.ok);
  EXPECT_EQ(PrivateFile(), first.privateKey + "\r\n");
  EXPECT_EQ(PublicFile(), first.publicKey + "\r\n");
  const Pair second = LoadAndDerive();
  EXPECT_EQ(second.privateKey, first.privateKey);
  EXPECT_EQ(second.publicKey, first.publicKey);
}

TEST(RotateActiveBootstrapWgKeypair, ReplacesBothFilesAndLogsEachStep) {
  sim::Machine machine;
  sim::PutFile(kPrivateKeyFile, kAlicePrivate);
  sim::PutFile(kPublicKeyFile, kBobPublic);
  const Pair pair = Rotate();
  ASSERT_TRUE(pair.ok);
  EXPECT_EQ(DecodedLength(pair.privateKey), 32U);
  EXPECT_EQ(PrivateFile(), pair.privateKey + "\r\n");
  EXPECT_EQ(PublicFile(), pair.publicKey + "\r\n");
  EXPECT_EQ(sim::LogLines(), (Lines{"RotateActiveBootstrapWgKeypair: begin",
                                    "RotateActiveBootstrapWgKeypair: keypair generated",
                                    "RotateActiveBootstrapWgKeypair: private key written",
                                    "RotateActiveBootstrapWgKeypair: public key written; success"}));
  sim::RemoveFile(kPublicKeyFile);
  EXPECT_EQ(LoadAndDerive().publicKey, pair.publicKey);
}

TEST(RotateActiveBootstrapWgKeypair, StopsAtTheFirstStepThatFailsAndLogsIt) {
  const Lines begin = {"RotateActiveBootstrapWgKeypair: begin"};
  const struct {
    sim::Fault fault;
    Lines lines;  // behind "begin"
  } cases[] = {
      {{.operation = "CreateDirectoryW", .code = 5, .argumentsContain = "TELVOR\\auth"},
       {"RotateActiveBootstrapWgKeypair: failed creating parent dir for private key path"}},
      {{.operation = "CreateDirectoryW", .code = 5, .skip = 1, .argumentsContain = "TELVOR\\auth"},
       {"RotateActiveBootstrapWgKeypair: failed creating parent dir for public key path"}},
      {{.operation = "BCryptGenRandom", .code = 258},
       {"RotateActiveBootstrapWgKeypair: WgGenerateKeypairBase64 failed: BCryptGenRandom failed: 0x258"}},
      {{.operation = "CreateFileW", .code = 32, .argumentsContain = "privatekey.txt.tmp"},
       {"RotateActiveBootstrapWgKeypair: keypair generated",
        "RotateActiveBootstrapWgKeypair: failed writing wg_client_privatekey.txt"}},
  };
  for (const auto& step : cases) {
    SCOPED_TRACE(step.lines.back());
    sim::Machine machine;
    sim::PutFile(kPrivateKeyFile, kAlicePrivate);
    sim::PutFile(kPublicKeyFile, kAlicePublic);
    sim::Fail(step.fault);
    const Pair pair = Rotate();
    EXPECT_FALSE(pair.ok);
    EXPECT_EQ(pair.privateKey, "");
    EXPECT_EQ(pair.publicKey, "");
    Lines expected = begin;
    expected.insert(expected.end(), step.lines.begin(), step.lines.end());
    EXPECT_EQ(sim::LogLines(), expected);
    EXPECT_EQ(PrivateFile(), kAlicePrivate);
    EXPECT_EQ(PublicFile(), kAlicePublic);
  }
}

TEST(RotateActiveBootstrapWgKeypair, LeavesANewPrivateAndAnOldPublicKeyWhenThePublicWriteFails) {
  sim::Machine machine;
  sim::PutFile(kPrivateKeyFile, kAlicePrivate);
  sim::PutFile(kPublicKeyFile, kAlicePublic);
  sim::Fail({.operation = "MoveFileExW", .code = 32, .argumentsContain = "publickey.txt.tmp"});
  const Pair pair = Rotate();
  EXPECT_FALSE(pair.ok);
  EXPECT_EQ(pair.privateKey, "");
  EXPECT_EQ(pair.publicKey, "");
  EXPECT_NE(PrivateFile(), kAlicePrivate);
  EXPECT_EQ(PrivateFile().size(), 46U);
  EXPECT_EQ(PublicFile(), kAlicePublic);
  EXPECT_EQ(
      sim::LogLines(),
      (Lines{"RotateActiveBootstrapWgKeypair: begin", "RotateActiveBootstrapWgKeypair: keypair generated",
             "RotateActiveBootstrapWgKeypair: private key written",
             "RotateActiveBootstrapWgKeypair: failed writing wg_client_publickey.txt"}));
}

TEST(KeyFiles, AreReadWholeWhileARotationRuns) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    sim::Machine machine({.seed = seed});
    sim::PutFile(kPrivateKeyFile, std::string(kAlicePrivate) + "\r\n");
    bool rotated = false;
    sim::StartThread("rotation", [&rotated] {
      Rotate();
      rotated = true;
    });
    while (!rotated) {
      std::string key;
      if (LoadOrCreatePrivateKey(kPrivateKeyFile, key)) {
        EXPECT_EQ(key.size(), 44U);
        EXPECT_EQ(DecodedLength(key), 32U);
      }
    }
  }
}

}  // namespace
