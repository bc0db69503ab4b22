// The policy of what bypasses the tunnel: a text, sealed in C:\ProgramData\TELVOR\runtime.dat, seeded from
// data\runtime.seed beside the executable.
#pragma once

#include <string>

#include "engine/operations.h"

// Always true. `source` is "encrypted", "seed" or "empty". Turns a seed into runtime.dat when it has to use
// it.
bool LoadRuntimePolicy(RuntimePolicy& policy, std::wstring& source);

// Lines under [domains] and [ips]; '#' at a line's start comments it out.
RuntimePolicy ParseRuntimePolicyText(const std::wstring& text);
