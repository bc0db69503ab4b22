// The console host: the worker alone, in a terminal, for diagnosis. No pipe, no supervision, no crash hooks.
#pragma once

#include <cstdint>

// Runs the worker until it ends. 0, or the error of the step that failed.
uint32_t RunConsoleMode();

// Control types 0 to 2 (Ctrl+C, Ctrl+Break, close) signal the stop event. True if handled.
bool ConsoleCtrlHandler(uint32_t type);
