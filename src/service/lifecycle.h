// The service side of the process: status protocol, supervision of the worker, crash hooks, order of
// shutdown.
#pragma once

#include <cstdint>

inline constexpr wchar_t kServiceName[] = L"TELVOR";

// The supervising thread, run by the service control dispatcher for the life of the service.
void ServiceMain();

// Acts on stop (1), shutdown (5) and preshutdown (15); always 0.
uint32_t ServiceCtrlHandlerEx(uint32_t control);

// Asks the service control manager to stop this service and waits up to 8 seconds. True if it is stopped.
bool StopOwnService();
