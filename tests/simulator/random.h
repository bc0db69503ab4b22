// Random numbers that are the same on every machine, drawn from a seed.
#pragma once

#include <cstdint>

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

}  // namespace simulator
