// What a process asks about where it runs: environment, computer name, executable, standard handles, and the
// system's message texts.
#include <algorithm>
#include <map>
#include <string>

#include "case.h"
#include "controlplane/platform.h"
#include "device.h"
#include "files.h"
#include "splittunnel/platform.h"
#include "wireguard/platform.h"

namespace sim {
namespace {

constexpr uint32_t kErrorBufferOverflow = 111;
constexpr uint32_t kErrorInsufficientBuffer = 122;
constexpr uint32_t kErrorEnvironmentVariableNotFound = 203;
constexpr uint32_t kErrorMessageIdNotFound = 317;

std::map<std::wstring, std::wstring> gVariables;  // by name in lower case
std::map<uint32_t, std::wstring> gMessages;
std::wstring gExecutable;
std::wstring gComputerName;

void Boot() {
  gVariables = {{L"programdata", L"C:\\ProgramData"}};
  gExecutable = L"C:\\Program Files\\TELVOR\\telvor.exe";
  gComputerName = L"DESKTOP-AB12";
  gMessages = {
      {2, L"The system cannot find the file specified.\r\n"},
      {3, L"The system cannot find the path specified.\r\n"},
      {5, L"Access is denied.\r\n"},
      {6, L"The handle is invalid.\r\n"},
      {8, L"Not enough memory resources are available to process this command.\r\n"},
      {31, L"A device attached to the system is not functioning.\r\n"},
      {32, L"The process cannot access the file because it is being used by another process.\r\n"},
      {50, L"The request is not supported.\r\n"},
      {87, L"The parameter is incorrect.\r\n"},
      {1060, L"The specified service does not exist as an installed service.\r\n"},
      {1061, L"The service cannot accept control messages at this time.\r\n"},
      {1062, L"The service has not been started.\r\n"},
      {1168, L"Element not found.\r\n"},
      {1231, L"The network location cannot be reached.\r\n"},
      {5010, L"The object already exists.\r\n"},
  };
}

const Device kDevice("environment", &Boot);

// The text with its terminator, cut to `size` characters.
void CopyOut(const std::wstring& text, wchar_t* buffer, size_t size) {
  if (size == 0) return;
  const size_t length = std::min(text.size(), size - 1);
  std::copy_n(text.begin(), length, buffer);
  buffer[length] = L'\0';
}

}  // namespace

void SetEnvironment(const std::wstring& name, const std::optional<std::wstring>& value) {
  Guard guard;
  gVariables.erase(LowerCase(name));
  if (value) gVariables[LowerCase(name)] = *value;
}

void SetExecutablePath(const std::wstring& path) {
  Guard guard;
  gExecutable = path;
}

void SetComputerName(const std::wstring& name) {
  Guard guard;
  gComputerName = name;
}

void SetSystemMessage(uint32_t code, const std::optional<std::wstring>& message) {
  Guard guard;
  gMessages.erase(code);
  if (message) gMessages[code] = *message;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

uint32_t GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, uint32_t size) {
  Call call("GetEnvironmentVariableW", Args("name", name, "size", size));
  if (call.Faulted()) return 0;
  const auto found = sim::gVariables.find(sim::LowerCase(name));
  if (found == sim::gVariables.end()) {
    call.Fail(sim::kErrorEnvironmentVariableNotFound);
    return 0;
  }
  const std::wstring& value = found->second;
  call.SetResult(Args("value", value));
  const auto length = static_cast<uint32_t>(value.size());
  if (length >= size) return length + 1;
  sim::CopyOut(value, buffer, size);
  return length;
}

bool GetComputerNameW(wchar_t* buffer, uint32_t& size) {
  Call call("GetComputerNameW", Args("size", size));
  if (call.Faulted()) return false;
  const auto length = static_cast<uint32_t>(sim::gComputerName.size());
  if (length >= size) {
    size = length + 1;
    return call.Fail(sim::kErrorBufferOverflow);
  }
  sim::CopyOut(sim::gComputerName, buffer, size);
  size = length;
  call.SetResult(Args("name", sim::gComputerName));
  return true;
}

uint32_t GetModuleFileNameW(wchar_t* buffer, uint32_t size) {
  Call call("GetModuleFileNameW", Args("size", size));
  if (call.Faulted()) return 0;
  sim::CopyOut(sim::gExecutable, buffer, size);
  call.SetResult(Args("path", sim::gExecutable));
  const auto length = static_cast<uint32_t>(sim::gExecutable.size());
  if (length < size) return length;
  sim::SetLastError(sim::kErrorInsufficientBuffer);
  return size;
}

Handle GetStdHandle(uint32_t which) {
  // A service has none.
  Call call("GetStdHandle", Args("which", sim::Hex{which}));
  return call.Faulted() ? InvalidHandle() : nullptr;
}

bool FormatMessageW(uint32_t flags, uint32_t code, uint32_t language, std::wstring& message) {
  Call call("FormatMessageW", Args("flags", flags, "code", code, "language", language));
  if (call.Faulted()) return false;
  const auto found = sim::gMessages.find(code);
  if (found == sim::gMessages.end()) return call.Fail(sim::kErrorMessageIdNotFound);
  message = found->second;
  return true;
}

}  // namespace platform
