// Threads, events, waits, clocks, mutexes, crash hooks, console, and the end of the process.
#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "device.h"
#include "engine/platform.h"
#include "ipc/platform.h"
#include "scheduler.h"
#include "service/platform.h"

namespace sim {
namespace {

constexpr uint32_t kStillActive = 259;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kMaximumWaitObjects = 64;

struct Event : Object {
  Event(bool manual, bool set) : Object("event"), manualReset(manual), isSet(set) {}
  bool Signaled() const override { return isSet; }
  void Consumed() override { isSet = manualReset; }
  bool manualReset;
  bool isSet;
};

struct ThreadObject : Object {
  ThreadObject() : Object("thread") {}
  bool Signaled() const override { return ended; }
  bool ended = false;
  uint32_t exitCode = kStillActive;
};

struct MutexState {
  Thread* owner = nullptr;
  uint32_t failures = 0;
};

std::map<const void*, MutexState> gMutexes;
size_t gMutexesOwned = 0;
CrashHooks gHooks;
bool gAborted = false;
bool (*gConsoleHandler)(uint32_t) = nullptr;

void OnProcessEnd() {
  for (auto& [address, mutex] : gMutexes) mutex.owner = nullptr;
  gMutexesOwned = 0;
  gConsoleHandler = nullptr;
}

void Boot() {
  gMutexes.clear();
  gMutexesOwned = 0;
  ForgetCrashHooks();
}

const Device kDevice("threads", &Boot, &OnProcessEnd);

[[noreturn]] void ThrowLockFailure() {
  throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
}

bool TakeLockFailure(const platform::Mutex& mutex) {
  Guard guard;
  const auto found = gMutexes.find(&mutex);
  if (found == gMutexes.end() || found->second.failures == 0) return false;
  if (found->second.failures != UINT32_MAX) --found->second.failures;
  return true;
}

void LockFreely(std::mutex& native) {
  if (native.try_lock()) return;
  Thread& self = *CurrentThread();
  EnterForeignLock(self);
  native.lock();
  LeaveForeignLock(self);
}

// The thread's process may have ended while it waited for its turn.
bool UnwindIfCondemned(const Thread& self) {
  if (self.condemned && std::uncaught_exceptions() == 0) throw sim::ProcessEnded{};
  return self.condemned;
}

void LockByBaton(const platform::Mutex& mutex) {
  if (Inspecting()) return;
  Thread& self = *CurrentThread();
  SchedulingPoint(self);
  if (UnwindIfCondemned(self)) return;
  MutexState& state = gMutexes[&mutex];
  if (state.owner == &self) Deadlock("thread '" + self.name + "' locks a mutex that it holds");
  if (state.owner) {
    const std::string_view outer = std::exchange(self.operation, "Mutex::lock");
    Block(
        self, [&state] { return state.owner == nullptr; }, kForever);
    self.operation = outer;
    if (UnwindIfCondemned(self)) return;
  }
  state.owner = &self;
  ++gMutexesOwned;
}

void UnlockByBaton(const platform::Mutex& mutex) {
  if (Inspecting()) return;
  Thread& self = *CurrentThread();
  MutexState& state = gMutexes[&mutex];
  if (state.owner == &self) {
    state.owner = nullptr;
    --gMutexesOwned;
  } else if (!self.condemned) {
    ReportFailure("thread '" + self.name + "' unlocks a mutex that it does not hold");
  }
  SchedulingPoint(self);
}

// Without a machine, and on threads that it does not know, a mutex is just the native one.
bool KnownThread() {
  return MachineRuns() && CurrentThread();
}

}  // namespace

// ---- Controls ----

void FailLock(const platform::Mutex& mutex, uint32_t times) {
  Guard guard;
  gMutexes[&mutex].failures = times;
}

size_t LocksHeld() {
  Guard guard;
  if (gMutexesOwned == 0) return 0;
  const Thread* self = CurrentThread();
  return static_cast<size_t>(std::count_if(gMutexes.begin(), gMutexes.end(),
                                           [self](const auto& entry) { return entry.second.owner == self; }));
}

bool ProcessAborted() {
  return gAborted;
}
const CrashHooks& InstalledCrashHooks() {
  return gHooks;
}

void ForgetCrashHooks() {
  gHooks = CrashHooks{};
  gConsoleHandler = nullptr;
  gAborted = false;
}

void RunAtExitHooks() {
  // A hook may install further ones.
  while (!gHooks.atExit.empty()) {
    void (*hook)() = gHooks.atExit.back();
    gHooks.atExit.pop_back();
    hook();
  }
}

void UncaughtException(Thread& self) {
  if (self.owner == Thread::Owner::kClient) {
    ReportFailure("an exception left the client thread '" + self.name + "'");
    return;
  }
  try {
    if (gHooks.terminate) gHooks.terminate();
    platform::Abort();
  } catch (const sim::ProcessEnded&) {
    return;
  }
}

bool SendConsoleEvent(uint32_t type) {
  constexpr uint32_t kLastEventThatEnds = 2;
  if (!gConsoleHandler) return false;
  auto done = std::make_shared<bool>(false);
  StartThread("console event", [type, done] {
    const bool handled = gConsoleHandler(type);
    {
      Guard guard;
      *done = true;
    }
    if (!handled && type <= kLastEventThatEnds) EndProcess(ProcessEnd::kKilled);
  });
  WaitUntil(
      "SendConsoleEvent", [done] { return *done || !ThreadsRun(Thread::Owner::kProduct); }, kForever);
  return true;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

uint32_t GetLastError() {
  return sim::LastError();
}

// ---- Threads ----

Handle CreateThread(ThreadStart start, void* argument) {
  Call call("CreateThread", Args("argument", argument));
  if (call.Faulted()) return nullptr;
  auto object = std::make_shared<sim::ThreadObject>();
  sim::AddThread("CreateThread", sim::Thread::Owner::kProduct, [object, start, argument] {
    uint32_t exitCode = 0;
    try {
      exitCode = start(argument);
    } catch (const sim::ProcessEnded&) {
      // Any other exception goes to the terminate handler, which runs on this thread: it has not ended then.
      sim::Guard guard;
      object->ended = true;
      throw;
    }
    sim::Guard guard;
    object->exitCode = exitCode;
    object->ended = true;
  });
  Handle handle = sim::OpenHandle(object);
  call.SetResult(Args("handle", handle));
  return handle;
}

bool GetExitCodeThread(Handle thread, uint32_t& exitCode) {
  Call call("GetExitCodeThread", Args("thread", thread));
  if (call.Faulted()) return false;
  const auto object = sim::Use<sim::ThreadObject>("GetExitCodeThread", thread);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  exitCode = object->exitCode;
  call.SetResult(Args("exitCode", exitCode));
  return true;
}

// ---- Events and waits ----
// Waits and SetEvent on a closed event are ordinary failures: the service host closes its stop event while
// others may be about to look at it, by design.

Handle CreateEventW(bool manualReset, bool initiallySet) {
  Call call("CreateEventW", Args("manualReset", manualReset, "initiallySet", initiallySet));
  if (call.Faulted()) return nullptr;
  Handle handle = sim::OpenHandle(std::make_shared<sim::Event>(manualReset, initiallySet));
  call.SetResult(Args("handle", handle));
  return handle;
}

bool SetEvent(Handle event) {
  Call call("SetEvent", Args("event", event));
  if (call.Faulted()) return false;
  const auto object = sim::Find<sim::Event>(event);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  object->isSet = true;
  return true;
}

namespace {

uint32_t WaitFailed(Call& call, uint32_t code) {
  call.Fail(code);
  return kWaitFailed;
}

uint32_t WaitForObjects(Call& call, const std::vector<std::shared_ptr<sim::Object>>& objects, bool waitForAll,
                        uint32_t milliseconds) {
  const auto ready = [&objects, waitForAll] {
    size_t signaled = 0;
    for (const auto& object : objects) signaled += object->Signaled();
    return waitForAll ? signaled == objects.size() : signaled > 0;
  };
  if (!call.WaitFor(ready, milliseconds)) {
    call.SetResult("timeout");
    return kWaitTimeout;
  }
  uint32_t index = 0;
  for (const auto& object : objects) {
    if (object->Signaled()) {
      object->Consumed();
      if (!waitForAll) break;
    }
    ++index;
  }
  const uint32_t first = waitForAll ? 0 : index;
  call.SetResult(Args("object", first));
  return kWaitObject0 + first;
}

uint32_t WaitForHandles(Call& call, uint32_t count, const Handle* handles, bool waitForAll,
                        uint32_t milliseconds) {
  if (call.Faulted()) return kWaitFailed;
  if (count == 0 || count > sim::kMaximumWaitObjects) return WaitFailed(call, sim::kErrorInvalidParameter);
  std::vector<std::shared_ptr<sim::Object>> objects;
  for (uint32_t index = 0; index < count; ++index) {
    objects.push_back(sim::FindObject(handles[index]));
    if (!objects.back()) return WaitFailed(call, sim::kErrorInvalidHandle);
  }
  return WaitForObjects(call, objects, waitForAll, milliseconds);
}

}  // namespace

uint32_t WaitForSingleObject(Handle handle, uint32_t milliseconds) {
  Call call("WaitForSingleObject", Args("handle", handle, "milliseconds", milliseconds));
  return WaitForHandles(call, 1, &handle, false, milliseconds);
}

uint32_t WaitForMultipleObjects(uint32_t count, const Handle* handles, bool waitForAll,
                                uint32_t milliseconds) {
  std::string arguments = Args("count", count);
  for (uint32_t index = 0; index < count; ++index) arguments += ' ' + Args("handle", handles[index]);
  Call call("WaitForMultipleObjects",
            arguments + ' ' + Args("waitForAll", waitForAll, "milliseconds", milliseconds));
  return WaitForHandles(call, count, handles, waitForAll, milliseconds);
}

bool CloseHandle(Handle handle) {
  // Handles of other families have closing operations of their own.
  Call call("CloseHandle", Args("handle", handle), Call::Kind::kReleasing);
  if (call.Faulted()) return false;
  static constexpr const char* kKinds[] = {"file",       "event",   "thread",        "pipe",
                                           "named pipe", "process", "process thread"};
  const auto object = sim::FindObject(handle);
  const bool fits =
      object && std::find(std::begin(kKinds), std::end(kKinds), object->kind) != std::end(kKinds);
  if (!fits) {
    sim::ReportMisuse("CloseHandle", handle);
    return call.Fail(sim::kErrorInvalidHandle);
  }
  return sim::CloseObject(handle);
}

void Sleep(uint32_t milliseconds) {
  Call call("Sleep", Args("milliseconds", milliseconds));
  call.WaitFor([] { return false; }, milliseconds);
}

// ---- Clocks ----

uint64_t GetTickCount64() {
  Call call("GetTickCount64", "");
  const uint64_t ticks = sim::Now();
  call.SetResult(std::to_string(ticks));
  return ticks;
}

int64_t Time64() {
  Call call("_time64", "");
  const int64_t seconds = sim::UnixTime();
  call.SetResult(std::to_string(seconds));
  return seconds;
}

namespace {

constexpr int64_t kSecondsPerDay = 86400;

struct Date {
  int64_t year;
  int64_t month;  // from 1
  int64_t day;    // from 1
};

int64_t FloorDivide(int64_t value, int64_t divisor) {
  return value / divisor - (value % divisor < 0 ? 1 : 0);
}

// Of the proleptic Gregorian calendar, in eras of 400 years that begin on the first of March.
int64_t DaysSince1970(Date date) {
  const int64_t year = date.month <= 2 ? date.year - 1 : date.year;
  const int64_t era = FloorDivide(year, 400);
  const int64_t yearOfEra = year - era * 400;
  const int64_t dayOfYear = (153 * ((date.month + 9) % 12) + 2) / 5 + date.day - 1;
  const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

Date DateOfDay(int64_t daysSince1970) {
  const int64_t days = daysSince1970 + 719468;
  const int64_t era = FloorDivide(days, 146097);
  const int64_t dayOfEra = days - era * 146097;
  const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
  const int64_t month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
  return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, dayOfYear - (153 * shiftedMonth + 2) / 5 + 1};
}

}  // namespace

SystemTime GetLocalTime() {
  Call call("GetLocalTime", "");
  const int64_t seconds = sim::UnixTime();
  const int64_t day = FloorDivide(seconds, kSecondsPerDay);
  const auto secondOfDay = static_cast<uint32_t>(seconds - day * kSecondsPerDay);
  const Date date = DateOfDay(day);
  call.SetResult(std::to_string(seconds));
  return {static_cast<uint16_t>(date.year),
          static_cast<uint16_t>(date.month),
          static_cast<uint16_t>(date.day),
          static_cast<uint16_t>(secondOfDay / 3600),
          static_cast<uint16_t>(secondOfDay / 60 % 60),
          static_cast<uint16_t>(secondOfDay % 60)};
}

int64_t MkGmTime64(const BrokenDownTime& time) {
  Call call("_mkgmtime64", Args("year", time.year, "month", time.month, "day", time.day, "hour", time.hour,
                                "minute", time.minute, "second", time.second));
  constexpr int64_t kLastYear = 3000;
  const int64_t months = int64_t{time.year} * 12 + time.month;
  const int64_t year = 1900 + FloorDivide(months, 12);
  const int64_t days = DaysSince1970({year, months - FloorDivide(months, 12) * 12 + 1, 1}) + time.day - 1;
  const int64_t seconds =
      days * kSecondsPerDay + int64_t{time.hour} * 3600 + int64_t{time.minute} * 60 + time.second;
  const int64_t result = call.Faulted() || seconds < 0 || year > kLastYear ? -1 : seconds;
  call.SetResult(std::to_string(result));
  return result;
}

// ---- Mutexes ----

void Mutex::lock() {
  if (!sim::KnownThread()) {
    native_.lock();
    return;
  }
  if (!sim::Inspecting() && sim::TakeLockFailure(*this)) sim::ThrowLockFailure();
  if (sim::gFreeRunning) {
    sim::LockFreely(native_);
  } else {
    sim::LockByBaton(*this);
  }
}

void Mutex::unlock() {
  if (!sim::KnownThread() || sim::gFreeRunning) {
    native_.unlock();
  } else {
    sim::UnlockByBaton(*this);
  }
}

// ---- Crash hooks and the end of the process ----

void SetUnhandledExceptionFilter(int32_t (*filter)()) {
  Call call("SetUnhandledExceptionFilter", "");
  sim::gHooks.unhandledExceptionFilter = filter;
}

void SetTerminate(void (*handler)()) {
  Call call("set_terminate", "");
  sim::gHooks.terminate = handler;
}

void AtExit(void (*handler)()) {
  Call call("atexit", "");
  sim::gHooks.atExit.push_back(handler);
}

void Abort() {
  {
    Call call("abort", "", Call::Kind::kReleasing);
    sim::gAborted = true;
  }
  sim::EndProcess(sim::ProcessEnd::kKilled);
  throw sim::ProcessEnded{};
}

bool SetConsoleCtrlHandler(bool (*handler)(uint32_t type)) {
  Call call("SetConsoleCtrlHandler", "");
  if (call.Faulted()) return false;
  sim::gConsoleHandler = handler;
  return true;
}

}  // namespace platform
