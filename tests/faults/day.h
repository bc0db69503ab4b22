// A working day of the service on the simulated machine, in steps that go on whatever fails: each does what a
// user would do and waits a limited time for what should come of it. One run is the same as the next up to
// the call at which something is done to it, so that a call of the day is known by its number alone.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "tests/support/system_run.h"

namespace faults {

// Done to the day's call of this number, counted from 1 as the trace counts.
struct Mischief {
  enum class Kind { kNone, kFailOnce, kFailFromThenOn, kCrashAfter };
  Kind kind = Kind::kNone;
  uint64_t call = 0;
  std::string operation{};  // of that call
  uint32_t code = 0;        // with which it fails
  bool thenHome = false;    // the day is over with the hour in which it was done
};

// What is known of one run.
struct Diary {
  bool hit = false;                      // the mischief was done
  size_t logBefore = 0;                  // bytes of the log when it was done
  Lines replies;                         // of the pipe, in order; empty texts where none came
  size_t repliesBefore = 0;              // how many of them had come when it was done
  std::set<std::string> configurations;  // every text that became the configuration file, if nothing is done
};

// From the start by the service manager to the logout, on a machine with nothing started yet; breaks off when
// the process is killed. After every hour, and before every change of the rules, the state must be one that
// may be.
void LiveUntilEvening(const Mischief& mischief, Diary& diary);

// Asked through the pipe to stop. False if the process goes on.
bool StopForTheNight(Diary& diary);

// The service runs, and its pipe is there.
void StartAgain();

// Logged in, connected, refreshed and disconnected again by a service that runs, on a machine on which
// nothing fails. The rules and the routes must be whole while connected; afterwards `routes` are all there
// are, and nothing else is left.
void ExpectTheDayGoesOn(const Lines& routes);

}  // namespace faults
