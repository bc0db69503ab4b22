// The firewall's rule set as it is promised, told independently of the code that makes it.
#pragma once

#include <cstddef>
#include <string>

namespace simulator {

// Filters of the system's provider that are in force.
size_t OwnFilterCount();

// What is wrong with the filters of the system that are in force; empty if nothing. Right is: none at all, or
// permits alone, among them the baseline's thirteen in their order or none of them, and behind them pairs of
// permits, TCP and UDP, for pinned and bypassing addresses. `halfPairs`: a pair may lack its second half.
std::string RuleSetFault(bool halfPairs);

// The thirteen are in force.
bool BaselineInForce();

}  // namespace simulator
