// Processes and the anonymous pipes of their output.
#include "processes.h"

#include <algorithm>
#include <memory>
#include <optional>

#include "byte_channel.h"
#include "device.h"
#include "stream.h"
#include "wireguard/platform.h"

namespace sim {
namespace {

constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorBrokenPipe = 109;
constexpr uint32_t kErrorNoData = 232;
constexpr uint32_t kStillActive = 259;
constexpr size_t kPipeSize = 4096;

// An end is open as long as somebody, the process or a child that inherited it, holds its token.
using Token = std::shared_ptr<char>;

struct Pipe {
  ByteChannel channel{"", kPipeSize};
  std::weak_ptr<char> readers;
  std::weak_ptr<char> writers;
};
using PipePointer = std::shared_ptr<Pipe>;

struct PipeEnd : Stream {
  PipeEnd(PipePointer ofPipe, Token holding)
      : Stream("pipe"), pipe(std::move(ofPipe)), token(std::move(holding)) {}
  void Closed() override;
  PipePointer pipe;
  Token token;
  bool inheritable = true;
};

struct ReadEnd : PipeEnd {
  using PipeEnd::PipeEnd;
  bool Read(Call& call, char* buffer, uint32_t size, uint32_t& read) override;
};

struct WriteEnd : PipeEnd {
  using PipeEnd::PipeEnd;
  bool Write(Call& call, const char* bytes, uint32_t size, uint32_t& written) override;
};

struct ProcessObject : Object {
  explicit ProcessObject(const char* kindName) : Object(kindName) {}
  bool Signaled() const override { return ended; }
  bool ended = false;
  uint32_t exitCode = kStillActive;
};

struct Child {
  ProcessResult result;
  bool writing = false;  // its time is over, it writes what it has to say
  PipePointer standardOutput;
  PipePointer standardError;
  std::vector<Token> inherited;
  std::shared_ptr<ProcessObject> process;
  std::shared_ptr<ProcessObject> thread;
};

std::vector<std::shared_ptr<Child>> gChildren;
std::vector<StartedProcess> gStarted;
ProcessHandler gHandler;

const Device kDevice("processes", [] {
  gChildren.clear();
  gStarted.clear();
  gHandler = nullptr;
});

// True once everything is written, or nobody reads.
bool Write(const PipePointer& pipe, std::string& bytes) {
  if (!pipe || pipe->readers.expired()) bytes.clear();
  if (!bytes.empty()) PutInto(pipe->channel, bytes);
  return bytes.empty();
}

// Standard output first and only then standard error, as a program that prints and then complains.
bool WroteAll(Child& child) {
  return Write(child.standardOutput, child.result.standardOutput) &&
         Write(child.standardError, child.result.standardError);
}

void EndChild(Child& child) {
  for (const auto& object : {child.process, child.thread}) {
    object->ended = true;
    object->exitCode = child.result.exitCode;
  }
  child.inherited.clear();
}

// Lets the children that wait for room in a pipe write on.
void AdvanceChildren() {
  std::erase_if(gChildren, [](const std::shared_ptr<Child>& child) {
    if (!child->writing || !WroteAll(*child)) return false;
    EndChild(*child);
    return true;
  });
}

void PipeEnd::Closed() {
  token.reset();
  AdvanceChildren();
}

bool ReadEnd::Read(Call& call, char* buffer, uint32_t size, uint32_t& read) {
  const PipePointer held = pipe;
  call.WaitFor([&held] { return !held->channel.bytes.empty() || held->writers.expired(); },
               platform::kInfinite);
  if (held->channel.bytes.empty()) return call.Fail(kErrorBrokenPipe);
  read = TakeFrom(held->channel, buffer, size);
  AdvanceChildren();
  return true;
}

bool WriteEnd::Write(Call& call, const char* bytes, uint32_t size, uint32_t& written) {
  const PipePointer held = pipe;
  std::string rest(bytes, size);
  while (!rest.empty()) {
    call.WaitFor([&held] { return held->channel.Room() > 0 || held->readers.expired(); },
                 platform::kInfinite);
    if (held->readers.expired()) return call.Fail(kErrorNoData);
    PutInto(held->channel, rest);
  }
  written = size;
  return true;
}

PipePointer PipeBehind(platform::Handle handle) {
  const auto end = Find<WriteEnd>(handle);
  return end ? end->pipe : nullptr;
}

void StartChild(ProcessResult result, const platform::StartupHandles& startup,
                const std::shared_ptr<Child>& child) {
  child->result = std::move(result);
  child->standardOutput = PipeBehind(startup.standardOutput);
  child->standardError = PipeBehind(startup.standardError);
  child->process = std::make_shared<ProcessObject>("process");
  child->thread = std::make_shared<ProcessObject>("process thread");
  ForEachOpenObject([&child](Object& object) {
    const auto* end = dynamic_cast<PipeEnd*>(&object);
    if (end && end->inheritable) child->inherited.push_back(end->token);
  });
  gChildren.push_back(child);
  if (child->result.hangs) return;
  After(child->result.milliseconds, [child] {
    if (child->result.onEnd) child->result.onEnd();
    child->writing = true;
    AdvanceChildren();
  });
}

}  // namespace

void SetProcessHandler(ProcessHandler handler) {
  Guard guard;
  gHandler = std::move(handler);
}

const std::vector<StartedProcess>& StartedProcesses() {
  return gStarted;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

bool CreatePipe(Handle& readEnd, Handle& writeEnd) {
  Call call("CreatePipe", "");
  if (call.Faulted()) return false;
  const auto pipe = std::make_shared<sim::Pipe>();
  const auto reader = std::make_shared<char>();
  const auto writer = std::make_shared<char>();
  pipe->readers = reader;
  pipe->writers = writer;
  readEnd = sim::OpenHandle(std::make_shared<sim::ReadEnd>(pipe, reader));
  writeEnd = sim::OpenHandle(std::make_shared<sim::WriteEnd>(pipe, writer));
  call.SetResult(Args("readEnd", readEnd, "writeEnd", writeEnd));
  return true;
}

bool SetHandleInformation(Handle handle, uint32_t mask, uint32_t flags) {
  Call call("SetHandleInformation", Args("handle", handle, "mask", mask, "flags", flags));
  if (call.Faulted()) return false;
  const auto object = sim::Use<sim::Object>("SetHandleInformation", handle);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  auto* end = dynamic_cast<sim::PipeEnd*>(object.get());
  if (end && (mask & kHandleFlagInherit)) end->inheritable = (flags & kHandleFlagInherit) != 0;
  return true;
}

bool CreateProcessW(const std::wstring& commandLine, uint32_t flags, const StartupHandles& startup,
                    ProcessHandles& handles) {
  Call call("CreateProcessW",
            Args("commandLine", commandLine, "flags", sim::Hex{flags}, "standardInput", startup.standardInput,
                 "standardOutput", startup.standardOutput, "standardError", startup.standardError));
  if (call.Faulted()) return false;
  // A copy: the handler may install another.
  const sim::ProcessHandler handler = sim::gHandler;
  sim::ProcessResult result = handler ? handler(commandLine) : sim::WireGuardProgram(commandLine);
  if (!result.starts) return call.Fail(sim::kErrorFileNotFound);
  sim::gStarted.push_back({commandLine, flags, sim::Now()});
  const auto child = std::make_shared<sim::Child>();
  sim::StartChild(std::move(result), startup, child);
  handles.process = sim::OpenHandle(child->process);
  handles.thread = sim::OpenHandle(child->thread);
  call.SetResult(Args("process", handles.process, "thread", handles.thread));
  return true;
}

bool GetExitCodeProcess(Handle process, uint32_t& exitCode) {
  Call call("GetExitCodeProcess", Args("process", process));
  if (call.Faulted()) return false;
  const auto object = sim::Use<sim::ProcessObject>("GetExitCodeProcess", process);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  exitCode = object->exitCode;
  call.SetResult(Args("exitCode", exitCode));
  return true;
}

}  // namespace platform
