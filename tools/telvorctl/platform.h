// What telvorctl needs of Windows: one exchange on a named pipe, the terminal, a clock and a pause.
// Translated by platform_windows.cpp without a decision in it; the tests put a scripted terminal and pipe in
// its place. All texts are UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace telvorctl::platform {

// winerror.h
inline constexpr uint32_t kErrorSuccess = 0;
inline constexpr uint32_t kErrorFileNotFound = 2;
inline constexpr uint32_t kErrorAccessDenied = 5;
inline constexpr uint32_t kErrorPipeBusy = 231;
inline constexpr uint32_t kErrorOperationAborted = 995;
inline constexpr uint32_t kErrorTimeout = 1460;

struct PipeAnswer {
  uint32_t openError = kErrorSuccess;  // of CreateFileW
  // Of writing and reading, once the pipe was open: kErrorOperationAborted after Ctrl+C, kErrorTimeout, or
  // the code with which the server's end broke off. `reply` holds what had arrived until then.
  uint32_t error = kErrorSuccess;
  std::string reply;
};

// Opens the pipe, writes `line` and reads up to the first line feed, which stays in the reply.
PipeAnswer ExchangeOnPipe(const wchar_t* pipe, const std::string& line, uint32_t timeoutMs);

enum class Stream { kInput, kOutput, kErrors };

bool IsTerminal(Stream stream);
// Columns of the terminal that `stream` is; 0 if it is none.
size_t TerminalWidth(Stream stream);
// All of the text, line feeds as they are. False if nobody takes it any more.
bool Write(Stream stream, const std::string& text);
// To the upper left corner of what the output's terminal shows.
void MoveCursorHome();
// Blanks the output's terminal from the cursor on.
void ClearBelowCursor();

// One line of the input's terminal without showing what is typed, without its line end. False at the end of
// the input and after Ctrl+C.
bool ReadHiddenLine(std::string& line);
// One line of an input that is no terminal, without its line feed. False at its end.
bool ReadInputLine(std::string& line);

// False at once when Ctrl+C has come, else true after the time.
bool Sleep(uint32_t milliseconds);
bool WasInterrupted();
// Milliseconds since the system started.
uint64_t GetTickCount64();

}  // namespace telvorctl::platform
