// The readers of JSON text once more, written for plainness: one byte at a time, by position.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fuzz {

inline constexpr size_t kNowhere = std::string::npos;

// The position of `key` in quotes.
size_t NaiveKey(const std::string& text, const std::string& key);

std::optional<std::string> NaiveString(const std::string& text, const std::string& key);
std::optional<int64_t> NaiveInt64(const std::string& text, const std::string& key);
std::optional<bool> NaiveBool(const std::string& text, const std::string& key);
std::optional<uint32_t> NaiveKeepalive(const std::string& text);
std::optional<std::vector<std::string>> NaiveStrings(const std::string& text, const std::string& key);
std::optional<std::string> NaiveUrl(const std::string& text, const std::string& key);
std::string NaiveEscape(const std::string& text);
std::string NaiveTrim(const std::string& text);

// Whether the text is JSON; bytes of 128 and above count as letters.
bool IsJson(std::string text);

}  // namespace fuzz
