// The readers of a request line once more, written for plainness.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace fuzz {

std::optional<int32_t> NaiveRequestInt(const std::string& line, const std::string& key);
std::optional<std::string> NaiveRequestString(const std::string& line, const std::string& key);

}  // namespace fuzz
