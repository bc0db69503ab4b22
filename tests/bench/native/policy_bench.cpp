// A policy text parsed, sorted and made unique, beside sort -u on the same lines.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "splittunnel/runtime_policy.h"

namespace {

namespace fs = std::filesystem;

constexpr std::mt19937::result_type kSeed = 1;

// Addresses, every tenth of them a second time.
std::vector<std::string> Lines(int64_t count) {
  std::mt19937 random(kSeed);
  std::vector<std::string> lines;
  for (int64_t number = 0; number < count; ++number) {
    if (number % 10 == 9) {
      lines.push_back(lines[random() % lines.size()]);
      continue;
    }
    const auto address = static_cast<uint32_t>(random());
    lines.push_back(std::to_string(address >> 24) + '.' + std::to_string(address >> 16 & 255) + '.' +
                    std::to_string(address >> 8 & 255) + '.' + std::to_string(address & 255));
  }
  return lines;
}

std::wstring PolicyText(const std::vector<std::string>& lines) {
  std::wstring text = L"[ips]\n";
  for (const std::string& line : lines) text += std::wstring(line.begin(), line.end()) + L'\n';
  return text;
}

bool IsSorted(const std::vector<std::string>& lines, const RuntimePolicy& policy) {
  std::vector<std::string> expected = lines;
  std::sort(expected.begin(), expected.end());
  expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
  return std::equal(expected.begin(), expected.end(), policy.ips.begin(), policy.ips.end(),
                    [](const std::string& narrow, const std::wstring& wide) {
                      return std::equal(narrow.begin(), narrow.end(), wide.begin(), wide.end());
                    });
}

void PolicyTelvor(benchmark::State& state) {
  const std::vector<std::string> lines = Lines(state.range(0));
  const std::wstring text = PolicyText(lines);
  for (auto _ : state) {
    RuntimePolicy policy = ParseRuntimePolicyText(text);
    benchmark::DoNotOptimize(policy.ips.data());
    state.PauseTiming();  // a service keeps its policy
    policy = {};
    state.ResumeTiming();
  }
  if (!IsSorted(lines, ParseRuntimePolicyText(text))) state.SkipWithError("not sorted as expected");
}

void PolicySort(benchmark::State& state) {
  const fs::path path = fs::temp_directory_path() / ("telvor-bench-" + std::to_string(state.range(0)));
  {
    std::ofstream file(path);
    for (const std::string& line : Lines(state.range(0))) file << line << '\n';
  }
  const std::string command = "LC_ALL=C sort -u '" + path.string() + "' > /dev/null";
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) state.SkipWithError("sort failed");
  }
  fs::remove(path);
}

BENCHMARK(PolicyTelvor)
    ->RangeMultiplier(10)
    ->Range(1000, 1000000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(PolicySort)
    ->RangeMultiplier(10)
    ->Range(1000, 1000000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
