// The only place that starts processes.
#pragma once

#include <cstdint>
#include <string>

#include "service/paths.h"
#include "service/platform.h"

// Runs the program to its end and captures what it writes. True if it was started, whatever its exit code.
// There is no time limit: a program that hangs hangs the caller. Output that is not UTF-8 gets replacement
// characters.
bool RunProcessCapture(const std::wstring& program, const std::wstring& arguments, uint32_t& exitCode,
                       std::wstring& stdoutText, std::wstring& stderrText);

// All that comes from the pipe until it breaks, decoded as UTF-8.
std::wstring ReadPipeToEnd(platform::Handle pipe);
