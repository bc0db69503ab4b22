#include "tests/telvorctl/telvorctl_fixture.h"

using telvorctl_test::Exchange;
using telvorctl_test::gScript;

namespace telvorctl::platform {

PipeAnswer ExchangeOnPipe(const wchar_t* pipe, const std::string& line, uint32_t timeoutMs) {
  EXPECT_EQ(std::wstring(pipe), L"\\\\.\\pipe\\telvor");
  EXPECT_EQ(timeoutMs, 180000u);
  if (gScript.exchanges.empty()) {
    ADD_FAILURE() << "nobody expects " << line;
    gScript.interrupted = true;  // so that nothing waits for ever
    return {0, kErrorOperationAborted, {}};
  }
  const Exchange next = gScript.exchanges.front();
  EXPECT_EQ(line, next.request + "\n");
  if (!next.forever) gScript.exchanges.pop_front();
  gScript.now += next.takesMs;
  return next.answer;
}

bool IsTerminal(Stream stream) {
  switch (stream) {
    case Stream::kInput:
      return gScript.inputIsTerminal;
    case Stream::kOutput:
      return gScript.outputIsTerminal;
    default:
      return gScript.errorsAreTerminal;
  }
}

size_t TerminalWidth(Stream stream) {
  return IsTerminal(stream) ? gScript.width : 0;
}

bool Write(Stream stream, const std::string& text) {
  if (stream == Stream::kOutput && gScript.writesUntilOutputCloses-- <= 0) return false;
  (stream == Stream::kOutput ? gScript.output : gScript.errors) += text;
  return true;
}

void MoveCursorHome() {
  gScript.output += "<home>";
}

void ClearBelowCursor() {
  gScript.output += "<clear>";
}

bool ReadHiddenLine(std::string& line) {
  if (gScript.typed.empty()) {
    gScript.interrupted = true;
    return false;
  }
  line = gScript.typed.front();
  gScript.typed.pop_front();
  return true;
}

bool ReadInputLine(std::string& line) {
  if (gScript.input.empty()) return false;
  line = gScript.input.front();
  gScript.input.pop_front();
  return true;
}

bool Sleep(uint32_t milliseconds) {
  if (gScript.pausesUntilInterrupt-- <= 0) gScript.interrupted = true;
  gScript.now += milliseconds;
  return !gScript.interrupted;
}

bool WasInterrupted() {
  return gScript.interrupted;
}

uint64_t GetTickCount64() {
  return gScript.now;
}

}  // namespace telvorctl::platform
