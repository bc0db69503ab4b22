// The client's WireGuard key pair: Curve25519 keys as standard Base64 of 32 bytes, in two text files.
#pragma once

#include <cstdint>
#include <string>

// RFC 7748, section 5.
void ClampX25519Scalar(uint8_t scalar[32]);

// A new clamped private key and its public key.
bool WgGenerateKeypairBase64(std::string& privateKey, std::string& publicKey, std::wstring& error);

// The private half of a new pair. Logs a failure.
bool GeneratePrivateKeyBase64(std::string& privateKey);

// The trimmed content of the file, unchecked, or a new key that is written there.
bool LoadOrCreatePrivateKey(const std::wstring& path, std::string& privateKey);

// The trimmed content of the public key's file, unchecked; only without one the public key is derived and
// written. Logs a failed derivation.
bool DeriveWgPublicKeyB64FromPrivateB64(const std::wstring& publicKeyPath, const std::string& privateKey,
                                        std::string& publicKey);

// Replaces both key files by a new pair. Logs each step.
bool RotateActiveBootstrapWgKeypair(std::string& privateKey, std::string& publicKey);

// Up to 32 bytes; `length` is the decoded length.
bool Base64Decode(const std::string& text, uint8_t bytes[32], uint32_t& length, std::wstring& error);
bool Base64Encode32(const uint8_t bytes[32], std::string& text, std::wstring& error);
