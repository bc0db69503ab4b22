#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "engine/platform.h"
#include "ipc/pipe_server.h"
#include "platform/platform_fixture.h"
#include "service/platform.h"
#include "splittunnel/platform.h"
#include "windows/program_folder.h"

std::filesystem::path ProgramFolder() {
  wchar_t path[1024];
  const uint32_t length = platform::GetModuleFileNameW(path, 1024);
  return std::filesystem::path(std::wstring(path, length)).parent_path();
}

struct PlatformTest::World {
  std::filesystem::path folder;
  std::filesystem::path formerFolder;
  std::wstring formerProgramData;
};

// The test's folder is the current one, so that files with relative names go with it.
PlatformTest::PlatformTest() : world_(std::make_unique<World>()) {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  world_->folder =
      std::filesystem::temp_directory_path() / (std::string(test.test_suite_name()) + "." + test.name());
  world_->formerFolder = std::filesystem::current_path();
  world_->formerProgramData = _wgetenv(L"ProgramData");
  std::filesystem::remove_all(world_->folder);
  std::filesystem::create_directories(world_->folder);
  std::filesystem::current_path(world_->folder);
  folder_ = world_->folder.wstring();
  SetEnvironment(L"ProgramData", folder_);
  platform::WSAStartup(0x0202);
}

PlatformTest::~PlatformTest() {
  SetEnvironment(L"ProgramData", world_->formerProgramData);
  std::filesystem::current_path(world_->formerFolder);
  std::filesystem::remove_all(world_->folder);
}

void PutFile(const std::wstring& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
}

std::optional<std::string> FileBytes(const std::wstring& path) {
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void SetEnvironment(const std::wstring& name, const std::optional<std::wstring>& value) {
  _wputenv((name + L"=" + value.value_or(L"")).c_str());
}

std::wstring EchoProgram() {
  const std::filesystem::path folder = std::filesystem::temp_directory_path() / "echo program";
  const std::filesystem::path program = folder / "telvor_echo.exe";
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(ProgramFolder() / "telvor_echo.exe", program,
                             std::filesystem::copy_options::overwrite_existing);
  return program.wstring();
}

struct PipeConnection::State {
  platform::Handle pipe = platform::InvalidHandle();
  uint32_t error = 0;
};

PipeConnection::PipeConnection(uint32_t milliseconds) : state_(std::make_unique<State>()) {
  const uint64_t end = platform::GetTickCount64() + milliseconds;
  for (;;) {
    state_->pipe = platform::CreateFileW(kPipeName, platform::kGenericRead | platform::kGenericWrite,
                                         platform::kFileShareNone, platform::kOpenExisting, 0);
    if (Connected()) return;
    state_->error = platform::GetLastError();
    if (platform::GetTickCount64() >= end) return;
    platform::Sleep(10);
  }
}

PipeConnection::~PipeConnection() {
  Close();
}

bool PipeConnection::Connected() const {
  return state_->pipe != platform::InvalidHandle();
}

uint32_t PipeConnection::Error() const {
  return state_->error;
}

void PipeConnection::Write(const std::string& bytes) {
  uint32_t written = 0;
  platform::WriteFile(state_->pipe, bytes.data(), static_cast<uint32_t>(bytes.size()), written);
}

std::string PipeConnection::ReadToEnd() {
  std::string bytes;
  char chunk[4096];
  uint32_t read = 0;
  while (platform::ReadFile(state_->pipe, chunk, sizeof(chunk), read) && read > 0) bytes.append(chunk, read);
  return bytes;
}

void PipeConnection::Close() {
  if (Connected()) platform::CloseHandle(state_->pipe);
  state_->pipe = platform::InvalidHandle();
}
