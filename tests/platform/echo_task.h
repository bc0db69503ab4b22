// What the echo program is told to do: write these bytes, end with this code. The same words work for the
// real program, telvor_echo.exe, and for the one of the simulated machine.
#pragma once

#include <cstdint>
#include <string>

struct EchoTask {
  std::string standardOutput;
  std::string standardError;
  uint32_t exitCode = 0;
};

// The only argument of a call that writes the program's own command line, in UTF-8, to standard output.
inline constexpr wchar_t kTellCommandLine[] = L"--command-line";

std::wstring EchoArguments(const EchoTask& task);
EchoTask ParseEchoArguments(const std::wstring& arguments);
