#include <windows.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <type_traits>

#include "telvorctl/platform.h"
#include "telvorctl/startup.h"
#include "telvorctl/windows_text.h"

namespace telvorctl::platform {

namespace {

constexpr DWORD kReadChunk = 65536;
constexpr DWORD kHandlerPatienceMs = 200;

struct HandleCloser {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, HandleCloser>;

HANDLE gInterrupted = nullptr;  // set by Ctrl+C, never reset

BOOL WINAPI OnControl(DWORD kind) {
  if (kind != CTRL_C_EVENT && kind != CTRL_BREAK_EVENT) return FALSE;
  SetEvent(gInterrupted);
  return TRUE;
}

HANDLE StreamHandle(Stream stream) {
  switch (stream) {
    case Stream::kInput:
      return GetStdHandle(STD_INPUT_HANDLE);
    case Stream::kOutput:
      return GetStdHandle(STD_OUTPUT_HANDLE);
    default:
      return GetStdHandle(STD_ERROR_HANDLE);
  }
}

struct Operation {
  HANDLE pipe;
  OVERLAPPED overlapped;
  ULONGLONG deadline;
};

// Waits for what ReadFile or WriteFile has begun. The Windows error, or kErrorSuccess with the bytes moved.
DWORD FinishOperation(Operation& operation, BOOL begun, DWORD& count) {
  if (!begun && GetLastError() != ERROR_IO_PENDING) return GetLastError();
  const ULONGLONG now = GetTickCount64();
  const DWORD left = operation.deadline > now ? static_cast<DWORD>(operation.deadline - now) : 0;
  const HANDLE handles[] = {operation.overlapped.hEvent, gInterrupted};
  const DWORD woken = WaitForMultipleObjects(2, handles, FALSE, left);
  if (woken != WAIT_OBJECT_0) CancelIo(operation.pipe);
  const BOOL done = GetOverlappedResult(operation.pipe, &operation.overlapped, &count, TRUE);
  const DWORD code = done ? ERROR_SUCCESS : GetLastError();
  if (woken == WAIT_OBJECT_0 + 1) return ERROR_OPERATION_ABORTED;
  return woken == WAIT_TIMEOUT ? ERROR_TIMEOUT : code;
}

DWORD WriteAll(Operation& operation, const std::string& line) {
  DWORD count = 0;
  const BOOL begun =
      WriteFile(operation.pipe, line.data(), static_cast<DWORD>(line.size()), nullptr, &operation.overlapped);
  return FinishOperation(operation, begun, count);
}

DWORD ReadLine(Operation& operation, std::string& reply) {
  std::string chunk(kReadChunk, '\0');
  DWORD code = ERROR_SUCCESS;
  while (code == ERROR_SUCCESS && !reply.ends_with('\n')) {
    DWORD count = 0;
    const BOOL begun = ReadFile(operation.pipe, chunk.data(), kReadChunk, nullptr, &operation.overlapped);
    code = FinishOperation(operation, begun, count);
    if (code == ERROR_SUCCESS) reply.append(chunk, 0, count);
  }
  return code;
}

COORD WindowOrigin(HANDLE terminal, CONSOLE_SCREEN_BUFFER_INFO& info) {
  if (!GetConsoleScreenBufferInfo(terminal, &info)) return COORD{0, 0};
  return COORD{0, info.srWindow.Top};
}

// A line that is being typed.
struct Typing {
  HANDLE terminal = nullptr;
  std::wstring text = std::wstring(4096, L'\0');
  DWORD count = 0;
  OwnedHandle done;
};

void ReadTyping(const std::shared_ptr<Typing>& typing) {
  ReadConsoleW(typing->terminal, typing->text.data(), static_cast<DWORD>(typing->text.size()), &typing->count,
               nullptr);
  SetEvent(typing->done.get());
}

bool WriteBytes(HANDLE file, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    DWORD count = 0;
    const auto size = static_cast<DWORD>(text.size() - done);
    if (!WriteFile(file, text.data() + done, size, &count, nullptr) || count == 0) return false;
    done += count;
  }
  return true;
}

bool WriteToConsole(HANDLE terminal, const std::wstring& text) {
  for (size_t done = 0; done < text.size();) {
    DWORD count = 0;
    const auto size = static_cast<DWORD>(std::min<size_t>(text.size() - done, 8192));
    if (!WriteConsoleW(terminal, text.data() + done, size, &count, nullptr) || count == 0) return false;
    done += count;
  }
  return true;
}

}  // namespace

std::wstring Utf8ToWide(const std::string& text) {
  const int size = static_cast<int>(text.size());
  std::wstring wide(static_cast<size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0)),
                    L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), static_cast<int>(wide.size()));
  return wide;
}

std::string WideToUtf8(const std::wstring& wide) {
  const int size = static_cast<int>(wide.size());
  std::string text(
      static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr)),
      '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, text.data(), static_cast<int>(text.size()), nullptr,
                      nullptr);
  return text;
}

static_assert(kErrorFileNotFound == ERROR_FILE_NOT_FOUND && kErrorAccessDenied == ERROR_ACCESS_DENIED &&
              kErrorPipeBusy == ERROR_PIPE_BUSY && kErrorOperationAborted == ERROR_OPERATION_ABORTED &&
              kErrorTimeout == ERROR_TIMEOUT);

std::vector<std::string> StartUp(int count, wchar_t** arguments) {
  gInterrupted = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetConsoleCtrlHandler(OnControl, TRUE);
  std::vector<std::string> texts;
  for (int i = 1; i < count; ++i) texts.push_back(WideToUtf8(arguments[i]));
  return texts;
}

PipeAnswer ExchangeOnPipe(const wchar_t* pipe, const std::string& line, uint32_t timeoutMs) {
  PipeAnswer answer;
  // Whoever serves the pipe may learn who asks, and not act in that name.
  constexpr DWORD kFlags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
  const HANDLE opened =
      CreateFileW(pipe, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, kFlags, nullptr);
  if (opened == INVALID_HANDLE_VALUE) {
    answer.openError = GetLastError();
    return answer;
  }
  const OwnedHandle owner(opened);
  const OwnedHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  Operation operation{opened, {}, GetTickCount64() + timeoutMs};
  operation.overlapped.hEvent = event.get();
  answer.error = WriteAll(operation, line);
  // A server that has stopped reading may have replied all the same.
  const bool ended = answer.error == ERROR_OPERATION_ABORTED || answer.error == ERROR_TIMEOUT;
  if (!ended) answer.error = ReadLine(operation, answer.reply);
  return answer;
}

bool IsTerminal(Stream stream) {
  DWORD mode = 0;
  return GetConsoleMode(StreamHandle(stream), &mode) != 0;
}

size_t TerminalWidth(Stream stream) {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (!GetConsoleScreenBufferInfo(StreamHandle(stream), &info)) return 0;
  return static_cast<size_t>(info.srWindow.Right - info.srWindow.Left + 1);
}

bool Write(Stream stream, const std::string& text) {
  const HANDLE handle = StreamHandle(stream);
  return IsTerminal(stream) ? WriteToConsole(handle, Utf8ToWide(text)) : WriteBytes(handle, text);
}

void MoveCursorHome() {
  const HANDLE terminal = StreamHandle(Stream::kOutput);
  CONSOLE_SCREEN_BUFFER_INFO info;
  SetConsoleCursorPosition(terminal, WindowOrigin(terminal, info));
}

void ClearBelowCursor() {
  const HANDLE terminal = StreamHandle(Stream::kOutput);
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (!GetConsoleScreenBufferInfo(terminal, &info)) return;
  const int rows = info.srWindow.Bottom - info.dwCursorPosition.Y + 1;
  const int cells = rows * info.dwSize.X - info.dwCursorPosition.X;
  DWORD count = 0;
  FillConsoleOutputCharacterW(terminal, L' ', static_cast<DWORD>(std::max(cells, 0)), info.dwCursorPosition,
                              &count);
}

bool ReadHiddenLine(std::string& line) {
  const HANDLE terminal = StreamHandle(Stream::kInput);
  DWORD mode = 0;
  GetConsoleMode(terminal, &mode);
  SetConsoleMode(terminal, (mode | ENABLE_LINE_INPUT | ENABLE_PROCESSED_INPUT) & ~DWORD{ENABLE_ECHO_INPUT});
  // Not every console ends a reading on Ctrl+C: that one is left behind, and ends with the process.
  const auto typing = std::make_shared<Typing>();
  typing->terminal = terminal;
  typing->done.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::thread(ReadTyping, typing).detach();
  const HANDLE handles[] = {gInterrupted, typing->done.get()};
  const DWORD woken = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
  SetConsoleMode(terminal, mode);
  // The handler of Ctrl+C runs on a thread of its own and may come a moment later than the end of the
  // reading.
  if (woken == WAIT_OBJECT_0 || typing->count == 0) {
    WaitForSingleObject(gInterrupted, kHandlerPatienceMs);
    return false;
  }
  line = WideToUtf8(typing->text.substr(0, typing->count));
  if (!line.ends_with('\n')) return false;
  line.erase(line.find_last_not_of("\r\n") + 1);
  return true;
}

bool ReadInputLine(std::string& line) {
  line.clear();
  char byte = 0;
  DWORD count = 0;
  bool any = false;
  while (ReadFile(StreamHandle(Stream::kInput), &byte, 1, &count, nullptr) && count == 1) {
    any = true;
    if (byte == '\n') break;
    line += byte;
  }
  return any;
}

bool Sleep(uint32_t milliseconds) {
  return WaitForSingleObject(gInterrupted, milliseconds) == WAIT_TIMEOUT;
}

bool WasInterrupted() {
  return WaitForSingleObject(gInterrupted, 0) == WAIT_OBJECT_0;
}

uint64_t GetTickCount64() {
  return ::GetTickCount64();
}

}  // namespace telvorctl::platform
