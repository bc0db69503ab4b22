// What must hold at every moment of every run, each as a small function with its statement in plain words.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace simulator {

// The moments at which an invariant is judged.
enum class Moment {
  kStep,       // a thread has changed what the process shows of its intent and state
  kCall,       // a platform call has returned
  kOperation,  // an operation of the worker's table has returned
  kReply,      // a client has got what it gets
  kRequest,    // the control plane has got a request
  kEnd,        // the process has ended
  kRest,       // all is well outside, nothing is wanted, and the service has had time
  kConnected,  // all is well outside, and the tunnel is up
};

struct Invariant {
  Moment moment;
  const char* name;
  const char* statement;
  std::string (*broken)();          // empty: it holds; otherwise what was seen
  std::string_view operation = {};  // of the calls that it is judged at; empty: at all
};

const std::vector<Invariant>& Invariants();

// Whether it is about what has just happened: an operation that it names has returned.
bool Concerns(const Invariant& invariant);

// Judges all of the moment.
void Judge(Moment moment);

// Invariants that the acts themselves judge, since they are about time or about the machine.
inline constexpr char kStartsAgain[] = "starts again";
inline constexpr char kComesToRest[] = "comes to rest";
inline constexpr char kConnectsAgain[] = "connects again";
inline constexpr char kEndsOnStop[] = "ends on stop";
inline constexpr char kAnswers[] = "answers";
inline constexpr char kMachine[] = "machine";
inline constexpr char kTwice[] = "twice alike";

}  // namespace simulator
