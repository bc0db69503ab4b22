#include "fuzz/naive_request.h"

#include <cstdlib>

#include "fuzz/naive_json.h"

namespace fuzz {
namespace {

// Behind the key, its colon and the blanks; nowhere if that is the end of the line.
size_t ValueOf(const std::string& line, const std::string& key) {
  const std::string needle = '"' + key + "\":";
  size_t at = line.find(needle);
  if (at == kNowhere) return kNowhere;
  at += needle.size();
  while (at < line.size() && (line[at] == ' ' || line[at] == '\t')) ++at;
  return at == line.size() ? kNowhere : at;
}

// UTF-8 of a code unit, bit by bit.
std::string UnitText(unsigned unit) {
  const auto tail = [unit](int shift) { return static_cast<char>(0x80 + (unit >> shift) % 64); };
  if (unit < 128) return {static_cast<char>(unit)};
  if (unit < 2048) return {static_cast<char>(192 + unit / 64), tail(0)};
  return {static_cast<char>(224 + unit / 4096), tail(6), tail(0)};
}

std::optional<unsigned> UnitAt(const std::string& line, size_t at) {
  const std::string digits = at < line.size() ? line.substr(at, 4) : "";
  if (digits.size() != 4 || digits.find_first_not_of("0123456789abcdefABCDEF") != kNowhere)
    return std::nullopt;
  return static_cast<unsigned>(std::strtoul(digits.c_str(), nullptr, 16));
}

}  // namespace

std::optional<int32_t> NaiveRequestInt(const std::string& line, const std::string& key) {
  size_t at = ValueOf(line, key);
  if (at == kNowhere) return std::nullopt;
  const bool minus = line[at] == '-';
  std::string digits;
  for (at += minus ? 1 : 0; at < line.size() && line[at] >= '0' && line[at] <= '9'; ++at) {
    digits += line[at];
    if (std::strtod(digits.c_str(), nullptr) > 2147483647.0) break;
  }
  if (digits.empty()) return std::nullopt;
  const auto value = static_cast<uint32_t>(std::strtoull(digits.c_str(), nullptr, 10));
  return static_cast<int32_t>(minus ? 0u - value : value);
}

std::optional<std::string> NaiveRequestString(const std::string& line, const std::string& key) {
  size_t at = ValueOf(line, key);
  if (at == kNowhere || line[at] != '"') return std::nullopt;
  static const std::string kLetters = "bfnrt";
  static const std::string kControls = "\b\f\n\r\t";
  std::string value;
  for (++at; at < line.size(); ++at) {
    if (line[at] == '"') return value;
    if (line[at] != '\\') {
      value += line[at];
      continue;
    }
    if (++at == line.size()) return std::nullopt;
    const size_t control = kLetters.find(line[at]);
    if (line[at] == 'u') {
      const auto unit = UnitAt(line, at + 1);
      if (!unit) return std::nullopt;
      value += UnitText(*unit);
      at += 4;
    } else {
      value += control == kNowhere ? line[at] : kControls[control];
    }
  }
  return std::nullopt;
}

}  // namespace fuzz
