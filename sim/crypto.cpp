// Random bytes, Base64, and data protection that opens only on the machine that sealed.
#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "device.h"
#include "files.h"
#include "service/platform.h"
#include "wireguard/platform.h"

namespace sim {
namespace {

constexpr uint32_t kErrorInvalidData = 13;
constexpr uint32_t kErrorMoreData = 234;
constexpr uint32_t kErrorInvalidParameter = 87;

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kBlanks = " \t\r\n";

bool gBlankBase64 = false;

const Device kDevice("crypto", [] { gBlankBase64 = false; });

std::string EncodeBase64(std::string_view bytes) {
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 3) {
    uint32_t group = 0;
    const size_t present = std::min<size_t>(3, bytes.size() - at);
    for (size_t index = 0; index < 3; ++index) {
      group = group << 8 | (index < present ? static_cast<uint8_t>(bytes[at + index]) : 0U);
    }
    for (size_t digit = 0; digit < 4; ++digit) {
      text += digit <= present ? kAlphabet[group >> (18 - 6 * digit) & 63U] : '=';
    }
  }
  return text;
}

// White space is skipped; padding may be missing but may not stand in the middle.
bool DecodeBase64(std::string_view text, std::string& bytes) {
  uint32_t group = 0;
  size_t digits = 0;
  size_t padding = 0;
  for (const char character : text) {
    if (kBlanks.find(character) != std::string_view::npos) continue;
    if (character == '=') {
      ++padding;
      continue;
    }
    const size_t value = kAlphabet.find(character);
    if (value == std::string_view::npos || padding > 0) return false;
    group = group << 6 | static_cast<uint32_t>(value);
    ++digits;
    if (digits % 4 == 0) {
      bytes += {static_cast<char>(group >> 16), static_cast<char>(group >> 8), static_cast<char>(group)};
      group = 0;
    }
  }
  const size_t rest = digits % 4;
  if (rest == 1 || padding > 2 || (padding > 0 && rest + padding != 4)) return false;
  if (rest == 2) bytes += static_cast<char>(group >> 4);
  if (rest == 3) bytes += {static_cast<char>(group >> 10), static_cast<char>(group >> 2)};
  return digits > 0;
}

// ---- Data protection ----
// A blob is: mark, machine, nonce, and, masked by both, the lengths and bytes of description and plain text,
// with a checksum. Good enough to be opaque, to differ from call to call, and to be noticed when damaged.

constexpr std::string_view kMark = "SEALED01";
constexpr uint64_t kThisMachine = 0x5443A51E9D2B7701;
constexpr uint64_t kAnotherMachine = 0x0E11A7B4C7D3F902;
constexpr uint64_t kChecksumSeed = 0xCBF29CE484222325;

void AppendNumber(std::string& out, uint64_t number) {
  std::array<char, sizeof number> bytes{};
  std::memcpy(bytes.data(), &number, sizeof number);
  out.append(bytes.data(), bytes.size());
}

bool TakeNumber(std::string_view& bytes, uint64_t& number) {
  if (bytes.size() < sizeof number) return false;
  std::memcpy(&number, bytes.data(), sizeof number);
  bytes.remove_prefix(sizeof number);
  return true;
}

bool TakeText(std::string_view& bytes, std::string& text) {
  uint64_t size = 0;
  if (!TakeNumber(bytes, size) || size > bytes.size()) return false;
  text = bytes.substr(0, size);
  bytes.remove_prefix(size);
  return true;
}

uint64_t Checksum(std::string_view bytes) {
  uint64_t sum = kChecksumSeed;
  for (const char byte : bytes) sum = (sum ^ static_cast<uint8_t>(byte)) * 0x100000001B3;
  return sum;
}

// Masking twice with the same key gives the bytes back.
std::string Mask(std::string bytes, uint64_t key) {
  for (char& byte : bytes) {
    key = key * 6364136223846793005 + 1442695040888963407;
    byte = static_cast<char>(static_cast<uint8_t>(byte) ^ static_cast<uint8_t>(key >> 56));
  }
  return bytes;
}

std::string SealFor(uint64_t machine, const std::string& plain, const std::wstring& description) {
  const uint64_t nonce = DrawDeviceRandom();
  const std::string name = Narrow(description);
  std::string content;
  AppendNumber(content, name.size());
  content += name;
  AppendNumber(content, plain.size());
  content += plain;
  AppendNumber(content, Checksum(content));
  std::string blob(kMark);
  AppendNumber(blob, machine);
  AppendNumber(blob, nonce);
  return blob + Mask(content, machine ^ nonce);
}

struct Sealed {
  std::string description;
  std::string plain;
};

std::optional<Sealed> Open(std::string_view blob) {
  if (blob.substr(0, kMark.size()) != kMark) return std::nullopt;
  blob.remove_prefix(kMark.size());
  uint64_t machine = 0;
  uint64_t nonce = 0;
  if (!TakeNumber(blob, machine) || !TakeNumber(blob, nonce) || machine != kThisMachine) return std::nullopt;
  const std::string content = Mask(std::string(blob), machine ^ nonce);
  std::string_view rest = content;
  Sealed sealed;
  uint64_t checksum = 0;
  if (!TakeText(rest, sealed.description) || !TakeText(rest, sealed.plain)) return std::nullopt;
  const std::string_view summed = std::string_view(content).substr(0, content.size() - rest.size());
  if (!TakeNumber(rest, checksum) || !rest.empty() || checksum != Checksum(summed)) return std::nullopt;
  return sealed;
}

}  // namespace

std::string Seal(const std::string& plain, const std::wstring& description) {
  Guard guard;
  return SealFor(kThisMachine, plain, description);
}

std::string SealElsewhere(const std::string& plain) {
  Guard guard;
  return SealFor(kAnotherMachine, plain, L"");
}

std::optional<std::string> Unseal(const std::string& blob) {
  const std::optional<Sealed> sealed = Open(blob);
  if (!sealed) return std::nullopt;
  return sealed->plain;
}

std::optional<std::wstring> SealDescription(const std::string& blob) {
  const std::optional<Sealed> sealed = Open(blob);
  if (!sealed) return std::nullopt;
  return Widen(sealed->description);
}

void GiveBlankBase64() {
  Guard guard;
  gBlankBase64 = true;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

int32_t BCryptGenRandom(void* buffer, uint32_t size, uint32_t flags) {
  Call call("BCryptGenRandom", Args("size", size, "flags", flags));
  if (call.Faulted()) return static_cast<int32_t>(call.FaultCode());
  auto* bytes = static_cast<uint8_t*>(buffer);
  for (uint32_t index = 0; index < size; ++index)
    bytes[index] = static_cast<uint8_t>(sim::DrawDeviceRandom());
  return 0;
}

bool CryptStringToBinaryA(const std::string& text, uint32_t flags, uint8_t* buffer, uint32_t& size) {
  Call call("CryptStringToBinaryA", Args("text", text, "flags", flags, "size", size));
  if (call.Faulted()) return false;
  if (flags != kCryptStringBase64) return call.Fail(sim::kErrorInvalidParameter);
  std::string bytes;
  if (!sim::DecodeBase64(text.c_str(), bytes)) return call.Fail(sim::kErrorInvalidData);
  const auto needed = static_cast<uint32_t>(bytes.size());
  const bool fits = !buffer || size >= needed;
  size = needed;
  if (!fits) return call.Fail(sim::kErrorMoreData);
  if (buffer) std::copy(bytes.begin(), bytes.end(), buffer);
  return true;
}

bool CryptBinaryToStringA(const uint8_t* bytes, uint32_t length, uint32_t flags, char* buffer,
                          uint32_t& size) {
  const std::string input(reinterpret_cast<const char*>(bytes), length);
  Call call("CryptBinaryToStringA", Args("bytes", input, "flags", sim::Hex{flags}, "size", size));
  if (call.Faulted()) return false;
  if (flags != kCryptStringBase64NoCrLf) return call.Fail(sim::kErrorInvalidParameter);
  std::string text = sim::EncodeBase64(input);
  if (sim::gBlankBase64) text.assign(text.size(), ' ');
  const auto needed = static_cast<uint32_t>(text.size() + 1);
  if (!buffer) {
    size = needed;
    return true;
  }
  if (size < needed) {
    size = needed;
    return call.Fail(sim::kErrorMoreData);
  }
  std::copy_n(text.c_str(), needed, buffer);
  size = needed - 1;
  return true;
}

bool CryptProtectData(const std::string& plain, const wchar_t* description, uint32_t flags,
                      std::string& blob) {
  Call call("CryptProtectData", Args("plain", plain, "description", description, "flags", flags));
  if (call.Faulted()) return false;
  blob = sim::SealFor(sim::kThisMachine, plain, description ? description : L"");
  return true;
}

bool CryptUnprotectData(const std::string& blob, uint32_t flags, std::string& plain) {
  Call call("CryptUnprotectData", Args("size", blob.size(), "flags", flags));
  if (call.Faulted()) return false;
  const std::optional<sim::Sealed> sealed = sim::Open(blob);
  if (!sealed) return call.Fail(sim::kErrorInvalidData);
  plain = sealed->plain;
  call.SetResult(Args("plain", plain));
  return true;
}

}  // namespace platform
