#include "ipc/request_fields.h"

#include <limits>

namespace {

// The text behind `"key":` with blanks and tabs skipped. False if the key is not there or nothing follows.
// Wanted: no blank may stand before the colon, and the first textual match wins, whatever surrounds it.
bool FindValue(std::string_view line, const char* key, std::string_view& value) {
  const std::string needle = std::string("\"") + key + "\":";
  const size_t match = line.find(needle);
  if (match == std::string_view::npos) return false;
  const size_t start = line.find_first_not_of(" \t", match + needle.size());
  if (start == std::string_view::npos) return false;
  value = line.substr(start);
  return true;
}

bool IsDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

int HexDigit(char byte) {
  if (IsDigit(byte)) return byte - '0';
  if (byte >= 'a' && byte <= 'f') return byte - 'a' + 10;
  if (byte >= 'A' && byte <= 'F') return byte - 'A' + 10;
  return -1;
}

// One UTF-16 code unit by itself: surrogate halves are not joined.
void AppendUtf8(uint32_t unit, std::string& text) {
  if (unit < 0x80) {
    text += static_cast<char>(unit);
  } else if (unit < 0x800) {
    text += static_cast<char>(0xC0 | (unit >> 6));
    text += static_cast<char>(0x80 | (unit & 0x3F));
  } else {
    text += static_cast<char>(0xE0 | (unit >> 12));
    text += static_cast<char>(0x80 | ((unit >> 6) & 0x3F));
    text += static_cast<char>(0x80 | (unit & 0x3F));
  }
}

// `digits` begins behind the 'u'.
bool ReadUnicodeEscape(std::string_view digits, std::string& text) {
  constexpr size_t kDigits = 4;
  if (digits.size() < kDigits) return false;
  uint32_t unit = 0;
  for (const char byte : digits.substr(0, kDigits)) {
    const int digit = HexDigit(byte);
    if (digit < 0) return false;
    unit = unit * 16 + static_cast<uint32_t>(digit);
  }
  AppendUtf8(unit, text);
  return true;
}

// The control character of a one-letter escape; any other character stands for itself.
char PlainEscape(char byte) {
  switch (byte) {
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return byte;
  }
}

}  // namespace

bool ReadRequestInt(std::string_view line, const char* key, int32_t& value) {
  std::string_view text;
  if (!FindValue(line, key, text)) return false;
  const bool negative = text.front() == '-';
  if (negative) text.remove_prefix(1);
  if (text.empty() || !IsDigit(text.front())) return false;
  int64_t number = 0;
  for (const char byte : text) {
    if (!IsDigit(byte)) break;
    number = number * 10 + (byte - '0');
    // Wanted: the digit that passes the limit counts, the rest is not looked at.
    if (number > std::numeric_limits<int32_t>::max()) break;
  }
  if (negative) number = -number;
  value = static_cast<int32_t>(static_cast<uint32_t>(number));
  return true;
}

bool ReadRequestString(std::string_view line, const char* key, std::string& value) {
  std::string_view text;
  if (!FindValue(line, key, text) || text.front() != '"') return false;
  std::string result;
  for (size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '"') {
      value = std::move(result);
      return true;
    }
    if (text[i] != '\\') {
      result += text[i];
      continue;
    }
    if (++i == text.size()) return false;
    if (text[i] == 'u') {
      if (!ReadUnicodeEscape(text.substr(i + 1), result)) return false;
      i += 4;
    } else {
      result += PlainEscape(text[i]);
    }
  }
  return false;
}
