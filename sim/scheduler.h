// The threads of the simulated machine and its clock: who runs, who waits for what, and when time passes.
// With the baton exactly one thread runs; in free-running mode all that do not wait.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "device.h"

namespace sim {

struct Thread {
  enum class Owner { kDriver, kProduct, kClient };
  enum class State { kReady, kRunning, kWaiting, kInMutex };
  uint32_t id = 0;
  std::string name;
  Owner owner = Owner::kProduct;
  State state = State::kReady;
  bool condemned = false;  // its process has ended: it unwinds
  uint32_t lastError = 0;
  // While it waits.
  const std::function<bool()>* condition = nullptr;
  uint64_t deadline = kForever;
  bool satisfied = false;
  // What it is in, for listings.
  std::string_view operation;
  const std::string* arguments = nullptr;

  bool turn = false;  // the baton was handed over
  std::condition_variable wake;
  std::thread native;
};

// The calling thread becomes the driver.
void BootScheduler(const Options& options);
// All threads but the driver have ended.
void ShutDownScheduler();
bool MachineRuns();
Thread* CurrentThread();  // null on a thread that the machine does not know

Thread& AddThread(const std::string& name, Thread::Owner owner, std::function<void()> body);
// The baton may change hands. Does not throw.
void SchedulingPoint(Thread& self);
// Waits until `condition` holds; says whether it does. False at once on a condemned thread. Does not throw.
// In free-running mode the machine's lock is held once.
bool Block(Thread& self, const std::function<bool()>& condition, uint64_t milliseconds);
// A thread waits in, and has come out of, a lock that the scheduler does not know (free-running mode).
void EnterForeignLock(Thread& self);
void LeaveForeignLock(Thread& self);

// A condition of RunUntil is being looked at on this thread.
bool Inspecting();
// Shows a call that has returned to the machine's watch.
void WatchReturned(const TraceEntry& entry);

// Every thread of these owners unwinds from now on.
void CondemnThreads(bool clientsToo);
bool ThreadsRun(Thread::Owner owner);
// Whether the thread of that number still runs.
bool ThreadRuns(uint32_t id);

// Called on a thread that ends, behind its unwinding.
void ThreadEnded(Thread& self);
// What a thread's body let out, other than ProcessEnded.
void UncaughtException(Thread& self);

[[noreturn]] void Deadlock(const std::string& reason);

}  // namespace sim
