#include "scheduler.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <sched.h>

namespace sim {
namespace {

constexpr uint64_t kBootTick = 1'000'000;
// A run hands the baton on at one call in so many; drawn from the seed, since some faults need many changes
// of thread and others one long stretch of a single thread.
constexpr uint64_t kPreemptOneIn[] = {2, 4, 10, 40};

struct Scheduler {
  Options options;
  uint64_t now = kBootTick;
  uint64_t random = 0;
  uint64_t deviceRandom = 0;
  uint64_t preemptOneIn = 4;
  uint32_t nextThreadId = 0;
  uint64_t steps = 0;
  uint64_t stepsWithoutTime = 0;
  uint64_t activity = 0;                         // in free-running mode: looks at who may run
  std::vector<std::unique_ptr<Thread>> threads;  // in the order of their ids, the driver first
  std::vector<std::unique_ptr<Thread>> finished;
  std::vector<Thread*> candidates;
  // By time and order of their making.
  std::map<std::pair<uint64_t, uint64_t>, std::function<void()>> timers;
  uint64_t nextTimer = 0;
  const std::function<bool()>* watch = nullptr;  // the driver's condition in RunUntil
  bool watchHolds = false;
  bool gaveUp = false;     // the driver's wait ends, since no time passes
  cpu_set_t processors{};  // that the driver may run on
};

std::unique_ptr<Scheduler> gScheduler;
Watch gWatch;
std::mutex gLock;
thread_local Thread* tCurrent = nullptr;
thread_local int tGuardDepth = 0;
thread_local int tInspecting = 0;

// The generator of splitmix64: small, and good enough to draw orders from.
uint64_t Draw(uint64_t& state) {
  state += 0x9E3779B97F4A7C15;
  uint64_t mixed = state;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
  return mixed ^ (mixed >> 31);
}

struct Inspection {
  Inspection() { ++tInspecting; }
  ~Inspection() { --tInspecting; }
  Inspection(const Inspection&) = delete;
  Inspection& operator=(const Inspection&) = delete;
};

bool Inspect(const std::function<bool()>& condition) {
  Inspection inspection;
  return condition();
}

void WatchStep(const Thread& self) {
  if (!gWatch.step || self.condemned || gFreeRunning) return;
  Inspection inspection;
  gWatch.step(self.id);
}

Thread& Driver() {
  return *gScheduler->threads.front();
}

const char* StateText(const Thread& thread) {
  switch (thread.state) {
    case Thread::State::kReady:
      return "is ready";
    case Thread::State::kRunning:
      return "runs";
    case Thread::State::kInMutex:
      return "waits for a mutex";
    default:
      return "waits";
  }
}

std::string Listing() {
  std::string text = "virtual time " + std::to_string(gScheduler->now) + " ms\n";
  for (const auto& thread : gScheduler->threads) {
    text += "  thread " + std::to_string(thread->id) + " '" + thread->name + "' " + StateText(*thread);
    if (!thread->operation.empty()) text.append(" in ").append(thread->operation);
    if (thread->arguments) text += ' ' + *thread->arguments;
    if (thread->state == Thread::State::kWaiting && thread->deadline != kForever) {
      text += " until " + std::to_string(thread->deadline);
    }
    text += '\n';
  }
  return text;
}

void RunDueTimers() {
  auto& timers = gScheduler->timers;
  while (!timers.empty() && timers.begin()->first.first <= gScheduler->now) {
    auto timer = timers.extract(timers.begin());
    Inspection inspection;
    timer.mapped()();
  }
}

bool SomebodyIsInAForeignLock() {
  for (const auto& thread : gScheduler->threads) {
    if (thread->state == Thread::State::kInMutex) return true;
  }
  return false;
}

// Nobody can run now. False if no time can pass either, which is no deadlock only while somebody is about to
// come out of a lock.
bool PassTime() {
  Scheduler& s = *gScheduler;
  uint64_t next = s.timers.empty() ? kForever : s.timers.begin()->first.first;
  for (const auto& thread : s.threads) {
    if (thread->state == Thread::State::kWaiting) next = std::min(next, thread->deadline);
  }
  if (next == kForever) {
    if (SomebodyIsInAForeignLock()) return false;
    Deadlock("deadlock: nobody is ready, and nobody's wait has a time limit");
  }
  if (next > s.now) {
    s.now = next;
    s.stepsWithoutTime = 0;
  }
  RunDueTimers();
  return true;
}

// Whether a thread that does not run may run now.
bool CanRun(Thread& thread) {
  if (thread.state == Thread::State::kReady) return true;
  if (thread.state != Thread::State::kWaiting) return false;
  thread.satisfied = (*thread.condition)();
  return thread.satisfied || thread.deadline <= gScheduler->now;
}

// ---- With the baton ----

// All on the processor of the driver: where only one thread runs at a time, to wake the next one on another
// processor takes several times as long. Threads inherit it. Where it is not allowed, it is slower.
void StayOnOneProcessor() {
  cpu_set_t& before = gScheduler->processors;
  const int processor = sched_getcpu();
  if (processor < 0 || sched_getaffinity(0, sizeof before, &before) != 0) return;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<size_t>(processor), &one);
  sched_setaffinity(0, sizeof one, &one);
}

void LeaveOneProcessor() {
  const cpu_set_t& before = gScheduler->processors;
  if (CPU_COUNT(&before) > 0) sched_setaffinity(0, sizeof before, &before);
}

bool WatchHolds() {
  Scheduler& s = *gScheduler;
  if (s.watch && !s.watchHolds) s.watchHolds = Inspect(*s.watch);
  return s.watch && s.watchHolds;
}

// The thread that gets the baton. Threads of an ended process come first, so that nothing happens between its
// end and their unwinding.
Thread& ChooseFrom(std::vector<Thread*>& candidates) {
  Scheduler& s = *gScheduler;
  for (;;) {
    candidates.clear();
    for (const auto& thread : s.threads) {
      if (thread->condemned && thread->state != Thread::State::kRunning) return *thread;
    }
    if (s.gaveUp || WatchHolds()) {
      s.gaveUp = false;
      return Driver();
    }
    for (const auto& thread : s.threads) {
      if (CanRun(*thread)) candidates.push_back(thread.get());
    }
    if (!candidates.empty()) return *candidates[Draw(s.random) % candidates.size()];
    PassTime();
  }
}

Thread& Choose() {
  Thread& chosen = ChooseFrom(gScheduler->candidates);
  chosen.state = Thread::State::kRunning;
  return chosen;
}

// `self` is null for a thread that ends.
void HandOver(Thread& next, Thread* self) {
  if (&next == self) return;
  std::unique_lock lock(gLock);
  next.turn = true;
  next.wake.notify_one();
  if (!self) return;
  self->wake.wait(lock, [self] { return self->turn; });
  self->turn = false;
}

// ---- In free-running mode ----

// Who waits for a lock runs as soon as its holder lets go, which the scheduler does not see. Time passes all
// the same when nothing has happened for so long: then the holder itself waits.
constexpr auto kPatienceWithLocks = std::chrono::milliseconds(200);

// Wakes whoever may run; when nobody runs, time passes. The machine's lock is held.
void WakeReady(bool overlookLocks = false) {
  ++gScheduler->activity;
  for (;;) {
    bool somebodyRuns = false;
    for (const auto& thread : gScheduler->threads) {
      if (thread->state == Thread::State::kWaiting && (thread->condemned || CanRun(*thread))) {
        thread->state = Thread::State::kRunning;
        thread->wake.notify_one();
      }
      somebodyRuns |= thread->state == Thread::State::kRunning;
    }
    if (somebodyRuns || (!overlookLocks && SomebodyIsInAForeignLock())) return;
    if (!PassTime()) return;
  }
}

void BlockFreely(Thread& self) {
  std::unique_lock lock(gLock, std::adopt_lock);
  const auto mayRun = [&self] { return self.state != Thread::State::kWaiting; };
  do {
    self.state = Thread::State::kWaiting;
    WakeReady();
    uint64_t seen = gScheduler->activity;
    while (!self.wake.wait_for(lock, kPatienceWithLocks, mayRun)) {
      if (gScheduler->activity == seen) WakeReady(true);
      seen = gScheduler->activity;
    }
    // Another thread may have been quicker.
  } while (!self.condemned && self.satisfied && !(*self.condition)());
  lock.release();
}

// ---- Both ----

void CountStep(Thread& self) {
  Scheduler& s = *gScheduler;
  ++s.steps;
  if (++s.stepsWithoutTime <= s.options.stepLimit) return;
  s.stepsWithoutTime = 0;
  Thread& driver = Driver();
  const std::string reason =
      "endless loop: " + std::to_string(s.options.stepLimit) + " calls in which no time passed";
  if (&self == &driver || driver.deadline == kForever) Deadlock(reason);
  ReportFailure(reason + "; the driver's wait is given up\n" + Listing());
  driver.deadline = s.now;
  s.gaveUp = !gFreeRunning;
}

bool Condemned(const Thread& thread) {
  Guard guard;
  return thread.condemned;
}

void RunBody(Thread& self, const std::function<void()>& body) {
  if (Condemned(self)) return;
  try {
    body();
  } catch (const ProcessEnded&) {
    return;
  } catch (...) {
    if (!Condemned(self)) UncaughtException(self);
  }
}

void MoveToFinished(Thread& self) {
  auto& threads = gScheduler->threads;
  for (auto place = threads.begin(); place != threads.end(); ++place) {
    if (place->get() != &self) continue;
    gScheduler->finished.push_back(std::move(*place));
    threads.erase(place);
    return;
  }
}

void RunThread(Thread& self, std::function<void()> body) {
  tCurrent = &self;
  const bool freeRunning = gFreeRunning;
  if (!freeRunning) {
    std::unique_lock lock(gLock);
    self.wake.wait(lock, [&self] { return self.turn; });
    self.turn = false;
  }
  RunBody(self, body);
  // What the body holds goes before others run.
  body = nullptr;
  WatchStep(self);
  {
    Guard guard;
    MoveToFinished(self);
    ThreadEnded(self);
  }
  if (!freeRunning) HandOver(Choose(), nullptr);
}

void JoinFinished() {
  for (const auto& thread : gScheduler->finished) thread->native.join();
  gScheduler->finished.clear();
}

}  // namespace

bool gFreeRunning = false;

void BootScheduler(const Options& options) {
  gScheduler = std::make_unique<Scheduler>();
  Scheduler& s = *gScheduler;
  s.options = options;
  gFreeRunning = options.freeRunning;
  s.random = options.seed;
  s.deviceRandom = ~options.seed;
  s.preemptOneIn = kPreemptOneIn[Draw(s.random) % std::size(kPreemptOneIn)];
  auto driver = std::make_unique<Thread>();
  driver->id = s.nextThreadId++;
  driver->name = "driver";
  driver->owner = Thread::Owner::kDriver;
  driver->state = Thread::State::kRunning;
  tCurrent = driver.get();
  s.threads.push_back(std::move(driver));
  if (!options.freeRunning) StayOnOneProcessor();
}

void ShutDownScheduler() {
  JoinFinished();
  LeaveOneProcessor();
  tCurrent = nullptr;
  gFreeRunning = false;
  gScheduler.reset();
}

bool MachineRuns() {
  return gScheduler != nullptr;
}
Thread* CurrentThread() {
  return tCurrent;
}
bool Inspecting() {
  return tInspecting > 0;
}

void SetWatch(const Watch& watch) {
  gWatch = watch;
}

void WatchReturned(const TraceEntry& entry) {
  if (!gWatch.returned || gFreeRunning) return;
  Inspection inspection;
  gWatch.returned(entry);
}

std::string ThreadListing() {
  Guard guard;
  return Listing();
}

Thread& AddThread(const std::string& name, Thread::Owner owner, std::function<void()> body) {
  Guard guard;
  Scheduler& s = *gScheduler;
  if (!gFreeRunning) JoinFinished();
  auto thread = std::make_unique<Thread>();
  Thread& added = *thread;
  added.id = s.nextThreadId++;
  added.name = name;
  added.owner = owner;
  added.state = gFreeRunning ? Thread::State::kRunning : Thread::State::kReady;
  s.threads.push_back(std::move(thread));
  added.native =
      std::thread([&added, task = std::move(body)]() mutable { RunThread(added, std::move(task)); });
  return added;
}

void SchedulingPoint(Thread& self) {
  Scheduler& s = *gScheduler;
  if (Inspecting()) return;
  if (gFreeRunning) {
    Guard guard;
    CountStep(self);
    return;
  }
  if (self.condemned) return;
  WatchStep(self);
  CountStep(self);
  if (!s.gaveUp && !WatchHolds() && Draw(s.random) % s.preemptOneIn != 0) return;
  self.state = Thread::State::kReady;
  HandOver(Choose(), &self);
}

bool Block(Thread& self, const std::function<bool()>& condition, uint64_t milliseconds) {
  Guard guard;
  if (self.condemned) return false;
  WatchStep(self);
  const uint64_t now = gScheduler->now;
  self.condition = &condition;
  self.deadline = milliseconds > kForever - now ? kForever : now + milliseconds;
  self.satisfied = false;
  if (gFreeRunning) {
    BlockFreely(self);
  } else {
    self.state = Thread::State::kWaiting;
    HandOver(Choose(), &self);
  }
  self.condition = nullptr;
  self.deadline = kForever;
  return !self.condemned && condition();
}

void EnterForeignLock(Thread& self) {
  Guard guard;
  self.state = Thread::State::kInMutex;
}

void LeaveForeignLock(Thread& self) {
  Guard guard;
  self.state = Thread::State::kRunning;
}

void CondemnThreads(bool clientsToo) {
  for (const auto& thread : gScheduler->threads) {
    if (thread->owner == Thread::Owner::kProduct) thread->condemned = true;
    if (thread->owner == Thread::Owner::kClient && clientsToo) thread->condemned = true;
  }
}

bool ThreadsRun(Thread::Owner owner) {
  for (const auto& thread : gScheduler->threads) {
    if (thread->owner == owner) return true;
  }
  return false;
}

bool ThreadRuns(uint32_t id) {
  for (const auto& thread : gScheduler->threads) {
    if (thread->id == id) return true;
  }
  return false;
}

void Deadlock(const std::string& reason) {
  std::cerr << reason << '\n' << Listing() << std::flush;
  std::abort();
}

void Guard::Lock() {
  if (tGuardDepth++ == 0) gLock.lock();
}

void Guard::Unlock() {
  // Conditions that are looked at here may have guards of their own.
  if (tGuardDepth == 1) WakeReady();
  if (--tGuardDepth == 0) gLock.unlock();
}

uint64_t Now() {
  Guard guard;
  return gScheduler ? gScheduler->now : kBootTick;
}

uint64_t DrawDeviceRandom() {
  static uint64_t gWithoutMachine = 0;
  return Draw(gScheduler ? gScheduler->deviceRandom : gWithoutMachine);
}

void After(uint64_t milliseconds, std::function<void()> action) {
  Guard guard;
  Scheduler& s = *gScheduler;
  s.timers.emplace(std::pair(s.now + milliseconds, s.nextTimer++), std::move(action));
}

void Run(uint64_t milliseconds) {
  Block(
      *tCurrent, [] { return false; }, milliseconds);
}

namespace {

bool RunUntilFreely(const std::function<bool()>& condition, uint64_t milliseconds) {
  const uint64_t end = Now() + milliseconds;
  for (;;) {
    uint64_t seen = 0;
    {
      Guard guard;
      seen = gScheduler->steps;
    }
    if (Inspect(condition)) return true;
    if (Now() >= end) return false;
    Block(
        *tCurrent, [seen] { return gScheduler->steps != seen; }, end - Now());
  }
}

}  // namespace

bool RunUntil(const std::function<bool()>& condition, uint64_t milliseconds) {
  Scheduler& s = *gScheduler;
  if (gFreeRunning) return RunUntilFreely(condition, milliseconds);
  if (tCurrent != &Driver()) Deadlock("RunUntil belongs to the driver");
  if (Inspect(condition)) return true;
  s.watch = &condition;
  s.watchHolds = false;
  Block(
      *tCurrent, [&s] { return s.watchHolds; }, milliseconds);
  s.watch = nullptr;
  return s.watchHolds || Inspect(condition);
}

}  // namespace sim
