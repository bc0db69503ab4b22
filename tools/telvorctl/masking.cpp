#include "telvorctl/masking.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "telvorctl/text.h"

namespace telvorctl {

namespace {

constexpr std::string_view kMask = "***";
constexpr size_t kKeySize = 44;
constexpr size_t kShortestRun = 20;

bool IsLower(char byte) {
  return byte >= 'a' && byte <= 'z';
}

bool IsUpper(char byte) {
  return byte >= 'A' && byte <= 'Z';
}

bool IsDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

bool IsLetterOrDigit(char byte) {
  return IsLower(byte) || IsUpper(byte) || IsDigit(byte);
}

bool IsOneOf(char byte, std::string_view set) {
  return set.find(byte) != std::string_view::npos;
}

// The first place from `at` on that is not of the kind; the text's size if all are.
template <typename Kind>
size_t EndOf(std::string_view text, size_t at, Kind isOfKind) {
  while (at < text.size() && isOfKind(text[at])) ++at;
  return at;
}

// ---- Values behind names ----

enum class Place {
  kPart,   // anywhere in a name
  kWhole,  // the whole name
  kKey,    // the whole name, and that of a JSON member or of a query's parameter
};

struct SecretName {
  std::string_view text;
  Place place;
};

constexpr SecretName kSecretNames[] = {
    {"token", Place::kPart},      {"passw", Place::kPart},      {"pwd", Place::kPart},
    {"secret", Place::kPart},     {"credential", Place::kPart}, {"authorization", Place::kPart},
    {"cookie", Place::kPart},     {"private", Place::kPart},    {"preshared", Place::kPart},
    {"session_id", Place::kPart}, {"sessionid", Place::kPart},  {"api_key", Place::kPart},
    {"apikey", Place::kPart},     {"email", Place::kPart},      {"user", Place::kWhole},
    {"username", Place::kWhole},  {"pass", Place::kWhole},      {"otp", Place::kWhole},
    {"pin", Place::kWhole},       {"code", Place::kKey},
};

bool IsNameByte(char byte) {
  return IsLetterOrDigit(byte) || byte == '_' || byte == '-';
}

bool ContainsIgnoringCase(std::string_view text, std::string_view part) {
  for (size_t at = 0; at + part.size() <= text.size(); ++at) {
    if (EqualIgnoringCase(text.substr(at, part.size()), part)) return true;
  }
  return false;
}

// `before` is the byte in front of the name, or a line feed.
bool NamesSecret(std::string_view name, char before) {
  return std::any_of(std::begin(kSecretNames), std::end(kSecretNames), [&](const SecretName& secret) {
    if (secret.place == Place::kPart) return ContainsIgnoringCase(name, secret.text);
    const bool isKey = IsOneOf(before, "\"'?&");
    return EqualIgnoringCase(name, secret.text) && (secret.place == Place::kWhole || isKey);
  });
}

// Behind the colon or equals sign that follows a name; 0 if none does.
size_t SkipSeparator(std::string_view text, size_t at) {
  at = EndOf(text, at, [](char byte) { return IsOneOf(byte, "\\\"' \t"); });
  if (at < text.size() && IsOneOf(text[at], ":=")) return at + 1;
  return EqualIgnoringCase(text.substr(at, 3), "%3D") ? at + 3 : 0;
}

size_t LineEnd(std::string_view text, size_t at) {
  return std::min(text.find_first_of("\r\n", at), text.size());
}

// The closing quote of a value that begins at `at`: of the same kind and behind no more backslashes than the
// opening one had, so that JSON in a JSON text ends where it ends. The line's end if there is none.
size_t QuotedEnd(std::string_view text, size_t at, char quote, size_t backslashes) {
  const size_t end = LineEnd(text, at);
  for (size_t i = at, seen = 0; i < end; ++i) {
    if (text[i] == quote && seen <= backslashes) return i - seen;
    seen = text[i] == '\\' ? seen + 1 : 0;
  }
  return end;
}

bool IsWordOfJson(std::string_view text) {
  return text == "true" || text == "false" || text == "null";
}

struct Span {
  size_t begin;
  size_t end;
};

// The value that begins behind the separator; empty if it tells nothing.
Span ValueSpan(std::string_view text, size_t at) {
  const size_t open = EndOf(text, at, [](char byte) { return IsOneOf(byte, " \t\r\n"); });
  const size_t slashes = EndOf(text, open, [](char byte) { return byte == '\\'; }) - open;
  const size_t quote = open + slashes;
  if (quote < text.size() && IsOneOf(text[quote], "\"'"))
    return {quote + 1, QuotedEnd(text, quote + 1, text[quote], slashes)};
  const size_t bare = EndOf(text, at, [](char byte) { return byte == ' ' || byte == '\t'; });
  const size_t word = EndOf(text, bare, IsNameByte);
  if (IsWordOfJson(text.substr(bare, word - bare))) return {bare, bare};
  return {bare, LineEnd(text, bare)};
}

std::string MaskNamedValues(std::string_view text) {
  std::string masked;
  size_t done = 0;
  for (size_t at = 0; at < text.size();) {
    const size_t end = EndOf(text, at, IsNameByte);
    const size_t value =
        NamesSecret(text.substr(at, end - at), at == 0 ? '\n' : text[at - 1]) ? SkipSeparator(text, end) : 0;
    at = std::max(end, at + 1);
    if (value == 0) continue;
    const Span span = ValueSpan(text, value);
    at = std::max(span.end, at);
    if (span.begin >= span.end) continue;
    masked.append(text, done, span.begin - done).append(kMask);
    done = span.end;
  }
  return masked.append(text, done);
}

// ---- Email addresses ----

bool IsMailboxByte(char byte) {
  return IsLetterOrDigit(byte) || IsOneOf(byte, "!#$%&'*+-/=?^_`{|}~.") || (byte & 0x80) != 0;
}

// The bytes of an @ at this place, which may be written for a URL; 0 if there is none.
size_t AtSignSize(std::string_view text, size_t at) {
  if (text[at] == '@') return 1;
  return text.substr(at, 3) == "%40" ? 3 : 0;
}

std::string MaskMailboxes(std::string_view text) {
  std::string masked;
  size_t done = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    const size_t size = AtSignSize(text, at);
    if (size == 0 || at + size >= text.size() || !IsLetterOrDigit(text[at + size])) continue;
    size_t begin = at;
    while (begin > done && IsMailboxByte(text[begin - 1])) --begin;
    if (begin == at) continue;
    masked.append(text, done, begin - done).append(kMask);
    done = at;
  }
  return masked.append(text, done);
}

// ---- Keys and tokens that stand alone ----

bool IsRunByte(char byte) {
  return IsLetterOrDigit(byte) || IsOneOf(byte, "+/_~%-");
}

// Parts of the names of functions that would not read as words.
constexpr std::string_view kOddWords[] = {"B64", "IPv4", "IpV4", "V4", "V6", "Wg", "Cp",
                                          "Id",  "If",   "Ip",   "Or", "On", "Ex"};

// The bytes of the word at the front: a capital or several and small letters, or capitals at the end; 0 if
// there is none.
size_t WordSize(std::string_view text) {
  for (const std::string_view odd : kOddWords) {
    if (text.starts_with(odd)) return odd.size();
  }
  constexpr size_t kMostCapitals = 4;
  const size_t capitals = EndOf(text, 0, IsUpper);
  const size_t end = EndOf(text, capitals, IsLower);
  if (end == capitals) return capitals == text.size() ? capitals : 0;
  return end - capitals >= 2 && capitals <= kMostCapitals ? end : 0;
}

// Words and at most two digits behind them.
bool ReadsAsWords(std::string_view piece) {
  constexpr size_t kMostDigits = 2;
  while (!piece.empty() && !IsDigit(piece.front())) {
    const size_t size = WordSize(piece);
    if (size == 0) return false;
    piece.remove_prefix(size);
  }
  return piece.size() <= kMostDigits && EndOf(piece, 0, IsDigit) == piece.size();
}

bool MixesLettersAndDigits(std::string_view piece) {
  const auto digits = static_cast<size_t>(std::count_if(piece.begin(), piece.end(), IsDigit));
  return digits > 0 && digits < piece.size();
}

// Such as paths, and names of functions: what is long consists of words, and little else is there.
bool IsHarmlessRun(std::string_view run) {
  constexpr size_t kShortPiece = 8;
  constexpr size_t kMostMixed = 2;
  size_t mixed = 0;
  for (size_t at = 0; at < run.size();) {
    const size_t end = EndOf(run, at, IsLetterOrDigit);
    const std::string_view piece = run.substr(at, end - at);
    if (piece.size() > kShortPiece && !ReadsAsWords(piece)) return false;
    if (MixesLettersAndDigits(piece) && !ReadsAsWords(piece) && ++mixed > kMostMixed) return false;
    at = end + 1;
  }
  return true;
}

std::string MaskRuns(std::string_view text) {
  std::string masked;
  for (size_t at = 0; at < text.size();) {
    const size_t end = EndOf(text, at, IsRunByte);
    if (end == at) {
      masked += text[at++];
      continue;
    }
    const size_t padded = EndOf(text, end, [](char byte) { return byte == '='; });
    const std::string_view run = text.substr(at, padded - at);
    const bool isKey = run.size() >= kKeySize && padded > end;
    const bool isSecret = isKey || (end - at >= kShortestRun && !IsHarmlessRun(text.substr(at, end - at)));
    masked += isSecret ? kMask : run;
    at = padded;
  }
  return masked;
}

}  // namespace

std::string MaskSecrets(std::string_view text) {
  return MaskRuns(MaskMailboxes(MaskNamedValues(text)));
}

bool IsKey(std::string_view text) {
  return text.size() == kKeySize && text.back() == '=' &&
         EndOf(text, 0, [](char byte) { return IsLetterOrDigit(byte) || byte == '+' || byte == '/'; }) ==
             kKeySize - 1;
}

}  // namespace telvorctl
