#include "ipc/pipe_server.h"

#include "engine/tunnel_state.h"
#include "ipc/dispatch.h"
#include "ipc/platform.h"
#include "service/log.h"

namespace {

constexpr uint32_t kReadChunk = 512;     // bytes
constexpr size_t kFirstCapacity = 4096;  // bytes reserved for a request line
constexpr size_t kLineLimit = 200000;    // bytes; tested between chunks only
constexpr uint32_t kInstances = 16;
constexpr uint32_t kBufferSize = 65536;  // bytes, each way
constexpr uint32_t kCreatePause = 250;   // milliseconds after a failed creation
constexpr uint32_t kConnectPause = 50;   // milliseconds after a failed connection
constexpr char kNoRequest[] =
    R"({"jsonrpc":"2.0","id":0,"result":null,"error":{"message":"IPC: no request"}})";

bool StopSignalled() {
  return platform::WaitForSingleObject(gStopEvent, 0) != platform::kWaitTimeout;
}

RequestLine ReadLine(platform::Handle pipe) {
  RequestLine line;
  line.text.reserve(kFirstCapacity);
  char chunk[kReadChunk];
  while (!StopSignalled()) {
    uint32_t read = 0;
    if (!platform::ReadFile(pipe, chunk, kReadChunk, read) || read == 0) break;
    if (!TakeChunk(line, {chunk, read})) break;
  }
  return line;
}

void ServeClient(platform::Handle pipe) {
  platform::Handle thread = platform::CreateThread(&IpcClientThread, pipe);
  if (thread) {
    platform::CloseHandle(thread);
  } else {
    IpcClientThread(pipe);  // for want of a thread the accept loop serves it
  }
}

// One turn of the accept loop.
void AcceptClient(void* securityDescriptor) {
  const platform::NamedPipeParameters parameters{
      .openMode = platform::kPipeAccessDuplex,
      .pipeMode = 0,  // bytes, blocking
      .maxInstances = kInstances,
      .outBufferSize = kBufferSize,
      .inBufferSize = kBufferSize,
      .defaultTimeout = 0,
      .securityDescriptor = securityDescriptor,
  };
  platform::Handle pipe = platform::CreateNamedPipeW(kPipeName, parameters);
  if (pipe == platform::InvalidHandle()) {
    platform::Sleep(kCreatePause);
    return;
  }
  if (!platform::ConnectNamedPipe(pipe) && platform::GetLastError() != platform::kErrorPipeConnected) {
    platform::CloseHandle(pipe);
    platform::Sleep(kConnectPause);
    return;
  }
  ServeClient(pipe);
}

}  // namespace

bool TakeChunk(RequestLine& line, std::string_view chunk) {
  const size_t end = chunk.find('\n');
  for (const char byte : chunk.substr(0, end)) {
    if (byte != '\r') line.text += byte;
  }
  line.complete = end != std::string_view::npos;
  return !line.complete && line.text.size() <= kLineLimit;
}

std::string ReplyTo(const RequestLine& line) {
  std::string reply = kNoRequest;
  if (line.complete) HandleIpcRequest(line.text, reply);
  return reply + "\n";
}

uint32_t IpcThread(void* /*argument*/) {
  void* securityDescriptor = nullptr;  // for the life of the process
  if (!platform::ConvertStringSecurityDescriptorToSecurityDescriptorW(kPipeSecurity, platform::kSddlRevision1,
                                                                      securityDescriptor)) {
    LogLine(L"ERROR: failed to build pipe security descriptor");
    return 0;
  }
  while (!StopSignalled()) AcceptClient(securityDescriptor);
  return 0;
}

uint32_t IpcClientThread(void* argument) {
  platform::Handle pipe = argument;
  const std::string reply = ReplyTo(ReadLine(pipe));
  uint32_t written = 0;
  platform::WriteFile(pipe, reply.data(), static_cast<uint32_t>(reply.size()), written);
  platform::FlushFileBuffers(pipe);
  platform::DisconnectNamedPipe(pipe);
  platform::CloseHandle(pipe);
  return 0;
}
