#include "controlplane/server_list.h"

#include <cerrno>
#include <cstdlib>

namespace {

constexpr size_t kNone = std::string_view::npos;
constexpr char kDigits[] = "0123456789";

// The position of the first byte from `at` on that is not in `accepted`.
size_t SkipAll(std::string_view text, size_t at, const char* accepted) {
  const size_t next = text.find_first_not_of(accepted, at);
  return next == kNone ? text.size() : next;
}

// The white space of isspace in the default locale.
size_t SkipWhiteSpace(std::string_view text, size_t at) {
  return SkipAll(text, at, " \t\n\v\f\r");
}

// The position behind the brace that closes the object which opens at `at`; none if the text ends before.
size_t FindObjectEnd(std::string_view text, size_t at) {
  size_t depth = 0;
  bool inString = false;
  for (; at < text.size(); ++at) {
    const char byte = text[at];
    if (inString) {
      if (byte == '\\') ++at;
      if (byte == '"') inString = false;
    } else if (byte == '"') {
      inString = true;
    } else if (byte == '{') {
      ++depth;
    } else if (byte == '}' && --depth == 0) {
      return at + 1;
    }
  }
  return kNone;
}

// The length of the number at the front of `text`, a sign, digits and a point with digits; 0 without a digit.
size_t NumberLength(std::string_view text) {
  const size_t start = text.starts_with('-') || text.starts_with('+') ? 1 : 0;
  size_t end = SkipAll(text, start, kDigits);
  size_t digits = end - start;
  if (end < text.size() && text[end] == '.') {
    const size_t fraction = end + 1;
    end = SkipAll(text, fraction, kDigits);
    digits += end - fraction;
  }
  return digits == 0 ? 0 : end;
}

// The process never sets a locale, so the point is the decimal separator.
bool ToDouble(const std::string& token, double& value) {
  char* end = nullptr;
  errno = 0;
  const double number = std::strtod(token.c_str(), &end);
  if (end == token.c_str() || errno == ERANGE) return false;
  value = number;
  return true;
}

}  // namespace

bool ExtractServersArrayObjects(std::string_view body, std::vector<std::string_view>& objects) {
  constexpr std::string_view kKey = "\"servers\":";
  objects.clear();
  size_t at = body.find(kKey);
  if (at == kNone) return false;
  at = SkipWhiteSpace(body, at + kKey.size());
  if (at + 1 >= body.size() || body[at] != '[') return false;
  ++at;
  while (true) {
    at = SkipWhiteSpace(body, at);
    if (at == body.size()) return false;
    if (body[at] == ']') return true;
    if (body[at] != '{') return false;
    const size_t end = FindObjectEnd(body, at);
    if (end == kNone) return false;
    objects.push_back(body.substr(at, end - at));
    at = SkipWhiteSpace(body, end);
    // A comma before the bracket and no comma between two objects are both accepted; wanted.
    if (at < body.size() && body[at] == ',') ++at;
  }
}

bool ExtractJsonNumberField(std::string_view object, const char* key, double& value) {
  const std::string pattern = std::string("\"") + key + "\":";
  const size_t start = object.find(pattern);
  if (start == kNone) return false;
  std::string_view text = object.substr(SkipAll(object, start + pattern.size(), " \t\r\n"));
  const size_t length = NumberLength(text);
  if (length == 0) return false;
  // An exponent is no part of the value, but a number that is out of range with it counts as none; wanted.
  std::string token(text.substr(0, SkipAll(text, length, "eE+-0123456789")));
  double withExponent = 0;
  if (!ToDouble(token, withExponent)) return false;
  token.resize(length);
  return ToDouble(token, value);
}
