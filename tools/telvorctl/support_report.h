// What a report for support tells of the machine, in sections; secrets are still in it.
#pragma once

#include <string>
#include <vector>

namespace telvorctl {

struct Section {
  std::string title;
  std::vector<std::string> lines;
};

// Versions, services, markers, files, adapters, routes and the log's end, as far as this user may see them.
// Asks the service nothing, so that it can also be made while that is not there.
std::vector<Section> MachineSections();

}  // namespace telvorctl
