// Simulated programs: wireguard.exe and wg.exe with scripted behaviour.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace sim {

struct ProcessResult {
  bool starts = true;  // false: CreateProcessW fails with 2
  uint32_t exitCode = 0;
  std::string standardOutput{};
  std::string standardError{};
  uint32_t milliseconds = 50;     // it runs so long, and writes at its end
  bool hangs = false;             // never ends
  std::function<void()> onEnd{};  // called as it ends, before its output is there
};
using ProcessHandler = std::function<ProcessResult(const std::wstring& commandLine)>;
// Without a handler programs behave as installed WireGuard does: /installtunnelservice and
// /uninstalltunnelservice act on the simulated service manager (the service's start makes the adapter of the
// tunnel's name, index 42, its stop removes it), wg.exe shows a handshake as long as HandshakeAnswers(true)
// and the counters set below. A program whose file does not exist does not start.
// A child holds every inheritable pipe end of the process until it ends, its own output being only two of
// them. A pipe holds 4096 bytes; a child writes its standard output, then its standard error, and waits for
// room.
void SetProcessHandler(ProcessHandler handler);
ProcessResult WireGuardProgram(const std::wstring& commandLine);  // the default, to be called from a handler
void HandshakeAnswers(bool yes);                                  // default true
void SetTransfer(uint64_t received, uint64_t sent);
struct StartedProcess {
  std::wstring commandLine;
  uint32_t flags;
  uint64_t time;
};
const std::vector<StartedProcess>& StartedProcesses();

}  // namespace sim
