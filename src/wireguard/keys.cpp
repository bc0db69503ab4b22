#include "wireguard/keys.h"

#include <monocypher.h>

#include <algorithm>

#include "controlplane/text.h"
#include "service/data_files.h"
#include "service/log.h"
#include "wireguard/platform.h"

namespace {

constexpr uint32_t kKeySize = 32;

// Volatile, so that the compiler cannot drop a write that nothing reads.
void Wipe(uint8_t bytes[kKeySize]) {
  volatile uint8_t* cursor = bytes;
  for (uint32_t i = 0; i < kKeySize; ++i) cursor[i] = 0;
}

// RFC 7748: X25519 with u = 9, on a copy of the key that does not outlive the call.
void X25519BasePoint(uint8_t publicKey[kKeySize], const uint8_t privateKey[kKeySize]) {
  uint8_t copy[kKeySize];
  std::copy_n(privateKey, kKeySize, copy);
  crypto_x25519_public_key(publicKey, copy);
  Wipe(copy);
}

// Empty when there is no file or nothing but white space in it.
std::string ReadKeyFile(const std::wstring& path) {
  std::string content;
  if (!ReadWholeFile(path, content)) return {};
  return TrimAscii(content);
}

bool WriteKeyFile(const std::wstring& path, const std::string& key) {
  return WriteFileAtomic(path, key + "\r\n");
}

std::wstring LastErrorAfter(const wchar_t* what) {
  return what + std::to_wstring(platform::GetLastError());
}

bool DerivePublicKey(const std::string& privateKey, std::string& publicKey, std::wstring& error) {
  uint8_t privateBytes[kKeySize] = {};
  uint32_t length = 0;
  if (!Base64Decode(privateKey, privateBytes, length, error)) return false;
  if (length != kKeySize) {
    error = L"Private key decoded length != 32";
    return false;
  }
  // A key that somebody put into the file may be unclamped; there and in the configuration it stays so.
  ClampX25519Scalar(privateBytes);
  uint8_t publicBytes[kKeySize];
  X25519BasePoint(publicBytes, privateBytes);
  Wipe(privateBytes);
  return Base64Encode32(publicBytes, publicKey, error);
}

bool LogRotationStep(const std::wstring& text) {
  LogLine(L"RotateActiveBootstrapWgKeypair: " + text);
  return true;
}

bool LogRotationFailure(const std::wstring& text) {
  return !LogRotationStep(text);
}

}  // namespace

void ClampX25519Scalar(uint8_t scalar[32]) {
  scalar[0] = static_cast<uint8_t>(scalar[0] & 248);
  scalar[31] = static_cast<uint8_t>((scalar[31] & 63) | 64);
}

bool WgGenerateKeypairBase64(std::string& privateKey, std::string& publicKey, std::wstring& error) {
  uint8_t privateBytes[kKeySize];
  const int32_t status =
      platform::BCryptGenRandom(privateBytes, kKeySize, platform::kBcryptUseSystemPreferredRng);
  if (status != 0) {
    // Decimal digits behind "0x" are wanted.
    error = L"BCryptGenRandom failed: 0x" + std::to_wstring(status);
    return false;
  }
  ClampX25519Scalar(privateBytes);
  uint8_t publicBytes[kKeySize];
  X25519BasePoint(publicBytes, privateBytes);

  std::wstring encoderError;
  const bool privateEncoded = Base64Encode32(privateBytes, privateKey, encoderError);
  Wipe(privateBytes);
  if (!privateEncoded) {
    error = L"Base64(priv) " + encoderError;
    return false;
  }
  if (!Base64Encode32(publicBytes, publicKey, encoderError)) {
    error = L"Base64(pub) " + encoderError;
    return false;
  }
  return true;
}

bool GeneratePrivateKeyBase64(std::string& privateKey) {
  std::string generated;
  std::string publicKey;
  std::wstring error;
  if (!WgGenerateKeypairBase64(generated, publicKey, error)) {
    LogLine(L"WgGenerateKeypairBase64 failed: " + error);
    return false;
  }
  privateKey = generated;
  return true;
}

bool LoadOrCreatePrivateKey(const std::wstring& path, std::string& privateKey) {
  privateKey.clear();
  if (!EnsureParentDirForFile(path)) return false;
  std::string key = ReadKeyFile(path);
  if (key.empty()) {
    if (!GeneratePrivateKeyBase64(key)) return false;
    key = TrimAscii(key);
    if (key.empty() || !WriteKeyFile(path, key)) return false;
  }
  privateKey = key;
  return true;
}

bool DeriveWgPublicKeyB64FromPrivateB64(const std::wstring& publicKeyPath, const std::string& privateKey,
                                        std::string& publicKey) {
  publicKey.clear();
  if (!EnsureParentDirForFile(publicKeyPath)) return false;
  // Wanted: a public key that is there is not compared with the private key.
  std::string key = ReadKeyFile(publicKeyPath);
  if (key.empty()) {
    std::wstring error;
    if (!DerivePublicKey(privateKey, key, error)) {
      LogLine(L"DeriveWgPublicKeyB64FromPrivateB64 failed: " + error);
      return false;
    }
    key = TrimAscii(key);
    if (key.empty() || !WriteKeyFile(publicKeyPath, key)) return false;
  }
  publicKey = key;
  return true;
}

bool RotateActiveBootstrapWgKeypair(std::string& privateKey, std::string& publicKey) {
  privateKey.clear();
  publicKey.clear();
  LogRotationStep(L"begin");
  if (!EnsureParentDirForFile(kPrivateKeyFile)) {
    return LogRotationFailure(L"failed creating parent dir for private key path");
  }
  if (!EnsureParentDirForFile(kPublicKeyFile)) {
    return LogRotationFailure(L"failed creating parent dir for public key path");
  }
  std::string newPrivate;
  std::string newPublic;
  std::wstring error;
  if (!WgGenerateKeypairBase64(newPrivate, newPublic, error)) {
    return LogRotationFailure(L"WgGenerateKeypairBase64 failed: " + error);
  }
  newPrivate = TrimAscii(newPrivate);
  newPublic = TrimAscii(newPublic);
  if (newPrivate.empty() || newPublic.empty()) return LogRotationFailure(L"generated empty key material");
  LogRotationStep(L"keypair generated");
  if (!WriteKeyFile(kPrivateKeyFile, newPrivate)) {
    return LogRotationFailure(L"failed writing wg_client_privatekey.txt");
  }
  LogRotationStep(L"private key written");
  // Wanted: the private file stays new when this write fails; the next login heals the pair.
  if (!WriteKeyFile(kPublicKeyFile, newPublic)) {
    return LogRotationFailure(L"failed writing wg_client_publickey.txt");
  }
  privateKey = newPrivate;
  publicKey = newPublic;
  LogRotationStep(L"public key written; success");
  return true;
}

bool Base64Decode(const std::string& text, uint8_t bytes[32], uint32_t& length, std::wstring& error) {
  uint32_t size = 0;
  if (!platform::CryptStringToBinaryA(text, platform::kCryptStringBase64, nullptr, size)) {
    error = LastErrorAfter(L"CryptStringToBinaryA(size) failed: ");
    return false;
  }
  if (size > kKeySize) {
    error = L"Base64Decode: output too large";
    return false;
  }
  length = kKeySize;
  if (!platform::CryptStringToBinaryA(text, platform::kCryptStringBase64, bytes, length)) {
    error = LastErrorAfter(L"CryptStringToBinaryA(data) failed: ");
    return false;
  }
  return true;
}

bool Base64Encode32(const uint8_t bytes[32], std::string& text, std::wstring& error) {
  uint32_t size = 0;
  if (!platform::CryptBinaryToStringA(bytes, kKeySize, platform::kCryptStringBase64NoCrLf, nullptr, size)) {
    error = LastErrorAfter(L"CryptBinaryToStringA(size) failed: ");
    return false;
  }
  text.assign(size, '\0');
  if (!platform::CryptBinaryToStringA(bytes, kKeySize, platform::kCryptStringBase64NoCrLf, text.data(),
                                      size)) {
    error = LastErrorAfter(L"CryptBinaryToStringA(data) failed: ");
    return false;
  }
  while (!text.empty() && text.back() == '\0') text.pop_back();
  return true;
}
