// The kernel of the simulated Windows machine: virtual time, threads that run one at a time by a baton,
// faults, the trace, and the table of open handles. Everything that decides when a thread runs, what time it
// is and whether a call fails is here; the devices beside it (files, services, filtering, network, http,
// processes, pipes) hold state and the meaning of calls.
//
// The thread that makes a Machine is the driver: it holds the baton like any product thread, may call product
// functions directly, and lets the others run by Run, RunUntil or any blocking platform call.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "service/platform.h"

namespace sim {

struct Options {
  // Draws the order in which ready threads get the baton, and how often it changes hands.
  uint64_t seed = 1;
  // No baton: threads really run at once, for the thread sanitizer, in no reproducible order. Time passes, as
  // with the baton, only when every thread waits, so that a slow computer misses no deadline. The lists that
  // the controls give by reference may then be looked at only while no other thread runs.
  bool freeRunning = false;
  // So many calls without any time passing count as an endless loop: the driver's wait is given up and a
  // failure reported or, if the wait has no time limit, the test program aborted.
  uint64_t stepLimit = 1'000'000;
  // False: Trace() stays empty. The watch sees every call all the same.
  bool keepsTrace = true;
};

// One simulated machine, booted anew: empty state in every device, the product's process-wide variables at
// their initial values. One exists at a time; without one, platform calls act on an empty machine, untraced.
// The destructor ends the process (as by a kill), joins its threads, and reports the handles that the product
// left open, if they are more than ExpectOpenHandles announced. Left open are those that are open when wmain
// has returned, except those of threads that still ran then, and those that are open as the machine ends
// while no product thread runs. What a kill cuts off is not counted.
class Machine {
 public:
  explicit Machine(const Options& options = {});
  ~Machine();  // NOLINT(bugprone-exception-escape): see kernel.cpp
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;
};

// How a failure of the running test is reported: handles left open, closed twice or used after their close,
// an endless loop. The default prints the text and aborts.
void SetFailureReporter(void (*reporter)(const std::string& text));

// ---- Time ----
// Virtual milliseconds, as GetTickCount64 gives them: 1,000,000 at boot.
uint64_t Now();
// What _time64 gives.
int64_t UnixTime();
// The clock jumps; at boot it stands at 2026-01-01 00:00:00 UTC. Local time is UTC.
void SetUnixTime(int64_t seconds);
// The driver sleeps in virtual time while the others run.
void Run(uint64_t milliseconds);
// Runs until `condition` holds or the time is over; says whether it holds. The condition is looked at at
// every platform call of any thread, and the driver goes on at once. It may lock the product's mutexes and
// make platform calls: within it these neither wait nor leave a trace. It must not ask the pipe.
bool RunUntil(const std::function<bool()>& condition, uint64_t milliseconds);

// ---- The product's process ----
// Runs `start` on a new simulated thread, as a thread of the product's process would be.
void StartThread(const std::string& name, std::function<void()> start);
// The same for a thread of another process, such as a client of the pipe: it outlives the product's process.
void StartClientThread(const std::string& name, std::function<void()> start);
// The process ends at once: every product thread unwinds at its next platform call; open files, pipes, waits
// and engine handles are closed by the system; no hook runs. What the machine keeps (files, filters, routes,
// services) stays. Then the process-wide variables are set to their initial values, as for a next process.
// Called on a product thread (by an action of Before) it throws ProcessEnded.
void KillProcess();
// Thrown through the stack of a product thread whose process has ended. On the driver's thread
// platform::Abort throws it too.
struct ProcessEnded {};
// Sets the product's process-wide variables to the values that a new process has.
void ResetProcessVariables();
bool ProcessAborted();  // platform::Abort was called, since boot or the last StartProduct
// The crash hooks the product installed, since boot or the last StartProduct; null if not.
struct CrashHooks {
  int32_t (*unhandledExceptionFilter)() = nullptr;
  void (*terminate)() = nullptr;
  std::vector<void (*)()> atExit;
};
const CrashHooks& InstalledCrashHooks();
// The console: runs the handler that SetConsoleCtrlHandler added on a new product thread and waits for it;
// false if there is none. A handler that answers false to type 0, 1 or 2 lets the process end.
bool SendConsoleEvent(uint32_t type);

// ---- Faults ----
struct Fault {
  // By its Windows name, such as "CreateFileW"; so also "_time64", "_mkgmtime64", "set_terminate", "atexit"
  // and "abort".
  std::string operation{};
  uint32_t code = 31;              // GetLastError, or the status that the function returns
  uint32_t skip = 0;               // this many matching calls pass first
  uint32_t times = 1;              // then so many fail; UINT32_MAX: from then on all
  std::string argumentsContain{};  // only calls whose traced arguments contain this text
};
void Fail(const Fault& fault);
// The next matching ReadFile, WriteFile, WinHttpReadData or WinHttpWriteData succeeds but moves at most so
// many bytes.
void Shorten(const std::string& operation, uint32_t bytes, const std::string& argumentsContain = "");
void ClearFaults();
// Runs `action` on the calling thread just before the next matching call does its work, once.
void Before(const std::string& operation, std::function<void()> action,
            const std::string& argumentsContain = "");
// Runs `action` on the calling thread just before the `number`-th call from now, whichever it is; 1 is the
// next.
void BeforeCall(uint64_t number, std::function<void()> action);
// The mutex's lock() throws std::system_error the next `times` times it is taken.
void FailLock(const platform::Mutex& mutex, uint32_t times = 1);

// ---- Trace ----
// Calls in the order in which they began. GetLastError and the mutexes leave no trace.
struct TraceEntry {
  uint64_t time = 0;           // virtual milliseconds
  uint32_t thread = 0;         // 0 is the driver
  std::string_view operation;  // a literal
  std::string arguments;  // all of them, name=value separated by blanks, texts in UTF-8 and double quotes
  std::string result;     // empty while the call has not returned
  bool canFail = false;   // the operation knows failure: a Fault had or would have had an effect
};
const std::vector<TraceEntry>& Trace();
size_t CountCalls(const std::string& operation, const std::string& argumentsContain = "");
void ClearTrace();
std::string TraceText();  // one line an entry, to be compared or shown

// ---- Watching ----
// Called on the running thread, which may look at everything: calls that it makes meanwhile leave no trace,
// and it must not wait. With the baton only.
struct Watch {
  // The baton may change hands now: what has changed since the last such moment, this thread alone has done.
  void (*step)(uint32_t thread) = nullptr;
  // A call has returned, other than one of an ended process.
  void (*returned)(const TraceEntry& entry) = nullptr;
};
void SetWatch(const Watch& watch);  // of the next machine too
size_t FaultsApplied();             // calls that a Fault let fail or Shorten cut short, since boot
size_t LocksHeld();                 // product mutexes that the running thread holds
std::string ThreadListing();        // every thread and what it waits for, one a line

// ---- Handles ----
// Kinds: file, find, event, thread, pipe, named pipe, process, process thread, manager, service, engine,
// enumeration, http, memory.
size_t OpenHandles(const std::string& kind = "");
// The test knows of `count` handles that the product leaves open by design.
void ExpectOpenHandles(size_t count);

// UTF-16 code units (one a wchar_t) to UTF-8 for traces and tests, unpaired surrogates as U+FFFD.
std::string Narrow(const std::wstring& text);
std::wstring Widen(const std::string& text);

}  // namespace sim
