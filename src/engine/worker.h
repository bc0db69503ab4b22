// The thread that brings the machine into the state that gTunnelDesired asks for and keeps it there. It is
// written against gWorkerOperations and the shared tunnel state alone.
#pragma once

#include <cstdint>
#include <string>

// Thread entry; `argument` is not used. Returns 0 in every case. A standard exception inside its guarded
// region is written to C:\ProgramData\TELVOR\cpp_exception.txt, any other to cpp_exception_unknown.txt.
uint32_t WorkerLoop(void* argument);

// Sets gCpIpV4 to the lowest address, by text, of the URL's host: up to 5 attempts with growing pauses.
// False, with gCpIpV4 empty, if the URL cannot be parsed or nothing is found.
bool ResolveCpIpV4(const std::wstring& baseUrl);
