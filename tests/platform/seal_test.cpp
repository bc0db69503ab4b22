// Sealing and unsealing by the platform's data protection.
#include "platform/platform_fixture.h"
#include "service/data_files.h"
#include "service/platform.h"

namespace {

using SealTest = PlatformTest;

const std::string kPlain("{\"access_token\":\"t\"}\r\n\0\xFF", 24);

}  // namespace

TEST_F(SealTest, WhatWasSealedOpensAgain) {
  const std::wstring path = File(L"session.dat");
  std::string bytes = "stale";
  ASSERT_TRUE(ProtectToFile(path, kPlain));
  EXPECT_TRUE(UnprotectFromFile(path, bytes));
  EXPECT_EQ(bytes, kPlain);
}

TEST_F(SealTest, TheFileDoesNotShowThePlainText) {
  const std::wstring path = File(L"session.dat");
  ASSERT_TRUE(ProtectToFile(path, kPlain));
  EXPECT_EQ(FileBytes(path)->find("access_token"), std::string::npos);
}

TEST_F(SealTest, SealingAgainGivesOtherBytesThatOpenAlike) {
  std::string first;
  std::string second;
  std::string plain;
  ASSERT_TRUE(platform::CryptProtectData(kPlain, nullptr, platform::kCryptProtectLocalMachine, first));
  ASSERT_TRUE(platform::CryptProtectData(kPlain, nullptr, platform::kCryptProtectLocalMachine, second));
  EXPECT_NE(first, second);
  EXPECT_TRUE(platform::CryptUnprotectData(second, 0, plain));
  EXPECT_EQ(plain, kPlain);
}

TEST_F(SealTest, SealingOverALongerFileCutsIt) {
  const std::wstring path = File(L"session.dat");
  std::string bytes;
  PutFile(path, std::string(100000, 'x'));
  ASSERT_TRUE(ProtectToFile(path, "short"));
  EXPECT_TRUE(UnprotectFromFile(path, bytes));
  EXPECT_EQ(bytes, "short");
}

TEST_F(SealTest, SealingMakesTheFolder) {
  std::string bytes;
  ASSERT_TRUE(ProtectToFile(File(L"auth\\session.dat"), "x"));
  EXPECT_TRUE(UnprotectFromFile(File(L"auth\\session.dat"), bytes));
}

TEST_F(SealTest, ADamagedBlobDoesNotOpenAndStays) {
  const std::wstring path = File(L"session.dat");
  ASSERT_TRUE(ProtectToFile(path, kPlain));
  std::string blob = *FileBytes(path);
  blob.resize(blob.size() / 2);
  PutFile(path, blob);
  std::string bytes = "stale";
  EXPECT_FALSE(UnprotectFromFile(path, bytes));
  EXPECT_EQ(bytes, "");
  EXPECT_EQ(FileBytes(path), blob);
}

TEST_F(SealTest, PlainTextDoesNotOpen) {
  const std::wstring path = File(L"session.dat");
  PutFile(path, "{\"access_token\":\"t\"}");
  std::string bytes = "stale";
  EXPECT_FALSE(UnprotectFromFile(path, bytes));
  EXPECT_EQ(bytes, "");
}

TEST_F(SealTest, EmptyAndMissingFilesDoNotOpen) {
  std::string bytes = "stale";
  PutFile(File(L"empty.dat"), "");
  EXPECT_FALSE(UnprotectFromFile(File(L"empty.dat"), bytes));
  EXPECT_EQ(bytes, "");
  EXPECT_FALSE(UnprotectFromFile(File(L"missing.dat"), bytes));
}
