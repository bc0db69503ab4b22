// What the kernel offers to the devices: the platform call, waits, timers, and objects behind handles.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "kernel.h"
#include "trace_text.h"

namespace sim {

inline constexpr uint32_t kErrorInvalidHandle = 6;
inline constexpr uint32_t kErrorOperationAborted = 995;

extern bool gFreeRunning;  // the booted machine has no baton

// Holds the machine's lock in free-running mode; a function that touches a device's state outside a Call has
// one. With the baton it does nothing.
class Guard {
 public:
  Guard() {
    if (gFreeRunning) Lock();
  }
  ~Guard() {
    if (gFreeRunning) Unlock();
  }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  static void Lock();
  static void Unlock();
};

// One platform call. Constructing it is a scheduling point (the baton may change hands; a thread of an ended
// process unwinds here), takes the machine's lock in free-running mode for its lifetime, applies a matching
// fault and begins the trace entry. Operations that give something back stand in destructors, which must not
// throw: a call of kind kReleasing does not unwind a thread of an ended process but leaves that to the
// thread's next ordinary call. The operation's name is a literal: the trace keeps no copy of it.
class Call {
 public:
  enum class Kind { kOrdinary, kReleasing };
  Call(std::string_view operation, std::string arguments, Kind kind = Kind::kOrdinary);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  // The call is to fail without doing anything; the last error is set to the code already. So too for the
  // calls of an ended process. An operation that does not ask cannot fail.
  bool Faulted();
  uint32_t FaultCode() const { return *fault_; }
  // The process has ended, nothing may be done. For operations that cannot fail.
  bool Dead() const { return dead_; }
  void SetResult(std::string result);  // for the trace; "ok" if never set
  bool Fail(uint32_t code);            // sets the last error, traces it, returns false
  uint32_t Shortened(uint32_t size);   // what Shorten leaves of a size to be read or written
  uint32_t Status(uint32_t code);  // traces the code and returns it, for operations that return their status
  // Gives up the baton until `ready` holds or `milliseconds` (kInfinite: never) are over; says whether it
  // holds.
  bool WaitFor(const std::function<bool()>& ready, uint32_t milliseconds);

 private:
  void Enter();
  void Die();
  void Return();
  void BeginTrace();
  void ApplyFaults();

  std::string_view operation_;  // a literal
  std::string arguments_;
  std::string result_ = "ok";
  std::optional<uint32_t> fault_;
  std::optional<Guard> lock_;
  bool inert_ = false;    // no machine, or within a condition of RunUntil
  bool dead_ = false;     // of an ended process
  bool entered_ = false;  // traced, and shown by the thread
  bool canFail_ = false;
  uint64_t begun_ = 0;        // virtual milliseconds
  uint64_t traceNumber_ = 0;  // 0: not in the trace
  std::string_view outerOperation_;
  const std::string* outerArguments_ = nullptr;
};

uint32_t LastError();
void SetLastError(uint32_t code);

inline constexpr uint64_t kForever = UINT64_MAX;
// Lets the calling simulated thread wait outside a platform call, as Call::WaitFor does; `what` is for
// listings.
bool WaitUntil(std::string_view what, const std::function<bool()>& ready, uint64_t milliseconds);
// Runs `action` when so much virtual time has passed; it must not wait.
void After(uint64_t milliseconds, std::function<void()> action);
// Random bits for the devices, from the seed but apart from the schedule's.
uint64_t DrawDeviceRandom();
void ReportFailure(const std::string& text);

// ---- The product's process ----
enum class ProcessEnd { kKilled, kExited };
// Ends the process; on a product thread it throws ProcessEnded. wmain's return counts what is left open.
void EndProcess(ProcessEnd end);
void RunAtExitHooks();    // in reverse order, on the calling thread
void ForgetCrashHooks();  // a new process begins

// ---- Objects behind handles ----
// Devices derive their own; `Signaled` is what waits look at.
struct Object {
  explicit Object(std::string kindName) : kind(std::move(kindName)) {}
  virtual ~Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual bool Signaled() const { return false; }
  virtual void Consumed() {}  // a wait was satisfied by it (auto-reset events)
  virtual void Closed() {}    // its handle is closed, or the process ended
  std::string kind;
};
platform::Handle OpenHandle(std::shared_ptr<Object> object);
std::shared_ptr<Object> FindObject(platform::Handle handle);  // null for a handle that is not open
bool CloseObject(platform::Handle handle);                    // false for a handle that is not open
void ForEachOpenObject(const std::function<void(Object&)>& visit);

// A handle that was closed already or is of another kind is reported as a failure of the test; the null and
// the invalid handle are not, to pass one on is an ordinary failure.
void ReportMisuse(std::string_view operation, platform::Handle handle);

template <class T>
std::shared_ptr<T> Find(platform::Handle handle) {
  std::shared_ptr<Object> object = FindObject(handle);
  // Mostly it is just of that type, which is seen sooner than that it is of one derived from it.
  const Object* there = object.get();
  if (there && typeid(*there) == typeid(T)) return std::static_pointer_cast<T>(std::move(object));
  return std::dynamic_pointer_cast<T>(std::move(object));
}

// As Find, with ReportMisuse.
template <class T>
std::shared_ptr<T> Use(std::string_view operation, platform::Handle handle) {
  std::shared_ptr<T> object = Find<T>(handle);
  if (!object) ReportMisuse(operation, handle);
  return object;
}

// A whole platform call that closes a handle to a T.
template <class T>
bool CloseAs(std::string_view operation, platform::Handle handle) {
  Call call(operation, Args("handle", handle), Call::Kind::kReleasing);
  if (call.Faulted()) return false;
  if (!Use<T>(operation, handle)) return call.Fail(kErrorInvalidHandle);
  return CloseObject(handle);
}

// `boot` is called by Machine's constructor; `processEnded` when the process has ended, before its handles
// are closed. Devices register themselves by a variable of this type.
struct Device {
  Device(const char* name, void (*boot)(), void (*processEnded)() = nullptr);
};

}  // namespace sim
