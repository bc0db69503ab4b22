// The floor of the pipe: makes the calls that the service makes for a client, in their order, and nothing
// else.
//
//   pipe_echo NAME LENGTH    answers every line with so many bytes, the line feed at the end among them;
//   prints
//                            "ready" and serves until standard input ends
#include <windows.h>
// Behind windows.h, which it needs.
#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr wchar_t kSecurity[] = L"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GRGW;;;AU)";
constexpr DWORD kInstances = 16;
constexpr DWORD kBufferSize = 65536;  // bytes, each way
constexpr DWORD kReadChunk = 512;     // bytes
constexpr DWORD kCreatePause = 250;   // milliseconds, as the service waits while all instances are in use

std::wstring gName;
std::string gReply;
HANDLE gStopEvent = nullptr;

bool Stopped() {
  return WaitForSingleObject(gStopEvent, 0) != WAIT_TIMEOUT;
}

DWORD WINAPI Serve(void* argument) {
  const HANDLE pipe = argument;
  char chunk[kReadChunk];
  DWORD count = 0;
  while (!Stopped()) {
    if (!ReadFile(pipe, chunk, kReadChunk, &count, nullptr) || count == 0) break;
    if (std::memchr(chunk, '\n', count)) break;
  }
  WriteFile(pipe, gReply.data(), static_cast<DWORD>(gReply.size()), &count, nullptr);
  FlushFileBuffers(pipe);
  DisconnectNamedPipe(pipe);
  CloseHandle(pipe);
  return 0;
}

void AcceptClient(SECURITY_ATTRIBUTES& attributes) {
  const HANDLE pipe = CreateNamedPipeW(gName.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, kInstances,
                                       kBufferSize, kBufferSize, 0, &attributes);
  if (pipe == INVALID_HANDLE_VALUE) {
    Sleep(kCreatePause);
  } else if (!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) {
    CloseHandle(pipe);
  } else if (const HANDLE thread = CreateThread(nullptr, 0, Serve, pipe, 0, nullptr)) {
    CloseHandle(thread);
  }
}

DWORD WINAPI Accept(void*) {
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), nullptr, FALSE};
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(kSecurity, SDDL_REVISION_1,
                                                            &attributes.lpSecurityDescriptor, nullptr)) {
    return 1;
  }
  while (!Stopped()) AcceptClient(attributes);
  return 0;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  const long length = count == 3 ? std::wcstol(arguments[2], nullptr, 10) : 0;
  if (length < 1) return 2;
  gName = arguments[1];
  gReply = std::string(static_cast<size_t>(length - 1), '.') + '\n';
  gStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  CloseHandle(CreateThread(nullptr, 0, Accept, nullptr, 0, nullptr));
  std::puts("ready");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  ExitProcess(0);
}
