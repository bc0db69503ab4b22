// The view of the log on the real platform layer, beside reading the file once into memory.
//
//     log_view_bench FOLDER time LIMIT REPETITIONS   nanoseconds, a line each, in turn: "view N", "read N",
//                                                    "path N": what finding the log takes of a view
//     log_view_bench FOLDER peak LIMIT               bytes by which one view raised the peak working set
//     log_view_bench FOLDER text LIMIT               the text of one view
//
// FOLDER stands for %ProgramData%; the log must be there.
#include <windows.h>
// clang-format off
#include <psapi.h>
// clang-format on

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "ipc/views.h"
#include "service/log.h"

namespace {

using Clock = std::chrono::steady_clock;

size_t View(int32_t limit) {
  return BuildRecentLogsJson(limit).size();
}

size_t ReadOnce(const std::wstring& path) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  LARGE_INTEGER size{};
  GetFileSizeEx(file, &size);
  const auto bytes = std::make_unique_for_overwrite<char[]>(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  ReadFile(file, bytes.get(), static_cast<DWORD>(size.QuadPart), &read, nullptr);
  CloseHandle(file);
  return read;
}

template <typename Work>
void Time(const char* name, const Work& work) {
  const auto begin = Clock::now();
  const size_t result = work();
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count();
  if (result == 0) std::exit(3);
  std::printf("%s %lld\n", name, static_cast<long long>(nanoseconds));
}

size_t PeakWorkingSet() {
  PROCESS_MEMORY_COUNTERS counters{};
  GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
  return counters.PeakWorkingSetSize;
}

}  // namespace

int main(int count, char** words) {
  if (count < 4 || !SetEnvironmentVariableA("ProgramData", words[1])) return 2;
  const std::string_view what = words[2];
  const auto limit = static_cast<int32_t>(std::atoi(words[3]));
  const std::wstring path = GetLogFilePath();
  if (what == "time" && count == 5) {
    for (int repetition = std::atoi(words[4]); repetition > 0; --repetition) {
      if (repetition % 2 == 0) Time("view", [limit] { return View(limit); });
      Time("read", [&path] { return ReadOnce(path); });
      if (repetition % 2 != 0) Time("view", [limit] { return View(limit); });
      Time("path", [] { return GetLogFilePath().size(); });
    }
    return 0;
  }
  if (what == "text") {
    std::puts(BuildRecentLogsJson(limit).c_str());
    return 0;
  }
  if (what == "peak") {
    const size_t before = PeakWorkingSet();
    if (View(limit) == 0) return 3;
    std::printf("%zu\n", PeakWorkingSet() - before);
    return 0;
  }
  return 2;
}
