// The stories of a fleet: what the person and the desktop program of each sampled client do, and when.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fleet {

// One question of the desktop program to the service.
struct Asking {
  uint64_t time = 0;  // milliseconds after the machine is switched on
  const char* method = "";
  const char* parameters = "";  // the members of params
};

struct ClientPlan {
  uint64_t seed = 1;
  std::vector<Asking> askings;  // in their order
  uint64_t end = 0;             // milliseconds after the machine is switched on: it is switched off
  // When the control plane cannot be reached, in milliseconds after the machine is switched on.
  uint64_t outageBegins = 0;
  uint64_t outageEnds = 0;
  uint64_t zero = 0;  // what the story calls 0, in milliseconds after the machine is switched on
  // The control plane draws each token's lifetime from three quarters of an hour to five quarters.
  bool lifetimesVary = false;
};

struct Story {
  const char* name;
  const char* statement;
  ClientPlan (*plan)(uint32_t client, uint32_t clients);
};

const std::vector<Story>& Stories();
const Story* FindStory(const std::string& name);  // null if there is none

}  // namespace fleet
