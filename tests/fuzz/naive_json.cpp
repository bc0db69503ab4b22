#include "fuzz/naive_json.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace fuzz {
namespace {

bool IsOneOf(char byte, const std::string& bytes) {
  for (const char one : bytes) {
    if (one == byte) return true;
  }
  return false;
}

// The first position from `at` on that holds `byte`.
size_t Next(const std::string& text, char byte, size_t at) {
  for (; at < text.size(); ++at) {
    if (text[at] == byte) return at;
  }
  return kNowhere;
}

// The position behind the key's colon.
size_t BehindColon(const std::string& text, const std::string& key) {
  const size_t start = NaiveKey(text, key);
  if (start == kNowhere) return kNowhere;
  const size_t colon = Next(text, ':', start);
  return colon == kNowhere ? kNowhere : colon + 1;
}

size_t Skip(const std::string& text, size_t at, const std::string& blanks) {
  while (at < text.size() && IsOneOf(text[at], blanks)) ++at;
  return at;
}

const std::string kWhiteSpace = " \t\r\n";

}  // namespace

size_t NaiveKey(const std::string& text, const std::string& key) {
  const std::string pattern = '"' + key + '"';
  for (size_t at = 0; at + pattern.size() <= text.size(); ++at) {
    if (text.compare(at, pattern.size(), pattern) == 0) return at;
  }
  return kNowhere;
}

std::optional<std::string> NaiveString(const std::string& text, const std::string& key) {
  const size_t start = BehindColon(text, key);
  if (start == kNowhere) return std::nullopt;
  const size_t open = Next(text, '"', start);
  if (open == kNowhere || open + 1 == text.size()) return std::nullopt;
  const size_t close = Next(text, '"', open + 1);
  if (close == kNowhere) return std::nullopt;
  return std::string(text.begin() + static_cast<long>(open) + 1, text.begin() + static_cast<long>(close));
}

std::optional<int64_t> NaiveInt64(const std::string& text, const std::string& key) {
  size_t at = BehindColon(text, key);
  if (at == kNowhere) return std::nullopt;
  at = Skip(text, at, " \t");
  const bool minus = at < text.size() && text[at] == '-';
  if (minus) ++at;
  uint64_t value = 0;
  size_t digits = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at, ++digits)
    value = value * 10 + static_cast<unsigned>(text[at] - '0');
  if (digits == 0) return std::nullopt;
  return static_cast<int64_t>(minus ? ~value + 1 : value);
}

std::optional<bool> NaiveBool(const std::string& text, const std::string& key) {
  size_t at = BehindColon(text, key);
  if (at == kNowhere) return std::nullopt;
  at = Skip(text, at, kWhiteSpace);
  if (text.compare(at, 4, "true") == 0) return true;
  if (text.compare(at, 5, "false") == 0) return false;
  return std::nullopt;
}

std::optional<uint32_t> NaiveKeepalive(const std::string& text) {
  size_t at = BehindColon(text, "persistent_keepalive");
  if (at == kNowhere) return std::nullopt;
  at = Skip(text, at, kWhiteSpace);
  std::string run;
  for (; at < text.size() && IsOneOf(text[at], "-0123456789"); ++at) run += text[at];
  if (run.empty()) return std::nullopt;
  const bool minus = run[0] == '-';
  const int64_t limit = minus ? int64_t{1} << 31 : (int64_t{1} << 31) - 1;
  int64_t value = 0;
  for (size_t i = minus ? 1 : 0; i < run.size() && run[i] != '-'; ++i)
    value = std::min(limit, value * 10 + (run[i] - '0'));
  return static_cast<uint32_t>(minus ? -value : value);
}

std::optional<std::vector<std::string>> NaiveStrings(const std::string& text, const std::string& key) {
  const size_t start = NaiveKey(text, key);
  if (start == kNowhere) return std::nullopt;
  const size_t open = Next(text, '[', start);
  if (open == kNowhere) return std::nullopt;
  const size_t close = Next(text, ']', open);
  if (close == kNowhere) return std::nullopt;
  std::vector<std::string> values;
  std::optional<std::string> value;
  for (size_t at = open + 1; at < close; ++at) {
    if (!value && text[at] == '"') {
      value = "";
    } else if (value && text[at] == '"') {
      values.push_back(*value);
      value.reset();
    } else if (value) {
      *value += text[at];
    }
  }
  return values;
}

std::optional<std::string> NaiveUrl(const std::string& text, const std::string& key) {
  size_t at = BehindColon(text, key);
  if (at == kNowhere) return std::nullopt;
  at = Skip(text, at, kWhiteSpace);
  if (at >= text.size() || text[at] != '"') return std::nullopt;
  std::string value;
  bool escaped = false;
  for (++at; at < text.size() && (escaped || text[at] != '"'); ++at) {
    const char byte = text[at];
    if (escaped) {
      value += byte == 'n' ? '\n' : byte == 'r' ? '\r' : byte == 't' ? '\t' : byte;
      escaped = false;
    } else if (byte == '\\') {
      escaped = true;
    } else {
      value += byte;
    }
  }
  value = NaiveTrim(value);
  if (value.empty()) return std::nullopt;
  return value;
}

std::string NaiveEscape(const std::string& text) {
  std::string escaped;
  for (const char byte : text) {
    const int code = static_cast<unsigned char>(byte);
    char hexadecimal[8];
    static_cast<void>(std::snprintf(hexadecimal, sizeof hexadecimal, "\\u%04x", static_cast<unsigned>(code)));
    escaped += code == 8    ? "\\b"
               : code == 9  ? "\\t"
               : code == 10 ? "\\n"
               : code == 12 ? "\\f"
               : code == 13 ? "\\r"
               : code == 34 ? "\\\""
               : code == 92 ? "\\\\"
               : code < 32  ? std::string(hexadecimal)
                            : std::string(1, byte);
  }
  return escaped;
}

std::string NaiveTrim(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && IsOneOf(text[begin], kWhiteSpace)) ++begin;
  while (end > begin && IsOneOf(text[end - 1], kWhiteSpace)) --end;
  return text.substr(begin, end - begin);
}

bool IsJson(std::string text) {
  for (char& byte : text) {
    if (static_cast<unsigned char>(byte) >= 128) byte = 'x';
  }
  return nlohmann::json::accept(text);
}

}  // namespace fuzz
