// The echo program of the process runner's tests; see platform/echo_task.h.
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>
#include <string>

#include "platform/echo_task.h"

namespace {

void WriteCommandLine() {
  const wchar_t* line = GetCommandLineW();
  char bytes[4096];
  const int size = WideCharToMultiByte(CP_UTF8, 0, line, -1, bytes, sizeof(bytes), nullptr, nullptr);
  std::fwrite(bytes, 1, static_cast<size_t>(size - 1), stdout);
}

}  // namespace

int main() {
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
  const std::wstring line = GetCommandLineW();
  const std::wstring arguments = line.substr(line.find(L"\" ") + 2);
  if (arguments.starts_with(kTellCommandLine)) {
    WriteCommandLine();
    return 0;
  }
  const EchoTask task = ParseEchoArguments(arguments);
  std::fwrite(task.standardOutput.data(), 1, task.standardOutput.size(), stdout);
  std::fflush(stdout);
  std::fwrite(task.standardError.data(), 1, task.standardError.size(), stderr);
  return static_cast<int>(task.exitCode);
}
