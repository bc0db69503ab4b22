#include "telvorctl/text.h"

#include <algorithm>
#include <array>

namespace telvorctl {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr size_t kGap = 2;  // blanks between two columns

struct Lead {
  unsigned char lowest;
  unsigned char highest;
  unsigned char secondLowest;  // the range of the second byte keeps out what is too long, halves of pairs and
  unsigned char secondHighest;  // what lies beyond the last code point
  size_t length;
};

constexpr Lead kLeads[] = {
    {0x00, 0x7F, 0x00, 0x00, 1}, {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

unsigned char ByteAt(std::string_view bytes, size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

bool Lies(unsigned char byte, unsigned char lowest, unsigned char highest) {
  return byte >= lowest && byte <= highest;
}

// Bytes of the code point at the front; 0 if there is none.
size_t LengthOfFirst(std::string_view bytes) {
  const unsigned char first = ByteAt(bytes, 0);
  const auto* const lead = std::find_if(std::begin(kLeads), std::end(kLeads), [&](const Lead& candidate) {
    return Lies(first, candidate.lowest, candidate.highest);
  });
  if (lead == std::end(kLeads) || bytes.size() < lead->length) return 0;
  if (lead->length > 1 && !Lies(ByteAt(bytes, 1), lead->secondLowest, lead->secondHighest)) return 0;
  for (size_t i = 2; i < lead->length; ++i) {
    if (!Lies(ByteAt(bytes, i), 0x80, 0xBF)) return 0;
  }
  return lead->length;
}

bool ContinuesCodePoint(char byte) {
  return (byte & 0xC0) == 0x80;
}

std::string ShowableCharacter(std::string_view character) {
  if (character == "\t") return " ";
  const unsigned char first = ByteAt(character, 0);
  const bool secondSet = first == 0xC2 && ByteAt(character, 1) < 0xA0;
  return first < 0x20 || first == 0x7F || secondSet ? "?" : std::string(character);
}

bool IsHighSurrogate(uint32_t unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}

bool IsSurrogate(uint32_t unit) {
  return unit >= 0xD800 && unit < 0xE000;
}

void AppendUtf8(uint32_t point, std::string& text) {
  const auto add = [&text](uint32_t byte) { text += static_cast<char>(byte); };
  if (point < 0x80) return add(point);
  if (point < 0x800) {
    add(0xC0 | (point >> 6));
  } else if (point < 0x10000) {
    add(0xE0 | (point >> 12));
    add(0x80 | ((point >> 6) & 0x3F));
  } else {
    add(0xF0 | (point >> 18));
    add(0x80 | ((point >> 12) & 0x3F));
    add(0x80 | ((point >> 6) & 0x3F));
  }
  add(0x80 | (point & 0x3F));
}

uint32_t UnitAt(std::string_view bytes, size_t index) {
  constexpr uint32_t kHalfOfPair = 0xD800;  // stands for all that is none
  if (index + 1 >= bytes.size()) return kHalfOfPair;
  return uint32_t{ByteAt(bytes, index)} | uint32_t{ByteAt(bytes, index + 1)} << 8;
}

struct Unit {
  uint64_t size;
  const char* name;
};

}  // namespace

std::string RepairUtf8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const size_t length = LengthOfFirst(bytes);
    text += length == 0 ? kReplacement : bytes.substr(0, length);
    bytes.remove_prefix(std::max<size_t>(length, 1));
  }
  return text;
}

bool IsUtf8(std::string_view bytes) {
  return RepairUtf8(bytes) == bytes;
}

std::string Utf8FromUtf16(std::string_view bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 2) {
    const uint32_t unit = UnitAt(bytes, i);
    const uint32_t next = IsHighSurrogate(unit) && i + 3 < bytes.size() ? UnitAt(bytes, i + 2) : 0;
    if (IsSurrogate(next) && !IsHighSurrogate(next)) {
      AppendUtf8(0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00), text);
      i += 2;
    } else {
      AppendUtf8(IsSurrogate(unit) ? 0xFFFD : unit, text);
    }
  }
  return text;
}

std::string Showable(std::string_view text) {
  const std::string repaired = RepairUtf8(text);
  std::string shown;
  for (std::string_view rest = repaired; !rest.empty();) {
    const size_t length = LengthOfFirst(rest);
    shown += ShowableCharacter(rest.substr(0, length));
    rest.remove_prefix(length);
  }
  return shown;
}

size_t Columns(std::string_view text) {
  return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), ContinuesCodePoint));
}

std::string FitColumns(std::string_view text, size_t columns, bool fill) {
  const size_t width = Columns(text);
  if (width <= columns) return std::string(text) + std::string(fill ? columns - width : 0, ' ');
  size_t end = 0;
  for (size_t seen = 0; end < text.size(); ++end) {
    if (!ContinuesCodePoint(text[end]) && seen++ == columns) break;
  }
  return std::string(text.substr(0, end));
}

std::vector<std::string> WrapColumns(std::string text, size_t columns) {
  std::vector<std::string> pieces;
  while (Columns(text) > columns) {
    std::string piece = FitColumns(text, columns, false);
    const size_t blank = text[piece.size()] == ' ' ? piece.size() : piece.rfind(' ');
    if (blank != std::string::npos && blank > 0) piece.resize(blank);
    text.erase(0, piece.size() + (blank == piece.size() ? 1 : 0));
    pieces.push_back(std::move(piece));
  }
  pieces.push_back(std::move(text));
  return pieces;
}

std::string SizeText(uint64_t bytes) {
  constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  size_t unit = 0;
  // Tenths are cut, not rounded, so that nothing is shown as 1024.0.
  uint64_t whole = bytes / 1024;
  uint64_t rest = bytes % 1024;
  while (whole >= 1024) {
    rest = whole % 1024;
    whole /= 1024;
    ++unit;
  }
  return std::to_string(whole) + "." + std::to_string(rest * 10 / 1024) + " " + kUnits[unit];
}

std::string SpanText(uint64_t seconds) {
  constexpr Unit kUnits[] = {{86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}};
  for (const Unit& unit : kUnits) {
    if (seconds < unit.size && unit.size > 1) continue;
    const uint64_t count = seconds / unit.size;
    return std::to_string(count) + " " + unit.name + (count == 1 ? "" : "s");
  }
  return {};
}

std::vector<std::string> SplitLines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines.emplace_back(line);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::vector<std::string> TableLines(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Columns(row[i]));
  }
  std::vector<std::string> lines;
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) line += FitColumns(row[i], widths[i] + kGap, true);
    line.erase(line.find_last_not_of(' ') + 1);
    lines.push_back(std::move(line));
  }
  return lines;
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
  const auto lower = [](char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
  };
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [&](char one, char other) { return lower(one) == lower(other); });
}

}  // namespace telvorctl
