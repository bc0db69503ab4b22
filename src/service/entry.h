// The process entry: chooses between the service and the console host.
#pragma once

#include <cstdint>

// Hands the main thread to the service control dispatcher. 0, or the dispatcher's error code.
uint32_t RunAsService();

// The program's entry, by its Windows name in both worlds. The result is the exit code.
extern "C" int wmain(int argc, wchar_t** argv);
