// The arguments and results of platform calls as the trace shows them.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string>
#include <type_traits>

#include "kernel.h"

namespace sim {

// A number shown in hexadecimal.
struct Hex {
  uint64_t value;
};

inline void AppendValue(std::string& out, bool value) {
  out += value ? "true" : "false";
}
template <class T>
requires std::is_integral_v<T>
void AppendValue(std::string& out, T value) {
  std::array<char, 24> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  out.append(digits.data(), static_cast<size_t>(end - digits.data()));
}
inline void AppendValue(std::string& out, Hex number) {
  std::array<char, 18> digits{'0', 'x'};
  const auto end = std::to_chars(digits.data() + 2, digits.data() + digits.size(), number.value, 16).ptr;
  out.append(digits.data(), static_cast<size_t>(end - digits.data()));
}
inline void AppendValue(std::string& out, const std::string& text) {
  out += '"';
  out += text;
  out += '"';
}
inline void AppendValue(std::string& out, const char* text) {
  AppendValue(out, std::string(text));
}
inline void AppendValue(std::string& out, const std::wstring& text) {
  AppendValue(out, Narrow(text));
}
inline void AppendValue(std::string& out, const wchar_t* text) {
  if (text) AppendValue(out, Narrow(text));
  if (!text) out += "null";
}
// A handle. Real addresses differ from run to run and are not shown.
inline void AppendValue(std::string& out, const void* handle) {
  const auto value = reinterpret_cast<uintptr_t>(handle);
  if (!handle) {
    out += "null";
  } else if (value == UINTPTR_MAX) {
    out += "invalid";
  } else if (value > UINT32_MAX) {
    out += "address";
  } else {
    AppendValue(out, Hex{value});
  }
}

inline void AppendArguments(std::string&) {}
template <size_t kSize, class T, class... Rest>
void AppendArguments(std::string& out, const char (&name)[kSize], const T& value, const Rest&... rest) {
  std::array<char, kSize + 1> piece;  // " name="
  piece.front() = ' ';
  std::copy_n(&name[0], kSize - 1, &piece[1]);
  piece.back() = '=';
  const size_t from = out.empty() ? 1 : 0;
  out.append(&piece[from], piece.size() - from);
  if constexpr (std::is_array_v<T>) {
    AppendValue(out, &value[0]);
  } else {
    AppendValue(out, value);
  }
  AppendArguments(out, rest...);
}

// "name=value name=value ..." of alternating names and values.
template <class... Pairs>
std::string Args(const Pairs&... pairs) {
  constexpr size_t kMostlyEnough = 96;
  std::string out;
  if (sizeof...(pairs) > 2) out.reserve(kMostlyEnough);
  AppendArguments(out, pairs...);
  return out;
}

}  // namespace sim
