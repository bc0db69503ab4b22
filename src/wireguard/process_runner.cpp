#include "wireguard/process_runner.h"

#include "controlplane/text.h"
#include "service/log.h"
#include "wireguard/platform.h"

namespace {

constexpr uint32_t kReadChunk = 4096;

struct Pipe {
  platform::Handle readEnd = nullptr;
  platform::Handle writeEnd = nullptr;
};

// Wanted: when one of the four calls fails, what the others made is left open.
bool CreateOutputPipes(Pipe& standardOutput, Pipe& standardError) {
  return platform::CreatePipe(standardOutput.readEnd, standardOutput.writeEnd) &&
         platform::CreatePipe(standardError.readEnd, standardError.writeEnd) &&
         platform::SetHandleInformation(standardOutput.readEnd, platform::kHandleFlagInherit, 0) &&
         platform::SetHandleInformation(standardError.readEnd, platform::kHandleFlagInherit, 0);
}

}  // namespace

bool RunProcessCapture(const std::wstring& program, const std::wstring& arguments, uint32_t& exitCode,
                       std::wstring& stdoutText, std::wstring& stderrText) {
  exitCode = 0;
  stdoutText.clear();
  stderrText.clear();
  Pipe standardOutput;
  Pipe standardError;
  if (!CreateOutputPipes(standardOutput, standardError)) return false;

  const platform::StartupHandles startup{platform::GetStdHandle(platform::kStdInputHandle),
                                         standardOutput.writeEnd, standardError.writeEnd};
  platform::ProcessHandles child;
  const bool started = platform::CreateProcessW(L"\"" + program + L"\" " + arguments,
                                                platform::kCreateNoWindow, startup, child);
  // The pipes break, and the reads below end, only when no write end is open any more.
  platform::CloseHandle(standardOutput.writeEnd);
  platform::CloseHandle(standardError.writeEnd);
  if (started) {
    stdoutText = ReadPipeToEnd(standardOutput.readEnd);
    stderrText = ReadPipeToEnd(standardError.readEnd);
  }
  platform::CloseHandle(standardOutput.readEnd);
  platform::CloseHandle(standardError.readEnd);
  if (!started) return false;

  platform::WaitForSingleObject(child.process, platform::kInfinite);
  platform::GetExitCodeProcess(child.process, exitCode);
  platform::CloseHandle(child.process);
  platform::CloseHandle(child.thread);
  return true;
}

std::wstring ReadPipeToEnd(platform::Handle pipe) {
  std::string bytes;
  char chunk[kReadChunk];
  uint32_t read = 0;
  while (platform::ReadFile(pipe, chunk, kReadChunk, read) && read > 0) bytes.append(chunk, read);
  return Utf8ToWideLenient(bytes);
}
