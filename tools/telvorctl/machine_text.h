// What the machine tells, in words; and where the service's log lies.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>

namespace telvorctl {

struct Word {
  uint32_t number;
  const char* text;
};

// `unless` and the number itself for a number without a word.
template <size_t count>
std::string WordOf(const Word (&words)[count], uint32_t number, const char* unless) {
  const auto* const found = std::find_if(std::begin(words), std::end(words),
                                         [&](const Word& word) { return word.number == number; });
  return found == std::end(words) ? unless + std::to_string(number) : found->text;
}

// Of one of Windows' errors.
std::string ErrorText(uint32_t error);

// "203.0.113.7"; the address is in the order of its bytes on the wire.
std::string AddressText(uint32_t address);

std::string LogFolder();
std::string LogPath();

}  // namespace telvorctl
