#include "controlplane/server_list.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <span>

#include "controlplane/byte_search.h"
#include "controlplane/json_text.h"

namespace {

constexpr size_t kNone = std::string_view::npos;

// The white space of JSON.
bool IsJsonSpace(char byte) {
  return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
}

// That of isspace in the default locale.
bool IsSpace(char byte) {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

// The position of the first byte from `at` on that is none of these.
template <bool (*isSkipped)(char)>
size_t SkipAll(std::string_view text, size_t at) {
  while (at < text.size() && isSkipped(text[at])) ++at;
  return at;
}

// The positions of the double quotes of an object, escaped ones too. The room grows and is used again.
struct Quotes {
  std::vector<size_t> room;
  size_t count = 0;

  size_t operator[](size_t number) const { return room[number]; }
};

// Adds the positions of the set bits, counted from `base`.
inline void AddMarked(uint64_t marks, size_t base, Quotes& quotes) {
  if (quotes.room.size() < quotes.count + 64) quotes.room.resize(quotes.count * 2 + 64);
  size_t* position = quotes.room.data() + quotes.count;
  for (; marks != 0; marks &= marks - 1) *position++ = base + static_cast<size_t>(std::countr_zero(marks));
  quotes.count = static_cast<size_t>(position - quotes.room.data());
}

// The length of the object at the front of `text`; none if the text ends before. Goes from one quote, brace
// or backslash to the next.
size_t ObjectLengthStepwise(std::string_view text, Quotes& quotes) {
  constexpr char kStops[] = "\"\\{}";
  size_t depth = 0;
  bool inString = false;
  size_t escaped = kNone;
  for (size_t at = 0; (at = text.find_first_of(kStops, at)) != kNone; ++at) {
    const char byte = text[at];
    if (byte == '"') {
      AddMarked(1, at, quotes);
      if (at != escaped) inString = !inString;
    } else if (inString) {
      if (byte == '\\' && at != escaped) escaped = at + 1;
    } else if (byte == '{') {
      ++depth;
    } else if (byte == '}' && --depth == 0) {
      return at + 1;
    }
  }
  return kNone;
}

// Bit n is set where an odd number of the bits up to n is.
uint64_t OddUpTo(uint64_t bits) {
  for (unsigned shift = 1; shift < 64; shift *= 2) bits ^= bits << shift;
  return bits;
}

// The same by 64 bytes at once; none also for an object with a backslash or near the end of the text.
size_t ObjectLengthByBlocks(std::string_view text, Quotes& quotes) {
  size_t depth = 0;
  uint64_t inString = 0;  // all bits, as the block begins
  for (size_t block = 0; block + ByteBlock::kSize <= text.size(); block += ByteBlock::kSize) {
    const ByteBlock bytes = LoadBlock(text.data() + block);
    if (Marks(bytes, '\\') != 0) return kNone;
    uint64_t quoteMarks = Marks(bytes, '"');
    size_t length = kNone;
    uint64_t braces = Marks(bytes, '{', '}');
    if (braces != 0) braces &= ~(OddUpTo(quoteMarks) ^ inString);
    if (std::popcount(quoteMarks) % 2 != 0) inString = ~inString;
    for (; braces != 0; braces &= braces - 1) {
      const auto at = static_cast<size_t>(std::countr_zero(braces));
      depth += text[block + at] == '{' ? 1 : -1;
      if (depth != 0) continue;
      length = block + at + 1;
      quoteMarks &= (uint64_t{1} << at) - 1;
      break;
    }
    AddMarked(quoteMarks, block, quotes);
    if (length != kNone) return length;
  }
  return kNone;
}

size_t ObjectLength(std::string_view text, Quotes& quotes) {
  quotes.count = 0;
  const size_t length = ObjectLengthByBlocks(text, quotes);
  if (length != kNone) return length;
  quotes.count = 0;
  return ObjectLengthStepwise(text, quotes);
}

// Calls `take` with each object and the positions of its quotes. True if the array was walked to its closing
// bracket.
template <typename Take>
bool WalkServers(std::string_view body, const Take& take) {
  constexpr std::string_view kKey = "\"servers\":";
  Quotes quotes;
  size_t at = FindText(body, kKey);
  if (at == kNone) return false;
  at = SkipAll<IsSpace>(body, at + kKey.size());
  if (at + 1 >= body.size() || body[at] != '[') return false;
  ++at;
  while (true) {
    at = SkipAll<IsSpace>(body, at);
    if (at == body.size()) return false;
    if (body[at] == ']') return true;
    if (body[at] != '{') return false;
    const size_t length = ObjectLength(body.substr(at), quotes);
    if (length == kNone) return false;
    take(body.substr(at, length), quotes);
    at = SkipAll<IsSpace>(body, at + length);
    // A comma before the bracket and no comma between two objects are both accepted; wanted.
    if (at < body.size() && body[at] == ',') ++at;
  }
}

// The number at the front of a text, a sign, digits and a point with digits; no digit, no length.
struct Number {
  size_t length = 0;
  bool negative = false;
  uint64_t digits = 0;  // without the point; wraps
  size_t count = 0;     // of digits
  size_t decimals = 0;
};

// The digits from `at` on are added behind those in `digits`. Returns the position behind them.
size_t ReadDigits(std::string_view text, size_t at, uint64_t& digits) {
  uint64_t value = digits;
  for (; at < text.size(); ++at) {
    const auto digit = static_cast<unsigned char>(text[at] - '0');
    if (digit > 9) break;
    value = value * 10 + digit;
  }
  digits = value;
  return at;
}

Number ReadNumber(std::string_view text) {
  Number number;
  number.negative = text.starts_with('-');
  const size_t begin = number.negative || text.starts_with('+') ? 1 : 0;
  size_t end = ReadDigits(text, begin, number.digits);
  number.count = end - begin;
  if (end < text.size() && text[end] == '.') {
    const size_t point = end;
    end = ReadDigits(text, point + 1, number.digits);
    number.decimals = end - point - 1;
    number.count += number.decimals;
  }
  if (number.count > 0) number.length = end;
  return number;
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

// Where the digits and the power of ten are both exact, one division rounds as strtod does.
constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

bool IsExact(const Number& number) {
  return number.count < std::size(kPowersOfTen);
}

double ExactValue(const Number& number) {
  const double magnitude = static_cast<double>(number.digits) / kPowersOfTen[number.decimals];
  return number.negative ? -magnitude : magnitude;
}

bool IsPartOfExponent(char byte) {
  return byte == 'e' || byte == 'E' || byte == '+' || byte == '-' || (byte >= '0' && byte <= '9');
}

bool NumberBehind(std::string_view text, size_t colon, double& value) {
  const std::string_view rest = text.substr(SkipAll<IsJsonSpace>(text, colon + 1));
  const Number number = ReadNumber(rest);
  if (number.length == 0) return false;
  size_t withExponent = number.length;
  while (withExponent < rest.size() && IsPartOfExponent(rest[withExponent])) ++withExponent;
  if (withExponent == number.length && IsExact(number)) {
    value = ExactValue(number);
    return true;
  }
  // An exponent is no part of the value, but a number that is out of range with it counts as none; wanted.
  std::string token(rest.substr(0, withExponent));
  double ignored = 0;
  if (!ToDouble(token, ignored)) return false;
  token.resize(number.length);
  return ToDouble(token, value);
}

// ---- The fields of a record ----

// One of the two members, or, without either, ServerRecord::online.
struct Field {
  std::string_view key;  // a literal: a terminator follows
  std::string ServerRecord::*text;
  double ServerRecord::*number;  // its key counts only with the colon right behind it
};

constexpr Field kFields[] = {
    {"server_id", &ServerRecord::id, nullptr},
    {"name", &ServerRecord::name, nullptr},
    {"country", &ServerRecord::country, nullptr},
    {"city", &ServerRecord::city, nullptr},
    {"latitude", nullptr, &ServerRecord::latitude},
    {"longitude", nullptr, &ServerRecord::longitude},
    {"public_egress_ip", &ServerRecord::public_egress_ip, nullptr},
    {"online", nullptr, nullptr},
    {"last_seen_at", &ServerRecord::last_seen_at, nullptr},
};
constexpr size_t kProfileFields = 7;  // the first ones: a tunnel profile has them too

// What a quoted text must share with a key before the two are compared: its length and its first byte.
constexpr size_t kLikenesses = 256;
constexpr size_t Likeness(size_t length, char first) {
  return (length * 32 + static_cast<unsigned char>(first)) % kLikenesses;
}

// For each likeness the fields whose keys have it, as bits.
constexpr std::array<uint32_t, kLikenesses> kFieldsAlike = [] {
  std::array<uint32_t, kLikenesses> fields{};
  for (size_t i = 0; i < std::size(kFields); ++i)
    fields[Likeness(kFields[i].key.size(), kFields[i].key[0])] |= 1U << i;
  return fields;
}();

constexpr size_t kShortestKey = 4;
constexpr size_t kLongestKey = 16;
static_assert(std::all_of(std::begin(kFields), std::end(kFields), [](const Field& field) {
  return field.key.size() >= kShortestKey && field.key.size() <= kLongestKey;
}));

template <typename Word>
bool SameEnds(std::string_view left, std::string_view right) {
  const auto word = [](const char* bytes) {
    Word value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
  };
  const size_t last = right.size() - sizeof(Word);
  return word(left.data()) == word(right.data()) && word(left.data() + last) == word(right.data() + last);
}

// Compares two words, which overlap, instead of calling memcmp.
bool IsKey(std::string_view quoted, std::string_view key) {
  if (quoted.size() != key.size()) return false;
  return key.size() < sizeof(uint64_t) ? SameEnds<uint32_t>(quoted, key) : SameEnds<uint64_t>(quoted, key);
}

// The one of these fields whose key this quoted text is; none if it is no key.
size_t FieldOf(std::string_view quoted, bool colonFollows, uint32_t fields) {
  for (; fields != 0; fields &= fields - 1) {
    const auto i = static_cast<size_t>(std::countr_zero(fields));
    if (IsKey(quoted, kFields[i].key) && (colonFollows || !kFields[i].number)) return i;
  }
  return kNone;
}

// Reads the field whose key ends with the quote of this number.
void ReadField(std::string_view object, const Quotes& quotes, size_t number, const Field& field,
               ServerRecord& server) {
  const size_t behind = quotes[number] + 1;
  const size_t colon = object[behind] == ':' ? behind : object.find(':', behind);
  if (colon == kNone) return;
  if (field.number) {
    NumberBehind(object, colon, server.*field.number);
  } else if (!field.text) {
    uint8_t online = 0;
    JsonBoolBehind(object, colon, online);
    server.online = online != 0;
  } else {
    size_t open = number + 1;
    while (open < quotes.count && quotes[open] < colon) ++open;
    if (open + 1 >= quotes.count) return;
    const char* value = object.data() + quotes[open] + 1;
    server.*field.text = std::string(value, object.data() + quotes[open + 1]);
  }
}

// A key stands between two quotes that follow one another, whatever surrounds them, and the first one counts:
// so one walk along the quotes reads what the flat readers find one by one.
void ReadFields(std::string_view object, const Quotes& quotes, ServerRecord& server) {
  uint32_t wanted = (1U << std::size(kFields)) - 1;
  for (size_t i = 1; i < quotes.count && wanted != 0; ++i) {
    const size_t begin = quotes[i - 1] + 1;
    const size_t length = quotes[i] - begin;
    const uint32_t fields = kFieldsAlike[Likeness(length, object[begin])] & wanted;
    if (fields == 0) continue;
    const bool colonFollows = object[quotes[i] + 1] == ':';
    const size_t field = FieldOf(object.substr(begin, length), colonFollows, fields);
    if (field == kNone) continue;
    wanted &= ~(1U << field);
    ReadField(object, quotes, i, kFields[field], server);
    // Up to the next quote there is a text with a colon in it: no key.
    if (colonFollows) ++i;
  }
}

}  // namespace

bool ExtractServersArrayObjects(std::string_view body, std::vector<std::string_view>& objects) {
  objects.clear();
  return WalkServers(body, [&](std::string_view object, const auto&) { objects.push_back(object); });
}

bool ExtractJsonNumberField(std::string_view object, const char* key, double& value) {
  const std::string pattern = std::string("\"") + key + "\":";
  const size_t start = FindText(object, pattern);
  return start != kNone && NumberBehind(object, start + pattern.size() - 1, value);
}

bool ReadServerRecords(std::string_view body, std::vector<ServerRecord>& servers) {
  servers.clear();
  const bool whole = WalkServers(body, [&](std::string_view object, const Quotes& quotes) {
    // As many as there are if all are like the first; what is shorter than this is no server.
    constexpr size_t kLeastLength = 128;
    if (servers.empty()) servers.reserve(body.size() / std::max(object.size(), kLeastLength) + 1);
    ReadFields(object, quotes, servers.emplace_back());
  });
  if (!whole) servers.clear();
  return whole;
}

void ReadServerFields(std::string_view text, ServerRecord& server) {
  for (const Field& field : std::span(kFields).first<kProfileFields>()) {
    if (field.text) {
      JsonGetString(text, field.key.data(), server.*field.text);
    } else {
      ExtractJsonNumberField(text, field.key.data(), server.*field.number);
    }
  }
}
