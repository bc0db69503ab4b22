// What can happen on a run: each act is a function of two numbers, and a plan is a list of acts.
#pragma once

#include <cstdint>
#include <vector>

namespace simulator {

struct Act {
  const char* name;
  uint32_t weight;  // how often it is drawn
  void (*carryOut)(uint32_t choice, uint32_t amount);
};

// In the order in which plans number them.
const std::vector<Act>& Acts();

// The driver lets time pass; false once an invariant is broken.
bool Pass(uint64_t milliseconds);

// The service manager starts the service, and waits for it.
void StartService();
// All is made well; then the service must come to rest, connect, and come to rest again.
void CalmDown(uint32_t choice, uint32_t amount);

}  // namespace simulator
