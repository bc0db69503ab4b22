// The floor of the pipe: makes the calls that the service makes for a client, in their order, and nothing
// else.
//
//   pipe_echo NAME LENGTH [CALLS FILE]...
//
// answers every line with so many bytes, the line feed at the end among them; prints "ready" and serves until
// standard input ends. Before each answer it makes, and forgets, the bare calls that reading a file takes the
// service: "text" for one of known size, "whole" for one read to its end, "sealed" for one that is unsealed
// then.
#include <windows.h>
// Behind windows.h, which they need.
#include <sddl.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr wchar_t kSecurity[] = L"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GRGW;;;AU)";
constexpr DWORD kInstances = 16;
constexpr DWORD kBufferSize = 65536;   // bytes, each way
constexpr DWORD kReadChunk = 512;      // bytes
constexpr DWORD kCreatePause = 250;    // milliseconds, as the service waits while all instances are in use
constexpr DWORD kLargestFile = 16384;  // bytes

using FileCalls = DWORD (*)(const wchar_t* path, BYTE* bytes);  // gives the length

std::wstring gName;
std::string gReply;
HANDLE gStopEvent = nullptr;
std::vector<std::pair<FileCalls, std::wstring>> gFiles;

DWORD ReadText(const wchar_t* path, BYTE* bytes) {
  const HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  LARGE_INTEGER size{};
  GetFileSizeEx(file, &size);
  DWORD read = 0;
  ReadFile(file, bytes, static_cast<DWORD>(size.QuadPart), &read, nullptr);
  CloseHandle(file);
  return read;
}

DWORD ReadWhole(const wchar_t* path, BYTE* bytes) {
  const HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  DWORD size = 0;
  DWORD read = 0;
  while (ReadFile(file, bytes + size, kLargestFile - size, &read, nullptr) && read > 0) size += read;
  CloseHandle(file);
  return size;
}

// Keeps the cryptographic provider in memory, where the service has it for other ends.
bool HoldProvider() {
  HCRYPTPROV provider = 0;
  return CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT) != 0;
}

DWORD ReadSealed(const wchar_t* path, BYTE* bytes) {
  DATA_BLOB sealed{ReadWhole(path, bytes), bytes};
  DATA_BLOB plain{};
  if (!CryptUnprotectData(&sealed, nullptr, nullptr, nullptr, nullptr, 0, &plain)) return 0;
  LocalFree(plain.pbData);
  return plain.cbData;
}

FileCalls CallsNamed(const std::wstring& name) {
  return name == L"text"     ? &ReadText
         : name == L"whole"  ? &ReadWhole
         : name == L"sealed" ? &ReadSealed
                             : nullptr;
}

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
  for (const auto& [calls, path] : gFiles) {
    BYTE bytes[kLargestFile];
    calls(path.c_str(), bytes);
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
  const long length = count >= 3 ? std::wcstol(arguments[2], nullptr, 10) : 0;
  if (length < 1 || count % 2 == 0 || !HoldProvider()) return 2;
  for (int i = 3; i < count; i += 2) {
    gFiles.emplace_back(CallsNamed(arguments[i]), arguments[i + 1]);
    BYTE bytes[kLargestFile];
    if (!gFiles.back().first || gFiles.back().first(arguments[i + 1], bytes) == 0) return 2;
  }
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
