// What a run has shown so far: the facts that the invariants judge, written by the watch, the clients and the
// acts. Process-wide, and new with every run.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "sim/kernel.h"

namespace simulator {

// What the process shows of its intent and its state.
struct Snapshot {
  int32_t desired = 0;
  int32_t status = 0;
  uint64_t epoch = 0;
  bool up = false;
  bool operator==(const Snapshot&) const = default;
};

inline constexpr wchar_t kTunnelService[] = L"WireGuardTunnel$telvor";

// One operation of the worker's table that has returned.
struct OperationFacts {
  const char* name = "";
  uint32_t thread = 0;
  bool result = false;  // true also for operations without a result
  bool unwound = false;
  size_t faultsBefore = 0;  // FaultsApplied() as it began
  uint64_t routesMadeBefore = 0;
  std::vector<std::wstring> addresses{};  // the list that it was given
};

struct ThreadFacts {
  bool worker = false;
  bool supervisor = false;
  const char* method = nullptr;     // the pipe method that it runs
  const char* operation = nullptr;  // the operation of the worker's table that it runs
  bool mayConnect = false;          // its method has yet to write the intent to connect
  bool mayDisconnect = false;       // and that to disconnect
  bool wroteIntent = false;
  bool mustWriteIntent = false;
  bool bootstrapFailed = false;  // its last operation was one
  size_t leftByRollback = 0;     // filters of the system, as its last rollback was committed
  std::string openedFile;        // the last path that it opened, with what it opened it for
  std::string openedHandle;      // "file=" and its handle
};

// The worker's way from the beginning of its last connect pass.
struct PassFacts {
  std::vector<OperationFacts> operations;
  uint32_t handshakesMissed = 0;  // in a row
  uint64_t restartedAt = 0;       // when the tunnel service ran again
  bool tornDown = false;
};

struct FirewallFacts {
  uint64_t baselines = 0;  // committed
  uint64_t rollbacks = 0;  // committed
  std::optional<uint64_t> rollbacksAtBaseline;
  bool halfPairAllowed = false;    // a filter could not be added: a permit may lack its second half
  bool tornByFault = false;        // a sweep has failed: what could be removed is gone, and the rest is not
  std::set<std::string> sweeping;  // engine handles whose transaction has removed the provider
};

// One exchange of a client.
struct Exchange {
  uint32_t client = 0;
  std::string what;       // the method, or a word for rubbish
  std::string request;    // as it was sent
  bool complete = false;  // with its line feed
  std::string reply;
  bool answered = false;
  bool readToEnd = true;  // the client waited for the end
  uint32_t statuses = 0;  // bit n: the status was n at some moment of it
  uint64_t life = 0;      // of the process as it began
  uint64_t begun = 0;
  size_t faultsBefore = 0;
};

struct Violation {
  std::string invariant;
  std::string detail;
  uint64_t time = 0;
  size_t event = 0;
};

struct Facts {
  uint64_t traceHash = 0;
  uint64_t calls = 0;
  std::unordered_set<uint64_t> states;
  std::optional<Violation> violation;
  size_t event = 0;  // the one that is carried out
  bool telling = false;
  std::vector<std::string> story;

  uint64_t life = 0;          // counts processes
  bool processEnded = false;  // and the watch has not looked since
  Snapshot shown;
  Snapshot before;  // of the last step
  uint32_t stepThread = 0;
  std::deque<ThreadFacts> threads;  // by number
  const sim::TraceEntry* call = nullptr;
  const OperationFacts* operation = nullptr;
  const Exchange* exchange = nullptr;

  bool rolledBackAtStart = false;  // this life's worker has
  bool stopSignaled = false;       // in this life
  bool supervisionEnds = false;    // this life's supervisor has given up: the process ends within seconds
  bool endUnreported = false;      // this life's last report, that it has stopped, was refused
  bool endedByStop = false;        // the life before
  bool lockFailures = false;       // in this run
  bool afterConnection = false;    // the rest follows a connection that nothing has disturbed
  size_t faultsSeen = 0;           // FaultsApplied() at the last call
  size_t faultsAtBirth = 0;        // FaultsApplied() as this life began
  PassFacts pass;
  FirewallFacts firewall;
  uint64_t handshakeShownAt = 0;  // when wg.exe showed one
  uint64_t routesMade = 0;
  std::vector<Exchange*> exchanges;   // open
  std::optional<std::string> config;  // telvor.conf as it was put in place
  std::set<std::string> secrets;      // texts that no log line may hold
  std::set<std::string> tokens;       // access tokens that the control plane gave
  std::set<std::string> deviceIds;    // that may be named
  std::string bearer;                 // of the request that the control plane got
  std::string deviceNamed;
};
extern Facts gFacts;

ThreadFacts& FactsOf(uint32_t thread);

// A program's pipe is open, other than by the wanted leak: if its second cannot be made, the first stays
// open.
bool PipesAreOpen();

// The first one counts, and ends the run.
void Violate(const std::string& invariant, const std::string& detail);

// A line of the run's story, if it is told.
void Tell(const std::string& line);
bool Telling();

}  // namespace simulator
