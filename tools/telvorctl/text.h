// Texts for people: bytes made showable, columns, sizes and spans of time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace telvorctl {

// `bytes` with every byte that is not part of UTF-8 replaced by U+FFFD.
std::string RepairUtf8(std::string_view bytes);

bool IsUtf8(std::string_view bytes);

// UTF-16 in little-endian bytes as UTF-8; U+FFFD for half of a pair and for half of a unit.
std::string Utf8FromUtf16(std::string_view bytes);

// `text` (UTF-8) with control characters replaced, so that it cannot drive a terminal: a tab by a blank, all
// others by '?'.
std::string Showable(std::string_view text);

// Code points of `text` (UTF-8), each taken for one column.
size_t Columns(std::string_view text);

// `text` (UTF-8) cut at so many columns, and filled up with blanks if `fill` is set.
std::string FitColumns(std::string_view text, size_t columns, bool fill);

// `text` (UTF-8) in pieces of at most so many columns (one at least), parted at blanks where there are any.
std::vector<std::string> WrapColumns(std::string text, size_t columns);

// "999 B", "1.2 KiB", "3.4 GiB".
std::string SizeText(uint64_t bytes);

// "45 seconds", "1 minute", "2 hours", rounded down.
std::string SpanText(uint64_t seconds);

// The text parted at line feeds, without them and a carriage return before. No empty line behind the last
// one.
std::vector<std::string> SplitLines(std::string_view text);

// The rows below each other, every column but the last as wide as its widest cell, two blanks between them.
std::vector<std::string> TableLines(const std::vector<std::vector<std::string>>& rows);

// Equal but for the case of A to Z.
bool EqualIgnoringCase(std::string_view left, std::string_view right);

}  // namespace telvorctl
