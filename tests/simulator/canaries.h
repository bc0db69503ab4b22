// Bugs that are put in on purpose, behind the worker's table: what finds none of them finds nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "simulation.h"

namespace simulator {

struct Canary {
  const char* name;
  const char* bug;        // in plain words
  const char* invariant;  // that it breaks
  TableChange plant;
};

const std::vector<Canary>& Canaries();

// A run with this bug; the canary must outlive it.
RunOptions WithCanary(const Canary& canary);

struct Find {
  uint64_t seed;
  Outcome outcome;
};
// Runs seeds from `first` until the canary is found, or `count` are over.
std::optional<Find> FindCanary(const Canary& canary, uint64_t first, uint64_t count);

}  // namespace simulator
