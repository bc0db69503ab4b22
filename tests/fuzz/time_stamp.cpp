// The time stamps of the catalogue.
#include <cstdio>
#include <optional>

#include "fuzz/naive_json.h"
#include "fuzz/target.h"
#include "ipc/server_view.h"

namespace fuzz {
namespace {

bool AreDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == kNowhere;
}

// Days from 1970-01-01 to the day, whatever its fields hold, counted year by year and month by month. None
// beyond the years that the platform knows.
std::optional<int64_t> DaysTo(int64_t year, int64_t month, int64_t day) {
  static constexpr int kLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const auto leap = [](int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; };
  for (; month > 12; month -= 12) ++year;
  for (; month < 1; month += 12) --year;
  if (year > 3000) return std::nullopt;
  int64_t days = day - 1;
  for (int64_t y = 1970; y < year; ++y) days += leap(y) ? 366 : 365;
  for (int64_t y = year; y < 1970; ++y) days -= leap(y) ? 366 : 365;
  for (int m = 1; m < month; ++m) days += kLengths[m - 1] + (m == 2 && leap(year) ? 1 : 0);
  return days;
}

// What stands behind the seconds: a fraction, an offset, white space. None if it is anything else.
std::optional<int64_t> NaiveOffset(std::string rest) {
  if (rest.starts_with('.')) {
    rest.erase(0, 1);
    while (AreDigits(rest.substr(0, 1))) rest.erase(0, 1);
  }
  if (rest.empty()) return 0;
  const char sign = rest[0];
  rest.erase(0, 1);
  int64_t seconds = 0;
  if (sign == '+' || sign == '-') {
    if (rest.size() > 2 && rest[2] == ':') rest.erase(2, 1);
    if (rest.size() < 4 || !AreDigits(rest.substr(0, 4))) return std::nullopt;
    seconds = std::stoi(rest.substr(0, 2)) * 3600 + std::stoi(rest.substr(2, 2)) * 60;
    if (sign == '-') seconds = -seconds;
    rest.erase(0, 4);
  } else if (sign != 'Z' && sign != 'z') {
    return std::nullopt;
  }
  if (rest.find_first_not_of(" \t\n\v\f\r") != kNowhere) return std::nullopt;
  return seconds;
}

std::optional<int64_t> NaiveTime(const std::string& bytes) {
  const std::string text = NaiveTrim(bytes);
  if (text.size() < 19) return std::nullopt;
  std::string digits;
  const std::string shape = "dddd-dd-dd?dd:dd:dd";
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == 'd') digits += text[i];
    const bool between = shape[i] == '?' ? text[i] == 'T' || text[i] == ' ' : text[i] == shape[i];
    if (shape[i] != 'd' && !between) return std::nullopt;
  }
  if (!AreDigits(digits)) return std::nullopt;
  const auto number = [&digits](size_t at, size_t length) -> int64_t {
    return std::stoi(digits.substr(at, length));
  };
  const auto days = DaysTo(number(0, 4), number(4, 2), number(6, 2));
  const auto offset = NaiveOffset(text.substr(19));
  if (!days || !offset) return std::nullopt;
  const int64_t seconds = *days * 86400 + number(8, 2) * 3600 + number(10, 2) * 60 + number(12, 2);
  if (seconds < 0) return std::nullopt;
  return seconds - *offset;
}

}  // namespace

void RunTimeStamp(const std::string& bytes) {
  int64_t time = 4711;
  const bool read = ParseIso8601Utc(bytes, time);
  const auto expected = NaiveTime(bytes);
  Require(read == expected.has_value() && time == expected.value_or(4711),
          "ParseIso8601Utc gave " + std::to_string(time));
}

}  // namespace fuzz
