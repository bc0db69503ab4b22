// Clients of several pipes in turn, each of which does what a desktop program does: opens, writes a line,
// reads to its end, closes. One that finds the pipe busy waits for it and tries again.
//
//   pipe_load CLIENTS TRIPS BLOCKS PIPE...
//
// Takes the request line from standard input. BLOCKS times it lets so many clients at once make so many round
// trips each on all pipes, one after the other and each time beginning with the next. Prints
//
//   reply <number of the pipe> <shortest> <longest> <bytes of the last reply>   for each pipe, at the end
//   <number of the pipe> <nanoseconds>                                          for each round trip
//
// and ends with 1 and a line on standard error if a trip failed.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr DWORD kBusyWait = 5000;                // milliseconds
constexpr std::chrono::seconds kOpenWithin(10);  // from the first try on

struct Seen {
  std::vector<int64_t> nanoseconds;
  size_t shortest = SIZE_MAX;
  size_t longest = 0;
  std::string last;
  DWORD failure = ERROR_SUCCESS;
};

struct Load {
  std::vector<std::wstring> pipes;
  std::string request;
  size_t clients = 0;
  size_t trips = 0;
  size_t blocks = 0;
};

using Clock = std::chrono::steady_clock;

// Between two clients there is for a moment no instance at all.
bool MayCome(DWORD code) {
  return code == ERROR_PIPE_BUSY || code == ERROR_FILE_NOT_FOUND;
}

HANDLE Open(const std::wstring& name) {
  const Clock::time_point begin = Clock::now();
  for (;;) {
    const HANDLE pipe =
        CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (pipe != INVALID_HANDLE_VALUE || !MayCome(GetLastError()) || Clock::now() - begin > kOpenWithin)
      return pipe;
    if (!WaitNamedPipeW(name.c_str(), kBusyWait)) SwitchToThread();
  }
}

// False if the trip failed; GetLastError() tells why.
bool RoundTrip(const std::wstring& name, const std::string& request, std::string& reply) {
  const HANDLE pipe = Open(name);
  if (pipe == INVALID_HANDLE_VALUE) return false;
  DWORD count = 0;
  char chunk[65536];
  reply.clear();
  bool good = WriteFile(pipe, request.data(), static_cast<DWORD>(request.size()), &count, nullptr) != 0;
  while (good && !reply.ends_with('\n')) {
    good = ReadFile(pipe, chunk, sizeof(chunk), &count, nullptr) != 0;
    if (good) reply.append(chunk, count);
  }
  CloseHandle(pipe);
  return good;
}

void RunClient(const Load& load, const std::wstring& name, HANDLE begin, Seen& seen) {
  WaitForSingleObject(begin, INFINITE);
  for (size_t trip = 0; trip < load.trips && seen.failure == ERROR_SUCCESS; ++trip) {
    const Clock::time_point start = Clock::now();
    if (!RoundTrip(name, load.request, seen.last)) {
      seen.failure = GetLastError();
      return;
    }
    seen.nanoseconds.push_back(std::chrono::nanoseconds(Clock::now() - start).count());
    seen.shortest = std::min(seen.shortest, seen.last.size());
    seen.longest = std::max(seen.longest, seen.last.size());
  }
}

void RunBlock(const Load& load, const std::wstring& name, std::vector<Seen>& seen) {
  const HANDLE begin = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::vector<std::thread> clients;
  for (Seen& client : seen)
    clients.emplace_back([&load, &name, begin, &client] { RunClient(load, name, begin, client); });
  SetEvent(begin);
  for (std::thread& client : clients) client.join();
  CloseHandle(begin);
}

// False if a client failed.
bool Print(size_t pipe, const std::vector<Seen>& clients) {
  Seen all;
  for (const Seen& seen : clients) {
    if (seen.failure != ERROR_SUCCESS) {
      std::fprintf(stderr, "pipe %zu: a round trip failed with %lu\n", pipe, seen.failure);
      return false;
    }
    for (const int64_t nanoseconds : seen.nanoseconds)
      std::printf("%zu %lld\n", pipe, static_cast<long long>(nanoseconds));
    all.shortest = std::min(all.shortest, seen.shortest);
    all.longest = std::max(all.longest, seen.longest);
  }
  std::printf("reply %zu %zu %zu %s", pipe, all.shortest, all.longest, clients.front().last.c_str());
  return true;
}

size_t Number(const wchar_t* text) {
  return static_cast<size_t>(std::wcstoul(text, nullptr, 10));
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  if (count < 5) return 2;
  Load load{{arguments + 4, arguments + count},
            {},
            Number(arguments[1]),
            Number(arguments[2]),
            Number(arguments[3])};
  std::getline(std::cin, load.request);
  load.request += '\n';
  const size_t pipes = load.pipes.size();
  std::vector<std::vector<Seen>> seen(pipes);
  for (std::vector<Seen>& clients : seen) clients.resize(load.clients);
  for (size_t block = 0; block < load.blocks; ++block) {
    for (size_t turn = 0; turn < pipes; ++turn) {
      const size_t pipe = (block + turn) % pipes;
      RunBlock(load, load.pipes[pipe], seen[pipe]);
    }
  }
  bool good = true;
  for (size_t pipe = 0; pipe < pipes; ++pipe) good = Print(pipe, seen[pipe]) && good;
  return good ? 0 : 1;
}
