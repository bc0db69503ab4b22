#include "kernel.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <utility>

#include "device.h"
#include "scheduler.h"

namespace sim {
namespace {

constexpr int64_t kBootUnixTime = 1767225600;  // 2026-01-01 00:00:00 UTC
constexpr uintptr_t kFirstHandle = 0x100;
constexpr uintptr_t kHandleStep = 4;

struct Action {
  std::string operation;
  std::string argumentsContain;
  std::function<void()> run;
  uint64_t callNumber = 0;  // 0: before the first fitting operation
};

struct Shortening {
  std::string operation;
  std::string argumentsContain;
  uint32_t bytes;
};

struct HandleEntry {
  uintptr_t value = 0;
  std::shared_ptr<Object> object;
  // Where it was made, for the listing of leaks.
  std::string_view operation;
  std::string threadName;  // empty: a thread that the machine does not know
  uint32_t thread = 0;
  uint64_t time = 0;
};

struct Kernel {
  std::vector<Fault> faults;
  std::vector<Action> actions;
  uint64_t calls = 0;
  std::vector<Shortening> shortenings;
  std::vector<TraceEntry> trace;
  uint64_t firstInTrace = 1;  // the number of trace.front()
  bool keepsTrace = true;
  TraceEntry returned;               // what the watch is shown; kept for the room that its texts have
  std::vector<HandleEntry> handles;  // by value, which grows
  uintptr_t nextHandle = kFirstHandle;
  size_t expectedOpenHandles = 0;
  std::vector<std::string> leaks;
  bool ending = false;  // the process is ending: its threads unwind
  size_t faultsApplied = 0;
};

struct DeviceHooks {
  void (*boot)();
  void (*processEnded)();
};

Kernel gKernel;
int64_t gUnixTimeAtZero = 0;  // the clock, were Now() 0, in milliseconds

std::map<std::string, DeviceHooks>& Devices() {
  static std::map<std::string, DeviceHooks> gDevices;
  return gDevices;
}

void PrintAndAbort(const std::string& text) {
  std::cerr << text << std::endl;
  std::abort();
}

void (*gReportFailure)(const std::string&) = &PrintAndAbort;

uintptr_t ValueOf(platform::Handle handle) {
  return reinterpret_cast<uintptr_t>(handle);
}

std::string OriginOf(const HandleEntry& entry) {
  if (entry.threadName.empty()) return "the driver";
  return std::string(entry.operation) + " on thread " + std::to_string(entry.thread) + " '" +
         entry.threadName + "' at " + std::to_string(entry.time);
}

void NoteLeak(const HandleEntry& entry) {
  std::string text = entry.object->kind + ' ';
  AppendValue(text, Hex{entry.value});
  gKernel.leaks.push_back(text + " from " + OriginOf(entry));
}

// Its place in the table; the end if it is not open.
std::vector<HandleEntry>::iterator FindHandle(platform::Handle handle) {
  auto& handles = gKernel.handles;
  const uintptr_t value = ValueOf(handle);
  const auto place =
      std::lower_bound(handles.begin(), handles.end(), value,
                       [](const HandleEntry& entry, uintptr_t other) { return entry.value < other; });
  return place != handles.end() && place->value == value ? place : handles.end();
}

// wmain has returned: what its other threads have open is theirs, not forgotten.
void NoteLeaksOfEndedThreads(const Thread& main) {
  for (const HandleEntry& entry : gKernel.handles) {
    if (entry.thread == main.id || !ThreadRuns(entry.thread)) NoteLeak(entry);
  }
}

void CloseAllHandles() {
  const auto handles = std::exchange(gKernel.handles, {});
  for (const HandleEntry& entry : handles) entry.object->Closed();
}

void FinishProcess() {
  for (const auto& [name, hooks] : Devices()) {
    if (hooks.processEnded) hooks.processEnded();
  }
  CloseAllHandles();
  ResetProcessVariables();
  gKernel.ending = false;
}

void ReportLeaks() {
  if (gKernel.leaks.size() <= gKernel.expectedOpenHandles) return;
  std::string text = std::to_string(gKernel.leaks.size()) + " handles left open, " +
                     std::to_string(gKernel.expectedOpenHandles) + " expected:";
  for (const std::string& leak : gKernel.leaks) text += "\n  " + leak;
  ReportFailure(text);
}

bool Matches(const std::string& operation, const std::string& part, std::string_view called,
             const std::string& arguments) {
  return operation == called && (part.empty() || arguments.find(part) != std::string::npos);
}

bool Fits(const Action& action, std::string_view operation, const std::string& arguments) {
  if (action.callNumber != 0) return action.callNumber == gKernel.calls;
  return Matches(action.operation, action.argumentsContain, operation, arguments);
}

// Counts the call, and takes the first action that fits it out of the list.
std::function<void()> TakeAction(std::string_view operation, const std::string& arguments) {
  Guard guard;
  ++gKernel.calls;
  auto& actions = gKernel.actions;
  for (auto place = actions.begin(); place != actions.end(); ++place) {
    if (!Fits(*place, operation, arguments)) continue;
    std::function<void()> run = std::move(place->run);
    actions.erase(place);
    return run;
  }
  return nullptr;
}

TraceEntry* FindTrace(uint64_t number) {
  if (number < gKernel.firstInTrace) return nullptr;
  return &gKernel.trace[number - gKernel.firstInTrace];
}

uint32_t& LastErrorPlace() {
  thread_local uint32_t tOutside = 0;
  Thread* thread = CurrentThread();
  return thread && !Inspecting() ? thread->lastError : tOutside;
}

}  // namespace

// ---- The machine ----

Machine::Machine(const Options& options) {
  gKernel = Kernel{};
  gKernel.keepsTrace = options.keepsTrace;
  BootScheduler(options);
  SetUnixTime(kBootUnixTime);
  for (const auto& [name, hooks] : Devices()) hooks.boot();
  ResetProcessVariables();
}

// Only on a product thread do the calls in it throw.
Machine::~Machine() {  // NOLINT(bugprone-exception-escape)
  {
    Guard guard;
    if (!ThreadsRun(Thread::Owner::kProduct)) {
      for (const HandleEntry& entry : gKernel.handles) NoteLeak(entry);
    }
  }
  KillProcess();
  {
    Guard guard;
    CondemnThreads(true);
  }
  WaitUntil(
      "Machine::~Machine", [] { return !ThreadsRun(Thread::Owner::kClient); }, kForever);
  ShutDownScheduler();
  ReportLeaks();
}

Device::Device(const char* name, void (*boot)(), void (*processEnded)()) {
  Devices().emplace(name, DeviceHooks{boot, processEnded});
}

void SetFailureReporter(void (*reporter)(const std::string& text)) {
  gReportFailure = reporter;
}
void ReportFailure(const std::string& text) {
  gReportFailure(text);
}

int64_t UnixTime() {
  const int64_t milliseconds = gUnixTimeAtZero + static_cast<int64_t>(Now());
  return milliseconds >= 0 ? milliseconds / 1000 : -((999 - milliseconds) / 1000);
}

void SetUnixTime(int64_t seconds) {
  Guard guard;
  gUnixTimeAtZero = seconds * 1000 - static_cast<int64_t>(Now());
}

void StartThread(const std::string& name, std::function<void()> start) {
  AddThread(name, Thread::Owner::kProduct, std::move(start));
}

void StartClientThread(const std::string& name, std::function<void()> start) {
  AddThread(name, Thread::Owner::kClient, std::move(start));
}

bool WaitUntil(std::string_view what, const std::function<bool()>& ready, uint64_t milliseconds) {
  Thread* self = CurrentThread();
  Guard guard;
  if (Inspecting() && !ready())
    ReportFailure(std::string("a condition or timer must not wait: ").append(what));
  if (!self || Inspecting() || ready()) return ready();
  const std::string_view outer = std::exchange(self->operation, what);
  const bool held = Block(*self, ready, milliseconds);
  self->operation = outer;
  if (self->condemned && std::uncaught_exceptions() == 0) throw ProcessEnded{};
  return held;
}

// ---- The end of the process ----

void EndProcess(ProcessEnd end) {
  if (Inspecting()) Deadlock("the process cannot be ended by a condition or a timer");
  Thread& self = *CurrentThread();
  Guard guard;
  if (!gKernel.ending) {
    gKernel.ending = true;
    if (end == ProcessEnd::kExited) NoteLeaksOfEndedThreads(self);
    CondemnThreads(false);
  }
  if (self.owner == Thread::Owner::kProduct) throw ProcessEnded{};
  if (ThreadsRun(Thread::Owner::kProduct)) {
    Block(
        self, [] { return !gKernel.ending; }, kForever);
  } else {
    FinishProcess();
  }
}

void KillProcess() {
  EndProcess(ProcessEnd::kKilled);
}

void ThreadEnded(Thread&) {
  if (gKernel.ending && !ThreadsRun(Thread::Owner::kProduct)) FinishProcess();
}

// ---- Faults ----

void Fail(const Fault& fault) {
  Guard guard;
  gKernel.faults.push_back(fault);
}

void Shorten(const std::string& operation, uint32_t bytes, const std::string& argumentsContain) {
  Guard guard;
  gKernel.shortenings.push_back({operation, argumentsContain, bytes});
}

void ClearFaults() {
  Guard guard;
  gKernel.faults.clear();
  gKernel.shortenings.clear();
}

void BeforeCall(uint64_t number, std::function<void()> action) {
  Guard guard;
  gKernel.actions.push_back({"", "", std::move(action), gKernel.calls + number});
}

void Before(const std::string& operation, std::function<void()> action, const std::string& argumentsContain) {
  Guard guard;
  gKernel.actions.push_back({operation, argumentsContain, std::move(action), 0});
}

// ---- Trace ----

const std::vector<TraceEntry>& Trace() {
  return gKernel.trace;
}

size_t CountCalls(const std::string& operation, const std::string& argumentsContain) {
  Guard guard;
  size_t count = 0;
  for (const TraceEntry& entry : gKernel.trace) {
    if (Matches(operation, argumentsContain, entry.operation, entry.arguments)) ++count;
  }
  return count;
}

void ClearTrace() {
  Guard guard;
  gKernel.firstInTrace += gKernel.trace.size();
  gKernel.trace.clear();
}

std::string TraceText() {
  Guard guard;
  std::string text;
  for (const TraceEntry& entry : gKernel.trace) {
    text += std::to_string(entry.time) + ' ' + std::to_string(entry.thread) + ' ';
    text.append(entry.operation).append(" ").append(entry.arguments) += " -> " + entry.result + '\n';
  }
  return text;
}

size_t FaultsApplied() {
  Guard guard;
  return gKernel.faultsApplied;
}

// ---- Handles ----

platform::Handle OpenHandle(std::shared_ptr<Object> object) {
  Guard guard;
  const uintptr_t value = gKernel.nextHandle;
  gKernel.nextHandle += kHandleStep;
  HandleEntry entry;
  entry.value = value;
  entry.object = std::move(object);
  if (const Thread* thread = CurrentThread()) {
    entry.operation = thread->operation;
    entry.threadName = thread->name;
    entry.thread = thread->id;
    entry.time = Now();
  }
  gKernel.handles.push_back(std::move(entry));
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a number, no address
  return reinterpret_cast<platform::Handle>(value);
}

std::shared_ptr<Object> FindObject(platform::Handle handle) {
  Guard guard;
  const auto found = FindHandle(handle);
  return found == gKernel.handles.end() ? nullptr : found->object;
}

bool CloseObject(platform::Handle handle) {
  Guard guard;
  const auto found = FindHandle(handle);
  if (found == gKernel.handles.end()) return false;
  const std::shared_ptr<Object> object = std::move(found->object);
  gKernel.handles.erase(found);
  object->Closed();
  return true;
}

void ForEachOpenObject(const std::function<void(Object&)>& visit) {
  Guard guard;
  for (const HandleEntry& entry : gKernel.handles) visit(*entry.object);
}

void ReportMisuse(std::string_view operation, platform::Handle handle) {
  if (!handle || handle == platform::InvalidHandle()) return;
  const std::shared_ptr<Object> object = FindObject(handle);
  std::string text = std::string(operation) + " on handle ";
  AppendValue(text, handle);
  if (object) {
    text += ", which is a " + object->kind;
  } else if (ValueOf(handle) < gKernel.nextHandle) {
    text += ", which is closed";
  } else {
    text += ", which never was one";
  }
  ReportFailure(text);
}

size_t OpenHandles(const std::string& kind) {
  Guard guard;
  if (kind.empty()) return gKernel.handles.size();
  size_t count = 0;
  for (const HandleEntry& entry : gKernel.handles) {
    if (entry.object->kind == kind) ++count;
  }
  return count;
}

void ExpectOpenHandles(size_t count) {
  gKernel.expectedOpenHandles = count;
}

uint32_t LastError() {
  return LastErrorPlace();
}
void SetLastError(uint32_t code) {
  LastErrorPlace() = code;
}

// ---- The platform call ----

Call::Call(std::string_view operation, std::string arguments, Kind kind)
    : operation_(operation), arguments_(std::move(arguments)) {
  inert_ = !CurrentThread() || !MachineRuns() || Inspecting();
  if (inert_) {
    lock_.emplace();
    return;
  }
  try {
    Enter();
  } catch (const ProcessEnded&) {
    if (kind == Kind::kOrdinary && std::uncaught_exceptions() == 0) throw;
    Die();
  }
}

void Call::Enter() {
  Thread& self = *CurrentThread();
  SchedulingPoint(self);
  if (const auto action = TakeAction(operation_, arguments_)) action();
  lock_.emplace();
  if (self.condemned) throw ProcessEnded{};
  outerOperation_ = std::exchange(self.operation, operation_);
  outerArguments_ = std::exchange(self.arguments, &arguments_);
  entered_ = true;
  BeginTrace();
  ApplyFaults();
}

void Call::Die() {
  dead_ = true;
  fault_ = kErrorOperationAborted;
  SetLastError(kErrorOperationAborted);
}

void Call::BeginTrace() {
  begun_ = Now();
  if (!gKernel.keepsTrace) return;
  gKernel.trace.push_back({begun_, CurrentThread()->id, operation_, arguments_, "", false});
  traceNumber_ = gKernel.firstInTrace + gKernel.trace.size() - 1;
}

void Call::ApplyFaults() {
  for (Fault& fault : gKernel.faults) {
    if (!Matches(fault.operation, fault.argumentsContain, operation_, arguments_)) continue;
    if (fault.skip > 0) {
      --fault.skip;
      continue;
    }
    if (fault.times == 0) continue;
    if (fault.times != UINT32_MAX) --fault.times;
    fault_ = fault.code;
    return;
  }
}

Call::~Call() {
  if (!entered_) return;
  Thread& self = *CurrentThread();
  self.operation = outerOperation_;
  self.arguments = outerArguments_;
  Return();
}

// The watch sees also a call from before the trace was cleared.
void Call::Return() {
  if (TraceEntry* entry = FindTrace(traceNumber_)) {
    entry->result = result_;
  }
  if (dead_ || gFreeRunning) return;
  TraceEntry& entry = gKernel.returned;
  entry.time = begun_;
  entry.thread = CurrentThread()->id;
  entry.operation = operation_;
  entry.arguments = std::move(arguments_);
  entry.result = std::move(result_);
  entry.canFail = canFail_;
  WatchReturned(entry);
}

bool Call::Faulted() {
  canFail_ = true;
  if (TraceEntry* entry = entered_ ? FindTrace(traceNumber_) : nullptr) entry->canFail = true;
  if (!fault_) return false;
  if (!dead_) ++gKernel.faultsApplied;
  Fail(*fault_);
  return true;
}

void Call::SetResult(std::string result) {
  result_ = std::move(result);
}

bool Call::Fail(uint32_t code) {
  SetLastError(code);
  result_ = "failed " + std::to_string(code);
  return false;
}

uint32_t Call::Shortened(uint32_t size) {
  auto& shortenings = gKernel.shortenings;
  for (auto place = shortenings.begin(); place != shortenings.end(); ++place) {
    if (!Matches(place->operation, place->argumentsContain, operation_, arguments_)) continue;
    size = std::min(size, place->bytes);
    ++gKernel.faultsApplied;
    shortenings.erase(place);
    return size;
  }
  return size;
}

uint32_t Call::Status(uint32_t code) {
  result_ = code == 0 ? "ok" : "failed " + std::to_string(code);
  return code;
}

bool Call::WaitFor(const std::function<bool()>& ready, uint32_t milliseconds) {
  if (dead_) return false;
  if (ready()) return true;
  if (inert_ || milliseconds == 0) return false;
  Thread& self = *CurrentThread();
  const bool held = Block(self, ready, milliseconds == platform::kInfinite ? kForever : milliseconds);
  if (!self.condemned) return held;
  Die();
  result_ = "the process ended";
  if (std::uncaught_exceptions() == 0) throw ProcessEnded{};
  return false;
}

}  // namespace sim
