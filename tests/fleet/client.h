// One client of the fleet: the whole service on a simulated machine, and the control plane's view of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "stories.h"

namespace fleet {

// A request as it came to the control plane, or would have come if it could have been reached.
struct SeenRequest {
  int64_t time = 0;  // milliseconds of the story
  std::string verb;
  std::string path;     // without the query
  size_t sent = 0;      // bytes of the body
  uint32_t status = 0;  // 0: it could not be reached
  size_t answered = 0;  // bytes of the body
};

// Logs in on the day before, switches the machine off for the night, and then runs the plan. The access token
// lasts an hour unless the plan says otherwise, the catalogue holds 200 servers, and every answer takes 50
// ms.
std::vector<SeenRequest> RunClient(const ClientPlan& plan);

}  // namespace fleet
