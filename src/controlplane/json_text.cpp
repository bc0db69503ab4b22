#include "controlplane/json_text.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "controlplane/byte_search.h"
#include "controlplane/text.h"

namespace {

constexpr size_t kNone = std::string_view::npos;
constexpr char kJsonWhiteSpace[] = " \t\r\n";

bool IsDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

// The opening quote of the first occurrence of the key in quotes, at any depth: wanted, as callers count on
// the first one winning.
size_t FindQuotedKey(std::string_view text, std::string_view key) {
  return FindText(text, '"' + std::string(key) + '"');
}

// The first colon from the key on, wherever it stands; that it need not follow the key directly is wanted.
size_t FindColonOfKey(std::string_view text, std::string_view key) {
  const size_t start = FindQuotedKey(text, key);
  return start == kNone ? kNone : text.find(':', start);
}

// What stands behind the colon, if there is one, and the white space after it.
std::string_view TextBehind(std::string_view text, size_t colon, const char* whiteSpace) {
  if (colon == kNone) return {};
  const size_t first = text.find_first_not_of(whiteSpace, colon + 1);
  return first == kNone ? std::string_view() : text.substr(first);
}

// What stands behind the key's colon and the white space after it; empty if there is no such key.
std::string_view TextBehindColon(std::string_view text, std::string_view key, const char* whiteSpace) {
  return TextBehind(text, FindColonOfKey(text, key), whiteSpace);
}

// The bytes between the next two double quotes from `at` on, and in `at` the position behind them. A
// backslash has no meaning here: an escaped quote ends the value, which is wanted.
bool NextQuoted(std::string_view text, size_t& at, std::string_view& value) {
  const size_t open = text.find('"', at);
  if (open == kNone) return false;
  const size_t close = text.find('"', open + 1);
  if (close == kNone) return false;
  value = text.substr(open + 1, close - open - 1);
  at = close + 1;
  return true;
}

// What a backslash and `letter` stand for. No hexadecimal form is known, so that \u0026 gives u0026; wanted.
char EscapedByte(char letter) {
  switch (letter) {
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return letter;
  }
}

void AppendEscape(char byte, std::string& escaped) {
  constexpr std::string_view kShortEscaped = "\b\t\n\f\r\"\\";
  constexpr std::string_view kShortLetters = "btnfr\"\\";
  constexpr char kHexDigits[] = "0123456789abcdef";
  escaped += '\\';
  const size_t shortForm = kShortEscaped.find(byte);
  if (shortForm != kNone) {
    escaped += kShortLetters[shortForm];
  } else {
    escaped += "u00";
    escaped += kHexDigits[byte >> 4];
    escaped += kHexDigits[byte & 15];
  }
}

}  // namespace

bool JsonGetString(std::string_view text, const char* key, std::string& value) {
  value.clear();
  size_t at = FindColonOfKey(text, key);
  std::string_view quoted;
  // A value that is no string is passed over to the next quoted text; wanted.
  if (at == kNone || !NextQuoted(text, at, quoted)) return false;
  value = quoted;
  return true;
}

bool ExtractJsonUrlField(std::string_view text, const char* key, std::string& value) {
  value.clear();
  // Unlike JsonGetString this does not run on to the next quoted text.
  const std::string_view rest = TextBehindColon(text, key, kJsonWhiteSpace);
  if (!rest.starts_with('"')) return false;
  for (size_t i = 1; i < rest.size() && rest[i] != '"'; ++i) {
    const bool escaped = rest[i] == '\\';
    if (escaped && ++i == rest.size()) break;
    value += escaped ? EscapedByte(rest[i]) : rest[i];
  }
  value = TrimAscii(value);
  return !value.empty();
}

bool JsonGetInt64(std::string_view text, const char* key, int64_t& value) {
  value = 0;
  // Blanks and tabs alone: a number on the line after its colon is not found, which is wanted.
  std::string_view rest = TextBehindColon(text, key, " \t");
  const bool negative = rest.starts_with('-');
  if (negative) rest.remove_prefix(1);
  if (rest.empty() || !IsDigit(rest[0])) return false;
  uint64_t magnitude = 0;  // wraps on overflow; wanted
  for (size_t i = 0; i < rest.size() && IsDigit(rest[i]); ++i)
    magnitude = magnitude * 10 + static_cast<uint64_t>(rest[i] - '0');
  value = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
  return true;
}

bool JsonGetBool(std::string_view text, const char* key, uint8_t& value) {
  value = 0;
  const size_t colon = FindColonOfKey(text, key);
  return colon != kNone && JsonBoolBehind(text, colon, value);
}

bool JsonBoolBehind(std::string_view text, size_t colon, uint8_t& value) {
  // What follows the literal is not looked at: a longer word counts, which is wanted.
  const std::string_view rest = TextBehind(text, colon, kJsonWhiteSpace);
  if (rest.starts_with("true")) {
    value = 1;
    return true;
  }
  return rest.starts_with("false");
}

bool JsonGetPersistentKeepalive(std::string_view text, uint32_t& value) {
  value = 0;
  const std::string_view rest = TextBehindColon(text, "persistent_keepalive", kJsonWhiteSpace);
  const std::string run(rest.substr(0, rest.find_first_not_of("-0123456789")));
  if (run.empty()) return false;
  // Saturates at 32 bits as atoi does on Windows; a negative number lands by its bits, which is wanted.
  const long long number = std::strtoll(run.c_str(), nullptr, 10);
  value = static_cast<uint32_t>(std::clamp<long long>(number, std::numeric_limits<int32_t>::min(),
                                                      std::numeric_limits<int32_t>::max()));
  return true;
}

bool JsonGetStringArray(std::string_view text, const char* key, std::vector<std::string>& values) {
  values.clear();
  const size_t start = FindQuotedKey(text, key);
  if (start == kNone) return false;
  const size_t open = text.find('[', start);
  if (open == kNone) return false;
  // The first closing bracket ends the array, also one of a nested array or inside a string; wanted.
  const size_t close = text.find(']', open);
  if (close == kNone) return false;
  const std::string_view inner = text.substr(open + 1, close - open - 1);
  std::string_view quoted;
  for (size_t at = 0; NextQuoted(inner, at, quoted);) values.emplace_back(quoted);
  return true;
}

std::string JsonEscape(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + 8);
  AppendJsonEscaped(text, escaped);
  return escaped;
}

void AppendJsonEscaped(std::string_view text, std::string& escaped) {
  size_t plain = 0;  // where what needs no escape begins
  for (size_t at = 0; at < text.size(); ++at) {
    const auto code = static_cast<unsigned char>(text[at]);
    if (code >= 32 && code != '"' && code != '\\') continue;
    escaped.append(text, plain, at - plain);
    AppendEscape(text[at], escaped);
    plain = at + 1;
  }
  escaped.append(text, plain);
}

std::string JsonMember(const char* key, const std::wstring& value) {
  return std::string("\"") + key + "\":\"" + JsonEscape(WideToUtf8(value)) + "\"";
}
