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

// Adds a text to it, eight bytes at once: it is done for each platform call.
inline uint64_t MixText(uint64_t hash, std::string_view text) {
  constexpr uint64_t kOdd = 0x9E3779B97F4A7C15;
  hash += text.size();
  for (; text.size() >= sizeof(uint64_t); text.remove_prefix(sizeof(uint64_t))) {
    uint64_t eight = 0;
    std::memcpy(&eight, text.data(), sizeof(eight));
    hash = std::rotl(hash ^ eight, 29) * kOdd;
  }
  uint64_t rest = 0;
  std::memcpy(&rest, text.data(), text.size());
  return Mix(hash, rest);
}

}  // namespace simulator
