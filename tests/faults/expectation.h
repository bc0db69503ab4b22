// What is to be seen when a call of the day fails.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/faults/place.h"

namespace faults {

// How the day goes on once nothing fails any more.
enum class Aftermath {
  kGoesOn,      // in the same process
  kNewProcess,  // what failed cannot be made good before the process has ended
  kOperator,    // somebody has to remove a file that was left empty, or was filled with nothing
};

// The first row that fits a call counts.
struct Expectation {
  const char* operations;  // one, or several between bars; "*": any of WinHTTP's
  const char* place;       // a pattern
  // What the log or a reply then says, one of several between bars; {code} stands for the code of the
  // failure. Empty: nothing does.
  const char* says;
  // Why nothing is said.
  const char* silence;
  Aftermath aftermath = Aftermath::kGoesOn;
};

const std::vector<Expectation>& Expectations();

// The row for a call; null if there is none.
const Expectation* FindExpectation(const std::string& operation, const Place& place);

// The code with which an operation fails.
uint32_t CodeOf(const std::string& operation);

// So many handles does one failed call of the operation leave open. `pipeBefore`: the thread's call before it
// made a pipe.
size_t HandlesLeftBy(const std::string& operation, bool pipeBefore);

}  // namespace faults
