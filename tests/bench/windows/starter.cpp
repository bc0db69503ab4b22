// The floor of what starting a program costs: starts it as the service does, with pipes for what it prints,
// and reads them to their end. Nothing else.
//
//   starter COMMAND_LINE
//
// It prints "ready". For each line of standard input it starts the program, waits for its end and prints the
// nanoseconds that this took, or "!error <code>".
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>

namespace {

struct Pipe {
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
};

Pipe MakePipe() {
  SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
  Pipe pipe;
  CreatePipe(&pipe.readEnd, &pipe.writeEnd, &inherited, 0);
  SetHandleInformation(pipe.readEnd, HANDLE_FLAG_INHERIT, 0);
  return pipe;
}

void ReadToEnd(HANDLE pipe) {
  char chunk[4096];
  DWORD count = 0;
  while (ReadFile(pipe, chunk, sizeof(chunk), &count, nullptr) && count > 0) {
  }
  CloseHandle(pipe);
}

// False if the program could not be started.
bool RunToEnd(std::wstring commandLine) {
  const Pipe output = MakePipe();
  const Pipe error = MakePipe();
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = output.writeEnd;
  startup.hStdError = error.writeEnd;
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                      &startup, &process)) {
    return false;
  }
  CloseHandle(output.writeEnd);
  CloseHandle(error.writeEnd);
  ReadToEnd(output.readEnd);
  ReadToEnd(error.readEnd);
  WaitForSingleObject(process.hProcess, INFINITE);
  CloseHandle(process.hProcess);
  CloseHandle(process.hThread);
  return true;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  if (count != 2) return 2;
  std::puts("ready");
  std::fflush(stdout);
  for (std::string line; std::getline(std::cin, line);) {
    const auto begin = std::chrono::steady_clock::now();
    if (RunToEnd(arguments[1])) {
      const std::chrono::nanoseconds taken = std::chrono::steady_clock::now() - begin;
      std::printf("%lld\n", static_cast<long long>(taken.count()));
    } else {
      std::printf("!error %lu\n", GetLastError());
    }
    std::fflush(stdout);
  }
  return 0;
}
