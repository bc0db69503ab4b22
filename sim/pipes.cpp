// Named pipes: instances on the server's side, clients on the other.
#include "pipes.h"

#include <algorithm>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "byte_channel.h"
#include "case.h"
#include "device.h"
#include "stream.h"

namespace sim {
namespace {

constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorBrokenPipe = 109;
constexpr uint32_t kErrorInvalidName = 123;
constexpr uint32_t kErrorPipeBusy = 231;
constexpr uint32_t kErrorNoData = 232;
constexpr uint32_t kErrorPipeNotConnected = 233;
constexpr uint32_t kErrorPipeListening = 536;
constexpr uint32_t kErrorInvalidSecurityDescriptor = 1338;
constexpr wchar_t kPipeFolder[] = L"\\\\.\\pipe\\";

// What one client and one instance share.
struct PipeConnection {
  ByteChannel toServer;
  ByteChannel toClient;
  bool serverOpen = true;
  bool clientOpen = true;
  bool disconnected = false;
};
using ConnectionPointer = std::shared_ptr<PipeConnection>;

struct Instance {
  platform::NamedPipeParameters parameters;
  bool listening = true;
  bool serverClosed = false;
  ConnectionPointer connection;

  // An instance that the server has closed lives on until its client has closed too.
  bool Exists() const { return !serverClosed || (connection && connection->clientOpen); }
};
using InstancePointer = std::shared_ptr<Instance>;

struct ServerEnd : Stream {
  explicit ServerEnd(InstancePointer ofInstance) : Stream("named pipe"), instance(std::move(ofInstance)) {}
  void Closed() override;
  bool Read(Call& call, char* buffer, uint32_t size, uint32_t& read) override;
  bool Write(Call& call, const char* bytes, uint32_t size, uint32_t& written) override;
  bool Flush(Call& call) override;
  uint32_t NotConnected() const { return instance->listening ? kErrorPipeListening : kErrorPipeNotConnected; }
  InstancePointer instance;
};

std::map<std::wstring, std::vector<InstancePointer>> gInstances;  // by the pipe's name in lower case
std::optional<platform::NamedPipeParameters> gLastParameters;
std::wstring gLastDescriptor;
std::deque<std::wstring> gDescriptors;  // their addresses stand for the descriptors

const Device kDevice("pipes", [] {
  gInstances.clear();
  gLastParameters.reset();
  gLastDescriptor.clear();
  gDescriptors.clear();
});

std::vector<InstancePointer>& InstancesOf(const std::wstring& name) {
  std::vector<InstancePointer>& instances = gInstances[LowerCase(name)];
  std::erase_if(instances, [](const InstancePointer& instance) { return !instance->Exists(); });
  return instances;
}

InstancePointer ListeningInstance(const std::wstring& name) {
  const std::vector<InstancePointer>& instances = InstancesOf(name);
  const auto found = std::find_if(instances.begin(), instances.end(), [](const InstancePointer& instance) {
    return instance->listening && !instance->serverClosed;
  });
  return found == instances.end() ? nullptr : *found;
}

std::wstring DescriptorText(const void* descriptor) {
  for (const std::wstring& text : gDescriptors) {
    if (&text == descriptor) return text;
  }
  return L"";
}

void ServerEnd::Closed() {
  instance->serverClosed = true;
  instance->listening = false;
  if (instance->connection) instance->connection->serverOpen = false;
}

bool ServerEnd::Read(Call& call, char* buffer, uint32_t size, uint32_t& read) {
  const ConnectionPointer connection = instance->connection;
  if (!connection) return call.Fail(NotConnected());
  call.WaitFor(
      [&connection] {
        return !connection->toServer.bytes.empty() || !connection->clientOpen || !connection->serverOpen;
      },
      platform::kInfinite);
  if (!connection->serverOpen) return call.Fail(kErrorPipeNotConnected);
  if (connection->toServer.bytes.empty()) return call.Fail(kErrorBrokenPipe);
  read = TakeFrom(connection->toServer, buffer, size);
  return true;
}

bool ServerEnd::Write(Call& call, const char* bytes, uint32_t size, uint32_t& written) {
  const ConnectionPointer connection = instance->connection;
  if (!connection) return call.Fail(NotConnected());
  std::string rest(bytes, size);
  while (!rest.empty()) {
    call.WaitFor(
        [&connection] {
          return connection->toClient.Room() > 0 || !connection->clientOpen || !connection->serverOpen;
        },
        platform::kInfinite);
    if (!connection->serverOpen) return call.Fail(kErrorPipeNotConnected);
    if (!connection->clientOpen) return call.Fail(kErrorNoData);
    PutInto(connection->toClient, rest);
  }
  written = size;
  return true;
}

bool ServerEnd::Flush(Call& call) {
  const ConnectionPointer connection = instance->connection;
  if (!connection) return call.Fail(NotConnected());
  call.WaitFor(
      [&connection] {
        return connection->toClient.bytes.empty() || !connection->clientOpen || !connection->serverOpen;
      },
      platform::kInfinite);
  return connection->clientOpen || call.Fail(kErrorBrokenPipe);
}

bool Disconnect(Call& call, Instance& instance) {
  if (!instance.connection && !instance.listening) return call.Fail(kErrorPipeNotConnected);
  instance.listening = false;
  if (!instance.connection) return true;
  PipeConnection& connection = *instance.connection;
  connection.toServer.bytes.clear();
  connection.toClient.bytes.clear();
  connection.serverOpen = false;
  connection.disconnected = true;
  instance.connection = nullptr;
  return true;
}

bool AwaitClient(Call& call, const InstancePointer& instance) {
  if (instance->connection) {
    return call.Fail(instance->connection->clientOpen ? platform::kErrorPipeConnected : kErrorNoData);
  }
  instance->listening = true;
  call.WaitFor([&instance] { return instance->connection != nullptr || instance->serverClosed; },
               platform::kInfinite);
  return instance->connection || call.Fail(kErrorInvalidHandle);
}

}  // namespace

// ---- The clients' side ----

struct PipeClient::State {
  ConnectionPointer connection;
  uint32_t error = 0;
  std::string received;
};

PipeClient::PipeClient(uint32_t milliseconds, const std::wstring& name) : state_(std::make_shared<State>()) {
  Guard guard;
  WaitUntil(
      "PipeClient", [&name] { return ListeningInstance(name) != nullptr; }, milliseconds);
  const InstancePointer instance = ListeningInstance(name);
  if (!instance) {
    state_->error = InstancesOf(name).empty() ? kErrorFileNotFound : kErrorPipeBusy;
    return;
  }
  auto connection = std::make_shared<PipeConnection>();
  connection->toServer.capacity = instance->parameters.inBufferSize;
  connection->toClient.capacity = instance->parameters.outBufferSize;
  instance->connection = connection;
  instance->listening = false;
  state_->connection = connection;
}

PipeClient::~PipeClient() {
  Close();
}

bool PipeClient::Connected() const {
  Guard guard;
  return state_->connection && state_->connection->serverOpen;
}

uint32_t PipeClient::Error() const {
  return state_->error;
}

void PipeClient::Write(const std::string& bytes, uint32_t milliseconds) {
  Guard guard;
  const ConnectionPointer connection = state_->connection;
  if (!connection) return;
  std::string rest = bytes;
  while (!rest.empty()) {
    const bool taken = WaitUntil(
        "PipeClient::Write",
        [&connection] { return connection->toServer.Room() > 0 || !connection->serverOpen; },
        milliseconds == platform::kInfinite ? kForever : milliseconds);
    if (!taken) return;
    if (!connection->serverOpen) {
      state_->error = connection->disconnected ? kErrorPipeNotConnected : kErrorNoData;
      return;
    }
    PutInto(connection->toServer, rest);
  }
}

std::optional<std::string> PipeClient::ReadToEnd(uint32_t milliseconds) {
  Guard guard;
  const ConnectionPointer connection = state_->connection;
  if (!connection) return std::nullopt;
  const uint64_t end = Now() + milliseconds;
  for (;;) {
    state_->received += std::exchange(connection->toClient.bytes, "");
    if (!connection->serverOpen) return std::exchange(state_->received, "");
    const uint64_t now = Now();
    const bool more = WaitUntil(
        "PipeClient::ReadToEnd",
        [&connection] { return !connection->toClient.bytes.empty() || !connection->serverOpen; },
        end - std::min(end, now));
    if (!more) return std::nullopt;
  }
}

void PipeClient::Close() {
  Guard guard;
  if (!state_->connection) return;
  state_->connection->clientOpen = false;
  state_->connection->toClient.bytes.clear();
  state_->connection = nullptr;
}

std::optional<std::string> Ask(const std::string& line, uint32_t milliseconds) {
  PipeClient client;
  if (!client.Connected()) return std::nullopt;
  client.Write(line + '\n');
  return client.ReadToEnd(milliseconds);
}

size_t PipeInstances() {
  Guard guard;
  size_t count = 0;
  for (const auto& [name, instances] : gInstances) count += InstancesOf(name).size();
  return count;
}

const platform::NamedPipeParameters* LastPipeParameters() {
  return gLastParameters ? &*gLastParameters : nullptr;
}

std::wstring LastSecurityDescriptorText() {
  Guard guard;
  return gLastDescriptor;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

bool ConvertStringSecurityDescriptorToSecurityDescriptorW(const wchar_t* text, uint32_t revision,
                                                          void*& descriptor) {
  Call call("ConvertStringSecurityDescriptorToSecurityDescriptorW", Args("text", text, "revision", revision));
  if (call.Faulted()) return false;
  const std::wstring sddl = text ? text : L"";
  if (sddl.rfind(L"D:", 0) != 0 || revision != kSddlRevision1) {
    return call.Fail(sim::kErrorInvalidSecurityDescriptor);
  }
  sim::gDescriptors.push_back(sddl);
  descriptor = &sim::gDescriptors.back();
  return true;
}

Handle CreateNamedPipeW(const wchar_t* name, const NamedPipeParameters& parameters) {
  const std::wstring descriptor = sim::DescriptorText(parameters.securityDescriptor);
  Call call("CreateNamedPipeW",
            Args("name", name, "openMode", parameters.openMode, "pipeMode", parameters.pipeMode,
                 "maxInstances", parameters.maxInstances, "outBufferSize", parameters.outBufferSize,
                 "inBufferSize", parameters.inBufferSize, "defaultTimeout", parameters.defaultTimeout,
                 "securityDescriptor", descriptor));
  if (call.Faulted()) return InvalidHandle();
  const std::wstring text = name;
  if (sim::LowerCase(text).rfind(sim::kPipeFolder, 0) != 0) {
    call.Fail(sim::kErrorInvalidName);
    return InvalidHandle();
  }
  std::vector<sim::InstancePointer>& instances = sim::InstancesOf(text);
  if (!instances.empty() && instances.size() >= instances.front()->parameters.maxInstances) {
    call.Fail(sim::kErrorPipeBusy);
    return InvalidHandle();
  }
  auto instance = std::make_shared<sim::Instance>();
  instance->parameters = parameters;
  instances.push_back(instance);
  sim::gLastParameters = parameters;
  sim::gLastDescriptor = descriptor;
  Handle handle = sim::OpenHandle(std::make_shared<sim::ServerEnd>(instance));
  call.SetResult(Args("handle", handle));
  return handle;
}

bool ConnectNamedPipe(Handle pipe) {
  Call call("ConnectNamedPipe", Args("pipe", pipe));
  if (call.Faulted()) return false;
  const auto end = sim::Use<sim::ServerEnd>("ConnectNamedPipe", pipe);
  return end ? sim::AwaitClient(call, end->instance) : call.Fail(sim::kErrorInvalidHandle);
}

bool DisconnectNamedPipe(Handle pipe) {
  Call call("DisconnectNamedPipe", Args("pipe", pipe), Call::Kind::kReleasing);
  if (call.Faulted()) return false;
  const auto end = sim::Use<sim::ServerEnd>("DisconnectNamedPipe", pipe);
  return end ? sim::Disconnect(call, *end->instance) : call.Fail(sim::kErrorInvalidHandle);
}

}  // namespace platform
