// A driver of the service's pipe for tests. One connection for each line of standard input, one line of
// standard output for each connection. A pipe that cannot be opened gives the line "!error <code>".
//
//   pipe_client [--pipe NAME] [--retry MS]   sends each line with its line feed, prints the reply
//   ... --raw                                each line is hexadecimal; its parts, parted by blanks, are
//   written
//                                            one by one; a last part "close" closes without reading, and
//                                            prints
//                                            "!closed"
//   ... --security                           prints the pipe's discretionary list as SDDL and ends
//   ... --info                               prints "instances <max> out <bytes> in <bytes> flags <flags>"
//   ... --hold N                             opens N connections in turn, prints "open" or the error of each,
//                                            and holds them until standard input ends; meanwhile each line,
//                                            hexadecimal, is written to all of them, and the line "read"
//                                            reads and prints the reply of each
//
// The server has no instance to offer for a moment after each client, so an opening is tried again for MS
// milliseconds (1000 unless told) before it counts as failed.
#include <windows.h>
// Behind windows.h, which they need.
#include <aclapi.h>
#include <fcntl.h>
#include <io.h>
#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Options {
  std::wstring pipe = L"\\\\.\\pipe\\telvor";
  std::wstring mode;
  DWORD retryMs = 1000;
  int held = 0;
};

constexpr DWORD kRetryPauseMs = 5;

void PrintLine(std::string text) {
  if (text.empty() || text.back() != '\n') text += '\n';
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
}

void PrintError(DWORD code) {
  PrintLine("!error " + std::to_string(code));
}

HANDLE OpenPipe(const Options& options, DWORD access) {
  const ULONGLONG start = GetTickCount64();
  for (;;) {
    const HANDLE pipe = CreateFileW(options.pipe.c_str(), access, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const DWORD code = GetLastError();
    const bool mayCome = code == ERROR_PIPE_BUSY || code == ERROR_FILE_NOT_FOUND;
    if (pipe != INVALID_HANDLE_VALUE || !mayCome || GetTickCount64() - start >= options.retryMs) {
      SetLastError(code);
      return pipe;
    }
    Sleep(kRetryPauseMs);
  }
}

std::string ReadToEnd(HANDLE pipe) {
  std::string reply;
  char chunk[65536];
  DWORD count = 0;
  while (ReadFile(pipe, chunk, sizeof(chunk), &count, nullptr) && count > 0) reply.append(chunk, count);
  return reply;
}

// Writes the parts one by one. A server that has stopped reading ends the writing; its reply is still read.
void WriteParts(HANDLE pipe, const std::vector<std::string>& parts) {
  DWORD written = 0;
  for (const std::string& part : parts) {
    if (!WriteFile(pipe, part.data(), static_cast<DWORD>(part.size()), &written, nullptr)) return;
  }
}

void Exchange(const Options& options, const std::vector<std::string>& parts, bool readReply) {
  const HANDLE pipe = OpenPipe(options, GENERIC_READ | GENERIC_WRITE);
  if (pipe == INVALID_HANDLE_VALUE) return PrintError(GetLastError());
  WriteParts(pipe, parts);
  const std::string reply = readReply ? ReadToEnd(pipe) : "!closed";
  CloseHandle(pipe);
  PrintLine(reply);
}

std::string FromHex(const std::string& digits) {
  std::string bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes += static_cast<char>(std::strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
  }
  return bytes;
}

int SendLines(const Options& options) {
  std::string line;
  while (std::getline(std::cin, line)) Exchange(options, {line + "\n"}, true);
  return 0;
}

int SendRaw(const Options& options) {
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream words(line);
    std::vector<std::string> parts;
    bool readReply = true;
    for (std::string word; words >> word;) {
      if (word == "close") {
        readReply = false;
      } else {
        parts.push_back(FromHex(word));
      }
    }
    Exchange(options, parts, readReply);
  }
  return 0;
}

int PrintSecurity(const Options& options) {
  const HANDLE pipe = OpenPipe(options, READ_CONTROL | GENERIC_READ);
  if (pipe == INVALID_HANDLE_VALUE) return PrintError(GetLastError()), 1;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD code = GetSecurityInfo(pipe, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                     nullptr, nullptr, &descriptor);
  CloseHandle(pipe);
  if (code != ERROR_SUCCESS) return PrintError(code), 1;
  char* text = nullptr;
  ConvertSecurityDescriptorToStringSecurityDescriptorA(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                       &text, nullptr);
  PrintLine(text ? text : "!error " + std::to_string(GetLastError()));
  LocalFree(text);
  LocalFree(descriptor);
  return 0;
}

int PrintInfo(const Options& options) {
  const HANDLE pipe = OpenPipe(options, GENERIC_READ);
  if (pipe == INVALID_HANDLE_VALUE) return PrintError(GetLastError()), 1;
  DWORD flags = 0;
  DWORD out = 0;
  DWORD in = 0;
  DWORD instances = 0;
  const BOOL known = GetNamedPipeInfo(pipe, &flags, &out, &in, &instances);
  const DWORD code = GetLastError();
  CloseHandle(pipe);
  if (!known) return PrintError(code), 1;
  PrintLine("instances " + std::to_string(instances) + " out " + std::to_string(out) + " in " +
            std::to_string(in) + " flags " + std::to_string(flags));
  return 0;
}

std::vector<HANDLE> OpenInTurn(const Options& options) {
  std::vector<HANDLE> opened;
  for (int i = 0; i < options.held; ++i) {
    const HANDLE pipe = OpenPipe(options, GENERIC_READ | GENERIC_WRITE);
    if (pipe == INVALID_HANDLE_VALUE) {
      PrintError(GetLastError());
    } else {
      opened.push_back(pipe);
      PrintLine("open");
    }
  }
  return opened;
}

int Hold(const Options& options) {
  const std::vector<HANDLE> held = OpenInTurn(options);
  for (std::string line; std::getline(std::cin, line);) {
    for (const HANDLE pipe : held) {
      if (line == "read") {
        PrintLine(ReadToEnd(pipe));
      } else {
        WriteParts(pipe, {FromHex(line)});
      }
    }
  }
  for (const HANDLE pipe : held) CloseHandle(pipe);
  return 0;
}

struct Mode {
  const wchar_t* name;
  int (*run)(const Options&);
};

constexpr Mode kModes[] = {
    {L"", SendLines},       {L"--raw", SendRaw}, {L"--security", PrintSecurity},
    {L"--info", PrintInfo}, {L"--hold", Hold},
};

Options ReadOptions(int count, wchar_t** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::wstring word = arguments[i];
    const wchar_t* const next = i + 1 < count ? arguments[i + 1] : L"";
    if (word == L"--pipe") {
      options.pipe = next, ++i;
    } else if (word == L"--retry") {
      options.retryMs = static_cast<DWORD>(_wtoi(next)), ++i;
    } else {
      options.mode = word;
      if (word == L"--hold") options.held = _wtoi(next), ++i;
    }
  }
  return options;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
  const Options options = ReadOptions(count, arguments);
  for (const Mode& mode : kModes) {
    if (options.mode == mode.name) return mode.run(options);
  }
  PrintLine("!unknown option");
  return 2;
}
