// A worker thread over fake operations.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "engine/tunnel_state.h"
#include "engine/worker.h"
#include "sim/files.h"
#include "sim/kernel.h"
#include "tests/support/fake_operations.h"
#include "tests/support/sim_failures.h"

using Journal = std::vector<std::string>;

// A machine with the data root, fake operations and a stop event; ends the worker when it goes.
class WorkerRun {
 public:
  WorkerRun() {
    sim::MakeFolder(L"C:\\ProgramData\\TELVOR");
    fake::PlugOperations();
    gStopEvent = platform::CreateEventW(true, false);
  }

  ~WorkerRun() {
    if (thread_) Stop();
    if (gStopEvent) platform::CloseHandle(gStopEvent);
  }

  void Start() {
    ASSERT_EQ(thread_, nullptr);
    thread_ = platform::CreateThread(WorkerLoop, nullptr);
    ASSERT_NE(thread_, nullptr);
  }

  // Waits for the worker's own end. Its exit code is 0 in every case.
  void Wait() {
    ASSERT_EQ(platform::WaitForSingleObject(thread_, 86'400'000), platform::kWaitObject0);
    uint32_t exitCode = 99;
    EXPECT_TRUE(platform::GetExitCodeThread(thread_, exitCode));
    EXPECT_EQ(exitCode, 0u);
    platform::CloseHandle(thread_);
    thread_ = nullptr;
  }

  void Stop() {
    platform::SetEvent(gStopEvent);
    Wait();
  }

  bool Ended() const { return platform::WaitForSingleObject(thread_, 0) == platform::kWaitObject0; }

  // The process died: its handles are closed already.
  void Forget() { thread_ = nullptr; }

 private:
  sim::Machine machine_;
  platform::Handle thread_ = nullptr;
};

// The writes of a connect request.
inline void WriteConnectIntent() {
  gTunnelDesired = 1;
  gTunnelEpoch++;
  gTunnelStatus = 1;
}

inline void SignalStop() {
  platform::SetEvent(gStopEvent);
}

inline void StopAtCall(const std::string& operation, size_t number) {
  fake::OnCall(operation, number, SignalStop);
}

// What happened after the start-up's clearing of the firewall.
inline Journal Passes() {
  const Journal& all = fake::Journal();
  const auto opened = std::find(all.begin(), all.end(), "call RollbackToOpen");
  return opened == all.end() ? Journal{} : Journal(opened + 1, all.end());
}

inline Journal LastOf(const Journal& journal, size_t count) {
  return Journal(journal.end() - static_cast<std::ptrdiff_t>(std::min(count, journal.size())), journal.end());
}

inline size_t CountLines(const std::string& entry) {
  const Journal& all = fake::Journal();
  return static_cast<size_t>(std::count(all.begin(), all.end(), entry));
}

inline std::vector<uint64_t> Gaps(const std::vector<uint64_t>& times) {
  std::vector<uint64_t> gaps;
  for (size_t i = 1; i < times.size(); ++i) gaps.push_back(times[i] - times[i - 1]);
  return gaps;
}

inline std::string Utf16Bytes(const std::wstring& text) {
  std::string bytes;
  for (const wchar_t unit : text) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>((unit >> 8) & 0xFF);
  }
  return bytes;
}

// A worker in its connected loop, with two bypass addresses.
inline void StartConnected(WorkerRun& run) {
  fake::gState.policy.ips = {L"10.0.0.1", L"9.0.0.1"};
  WriteConnectIntent();
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 2; }, 10'000));
}
