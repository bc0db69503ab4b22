// Random numbers that are the same on every machine, drawn from a seed.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace simulator {

struct Random {
  uint64_t state = 0;
};

// The generator of splitmix64.
inline uint64_t Draw(Random& random) {
  random.state += 0x9E3779B97F4A7C15;
  uint64_t mixed = random.state;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
  return mixed ^ (mixed >> 31);
}

inline uint64_t DrawBelow(Random& random, uint64_t bound) {
  return Draw(random) % bound;
}

// Adds a number to a running hash.
inline uint64_t Mix(uint64_t hash, uint64_t number) {
  Random random{hash ^ number};
  return Draw(random);
}

// The first bytes of a text as a number.
template <class Number>
uint64_t NumberAt(const char* text) {
  Number number = 0;
  std::memcpy(&number, text, sizeof(number));
  return number;
}

// Up to eight bytes as a number, which is another one for each other text of that length.
inline uint64_t ShortText(std::string_view text) {
  const char* end = text.data() + text.size();
  if (text.size() >= 4) return NumberAt<uint32_t>(text.data()) << 32 | NumberAt<uint32_t>(end - 4);
  if (text.size() >= 2) return NumberAt<uint16_t>(text.data()) << 16 | NumberAt<uint16_t>(end - 2);
  return text.empty() ? 0 : NumberAt<uint8_t>(text.data());
}

// Adds a text to it, eight bytes at once, and does not mix as well as Mix: it is done for each platform call.
inline uint64_t MixText(uint64_t hash, std::string_view text) {
  constexpr uint64_t kOdd = 0x9E3779B97F4A7C15;
  const auto add = [&hash](uint64_t number) { hash = std::rotl(hash ^ number, 29) * kOdd; };
  hash += text.size() * kOdd;
  for (; text.size() > sizeof(uint64_t); text.remove_prefix(sizeof(uint64_t)))
    add(NumberAt<uint64_t>(text.data()));
  add(ShortText(text));
  return hash;
}

}  // namespace simulator
