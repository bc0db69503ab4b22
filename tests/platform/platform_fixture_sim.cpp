#include "engine/platform.h"
#include "platform/echo_task.h"
#include "platform/platform_fixture.h"
#include "sim/files.h"
#include "sim/kernel.h"
#include "sim/network.h"
#include "sim/pipes.h"
#include "sim/processes.h"

namespace {

constexpr wchar_t kEchoProgram[] = L"C:\\Program Files\\Echo\\telvor_echo.exe";

sim::ProcessResult RunEchoProgram(const std::wstring& commandLine) {
  const std::wstring start = L"\"" + std::wstring(kEchoProgram) + L"\" ";
  sim::ProcessResult result;
  result.starts = commandLine.starts_with(start);
  if (!result.starts) return result;
  const std::wstring arguments = commandLine.substr(start.size());
  if (arguments.starts_with(kTellCommandLine)) {
    result.standardOutput = sim::Narrow(commandLine);
    return result;
  }
  const EchoTask task = ParseEchoArguments(arguments);
  result.exitCode = task.exitCode;
  result.standardOutput = task.standardOutput;
  result.standardError = task.standardError;
  return result;
}

}  // namespace

struct PlatformTest::World {
  sim::Machine machine;
};

PlatformTest::PlatformTest() : world_(std::make_unique<World>()), folder_(L"C:\\portable-test") {
  sim::MakeFolder(folder_);
  SetEnvironment(L"ProgramData", folder_);
  sim::SetHost(L"localhost", {"127.0.0.1"});
  sim::SetHost(kHostOfThree, {"10.0.0.9", "10.0.0.10", "9.255.0.1"});
  sim::SetProcessHandler(RunEchoProgram);
  platform::WSAStartup(0x0202);
}

PlatformTest::~PlatformTest() = default;

void PutFile(const std::wstring& path, const std::string& bytes) {
  sim::PutFile(path, bytes);
}

std::optional<std::string> FileBytes(const std::wstring& path) {
  return sim::FileBytes(path);
}

void SetEnvironment(const std::wstring& name, const std::optional<std::wstring>& value) {
  sim::SetEnvironment(name, value);
}

std::wstring EchoProgram() {
  return kEchoProgram;
}

struct PipeConnection::State {
  explicit State(uint32_t milliseconds) : client(milliseconds) {}
  sim::PipeClient client;
};

PipeConnection::PipeConnection(uint32_t milliseconds) : state_(std::make_unique<State>(milliseconds)) {}

PipeConnection::~PipeConnection() = default;

bool PipeConnection::Connected() const {
  return state_->client.Connected();
}

uint32_t PipeConnection::Error() const {
  return state_->client.Error();
}

void PipeConnection::Write(const std::string& bytes) {
  state_->client.Write(bytes);
}

std::string PipeConnection::ReadToEnd() {
  return state_->client.ReadToEnd().value_or("(no end)");
}

void PipeConnection::Close() {
  state_->client.Close();
}
