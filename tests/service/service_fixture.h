// The product under the simulated service manager, over fake operations.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/tunnel_state.h"
#include "sim/files.h"
#include "sim/kernel.h"
#include "sim/services.h"
#include "tests/support/fake_operations.h"
#include "tests/support/sim_failures.h"

using Lines = std::vector<std::string>;

class ServiceRun {
 public:
  ServiceRun() {
    sim::MakeFolder(L"C:\\ProgramData\\TELVOR");
    fake::PlugOperations();
    operations_ = gWorkerOperations;
  }

  // The fake operations replace the real ones just before the dispatcher begins.
  void Start() {
    sim::Before("StartServiceCtrlDispatcherW", [this] { gWorkerOperations = operations_; });
    sim::StartProduct(true);
  }

  // Until every thread has come to its first wait.
  void StartAndWaitForRunning() {
    Start();
    ASSERT_TRUE(sim::RunUntil([] { return sim::LogHas("Service RUNNING."); }, 1000));
    sim::Run(1);
  }

  // By a terminal, with these arguments.
  void StartInTerminal(const std::vector<std::wstring>& arguments) {
    sim::Before("CreateEventW", [this] { gWorkerOperations = operations_; });
    sim::StartProduct(false, arguments);
  }

  void WaitForEnd(uint64_t milliseconds = 60'000) {
    ASSERT_TRUE(sim::RunUntil([] { return sim::ProductExitCode().has_value(); }, milliseconds));
  }

 private:
  sim::Machine machine_;
  WorkerOperations operations_;
};

// The process ends right behind its STOPPED report; with this it lives on for a second, to see its own end.
inline void LetTheProcessLinger() {
  sim::Before(
      "CreateFileW", [] { platform::Sleep(1000); }, "13-dispatch-returned.txt");
}

// What the supervising thread and the control handler logged, without the worker's lines.
inline Lines ServiceLines() {
  Lines found;
  for (const std::string& line : sim::LogLines()) {
    for (const char* prefix : {"Service", "Worker thread started (supervised).", "IPC thread",
                               "CreateThread(", "CreateEvent failed."}) {
      if (line.rfind(prefix, 0) == 0) found.push_back(line);
    }
  }
  return found;
}

// "type state controls exit specific checkpoint hint", one a report.
inline Lines Reports() {
  Lines texts;
  for (const platform::ServiceStatus& status : sim::StatusReports()) {
    std::string text;
    for (const uint32_t field :
         {status.dwServiceType, status.dwCurrentState, status.dwControlsAccepted, status.dwWin32ExitCode,
          status.dwServiceSpecificExitCode, status.dwCheckPoint, status.dwWaitHint}) {
      text += (text.empty() ? "" : " ") + std::to_string(field);
    }
    texts.push_back(text);
  }
  return texts;
}

inline constexpr char kStartPendingReport[] = "16 2 261 0 0 1 5000";
inline constexpr char kRunningReport[] = "16 4 261 0 0 0 0";
inline constexpr char kStopPendingReport[] = "16 3 261 0 0 1 5000";
inline constexpr char kStoppedReport[] = "16 1 261 0 0 0 0";

// The calls of these operations, in order.
inline Lines CallsOf(const std::vector<std::string>& operations) {
  Lines found;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    for (const std::string& operation : operations) {
      if (entry.operation == operation) found.emplace_back(entry.operation);
    }
  }
  return found;
}

inline std::string MarkerText(const std::wstring& name) {
  return sim::FileBytes(L"C:\\VPN\\stage\\" + name).value_or("missing");
}

// The marker files written, in order.
inline Lines Markers() {
  const std::string folder = "path=\"C:\\VPN\\stage\\";
  Lines names;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation != "CreateFileW" || entry.arguments.rfind(folder, 0) != 0) continue;
    names.push_back(
        entry.arguments.substr(folder.size(), entry.arguments.find('"', folder.size()) - folder.size()));
  }
  return names;
}
