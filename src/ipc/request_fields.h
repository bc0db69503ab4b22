// The readers of a request line: searches through the whole line, without regard to nesting. On false the
// output keeps its value, which is how defaults work.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The low 32 bits of the digits behind `"key":`, negated behind a '-'.
bool ReadRequestInt(std::string_view line, const char* key, int32_t& value);

// The text behind `"key":`, with its escapes undone.
bool ReadRequestString(std::string_view line, const char* key, std::string& value);
