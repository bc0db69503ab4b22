// What the worker does once on each start of its thread, before its guarded region: Winsock, the policy, and
// the first resolution of the bypass addresses.
#pragma once

// Names the build in the log.
inline constexpr wchar_t kBuildId[] = L"BOOTSTRAPFIX-2026-03-20-05:07pm-Z";

// Fills gBypassIpsEffective and writes the start-up log lines and the drop file after_entered.txt. An
// exception here is not caught by the worker and ends the process through the terminate hook.
void StartUpWorker();
