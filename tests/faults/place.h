// Where in the day a call stands, so that a table can name it by a pattern.
#pragma once

#include <string>
#include <vector>

#include "sim/kernel.h"

namespace faults {

struct Place {
  // The call's arguments, " <- " what its handles were made by, and " for " the request that a WinHTTP call
  // leads to.
  std::string call;
  // The thread's next calls and those before it, the nearest first, the log's own left out; of each the
  // operation, its arguments and makers.
  std::vector<std::string> following;
  std::vector<std::string> preceding;
  std::string said;  // the thread's last line in the log
};

// One for each call of the trace.
std::vector<Place> PlacesOf(const std::vector<sim::TraceEntry>& trace);

// A pattern for the call, then optionally, in this order: " then " and one for the next call, " later " and
// one for any that follows, " after " and one for any that went before, " said " and one for the line. '*'
// stands for anything.
bool Fits(const std::string& pattern, const Place& place);
bool Fits(const std::string& pattern, const std::string& text);

// The parts of a text between bars.
std::vector<std::string> Alternatives(const std::string& text);

}  // namespace faults
