#include "service/lifecycle.h"

#include <string>

#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "engine/worker.h"
#include "ipc/pipe_server.h"
#include "service/log.h"
#include "service/platform.h"
#include "service/stage_marker.h"

namespace {

constexpr uint32_t kServiceWin32OwnProcess = 16;
constexpr uint32_t kControlsAccepted =
    261;  // stop, shutdown, preshutdown; reported in the pending states too
constexpr uint32_t kPendingWaitHint = 5000;  // milliseconds
constexpr uint32_t kThreadWait = 5000;       // milliseconds that the shutdown gives each thread
constexpr uint32_t kTunnelStopWait = 8000;   // milliseconds
constexpr uint32_t kOwnStopWait = 8000;      // milliseconds
constexpr uint32_t kOwnStopPoll = 100;       // milliseconds

constexpr uint32_t kServiceControlShutdown = 5;
constexpr uint32_t kServiceControlPreshutdown = 15;

// The pending states carry the next check point, the others reset it.
void ReportStatus(uint32_t state, uint32_t exitCode) {
  const bool pending = state == platform::kServiceStartPending || state == platform::kServiceStopPending;
  gServiceStatus.dwCurrentState = state;
  gServiceStatus.dwWin32ExitCode = exitCode;
  gServiceStatus.dwCheckPoint = pending ? gServiceCheckPoint : 0;
  gServiceStatus.dwWaitHint = pending ? kPendingWaitHint : 0;
  gServiceCheckPoint = pending ? gServiceCheckPoint + 1 : 1;
  platform::SetServiceStatus(gServiceStatusHandle, gServiceStatus);
}

void CloseAndClear(platform::Handle& handle) {
  if (!handle) return;
  platform::CloseHandle(handle);
  handle = nullptr;
}

// Clients that are still served read the variable meanwhile.
void CloseStopEvent() {
  if (const platform::Handle event = gStopEvent.exchange(nullptr)) platform::CloseHandle(event);
}

// The firewall's objects outlive the process; an abnormal end must not leave them in force.
void InstallCrashHooks() {
  platform::SetUnhandledExceptionFilter([]() -> int32_t {
    constexpr int32_t kExecuteHandler = 1;
    gWorkerOperations.RollbackToOpen();
    return kExecuteHandler;
  });
  platform::SetTerminate([] {
    gWorkerOperations.RollbackToOpen();
    platform::Abort();
  });
  platform::AtExit([] { gWorkerOperations.RollbackToOpen(); });
}

// On failure `error` is the reason.
bool StartWorker(uint32_t& error) {
  CloseAndClear(gWorkerThread);
  gWorkerThread = platform::CreateThread(&WorkerLoop, nullptr);
  if (!gWorkerThread) {
    error = platform::GetLastError();
    LogLine(L"CreateThread(worker) failed.");
    return false;
  }
  LogLine(L"Worker thread started (supervised).");
  return true;
}

void StartPipeThread() {
  if (gIpcThread) return;
  gIpcThread = platform::CreateThread(&IpcThread, nullptr);
  LogLine(gIpcThread ? L"IPC thread started." : L"CreateThread(IPC) failed.");
}

// A worker that ended. True if the supervision goes on.
bool RestartWorker() {
  uint32_t exitCode = 0;
  platform::GetExitCodeThread(gWorkerThread, exitCode);
  LogLine(L"ServiceMain: worker exited. exitCode=" + std::to_wstring(exitCode));
  if (platform::WaitForSingleObject(gStopEvent, 0) == platform::kWaitObject0) return false;
  // Wanted: nothing damps a worker that keeps ending.
  LogLine(L"ServiceMain: restarting worker (stop not requested).");
  uint32_t error = 0;
  if (StartWorker(error)) return true;
  LogLine(L"ServiceMain: failed to restart worker; stopping service.");
  return false;
}

// Returns when the service is to shut down.
void SuperviseWorker() {
  for (;;) {
    const platform::Handle handles[] = {gStopEvent, gWorkerThread};
    const uint32_t result = platform::WaitForMultipleObjects(2, handles, false, platform::kInfinite);
    if (result == platform::kWaitObject0) {
      LogLine(L"ServiceMain: stop event signaled; shutting down.");
      return;
    }
    if (result != platform::kWaitObject0 + 1) {
      const uint32_t error = platform::GetLastError();
      LogLine(L"ServiceMain: WaitForMultipleObjects failed. GLE=" + std::to_wstring(error));
      return;
    }
    if (!RestartWorker()) return;
  }
}

void WaitAndClose(platform::Handle& thread) {
  if (!thread) return;
  platform::WaitForSingleObject(thread, kThreadWait);
  CloseAndClear(thread);
}

void ShutDown() {
  WaitAndClose(gIpcThread);
  WaitAndClose(gWorkerThread);
  CloseStopEvent();
  LogLine(L"Service STOPPED.");
  ReportStatus(platform::kServiceStopped, 0);
}

void SignalStop() {
  const platform::Handle event = gStopEvent;
  if (!event) {
    LogLine(L"ServiceCtrlHandlerEx: gStopEvent is NULL");
    return;
  }
  const bool ok = platform::SetEvent(event);
  const uint32_t error = platform::GetLastError();
  LogLine(std::wstring(L"ServiceCtrlHandlerEx: SetEvent(gStopEvent) ok=") + (ok ? L"true" : L"false") +
          L" GLE=" + std::to_wstring(error));
}

bool WaitForOwnStop(platform::Handle service) {
  const uint64_t start = platform::GetTickCount64();
  uint32_t state = 0;
  while (platform::QueryServiceStatusEx(service, state)) {
    if (state == platform::kServiceStopped) return true;
    if (platform::GetTickCount64() - start > kOwnStopWait) return false;
    platform::Sleep(kOwnStopPoll);
  }
  return false;
}

}  // namespace

void ServiceMain() {
  WriteStageMarker(L"20-servicemain-enter.txt", L"entered ServiceMain\r\n");
  gServiceStatusHandle = platform::RegisterServiceCtrlHandlerExW(kServiceName, &ServiceCtrlHandlerEx);
  if (!gServiceStatusHandle) return;
  gServiceStatus.dwServiceType = kServiceWin32OwnProcess;
  gServiceStatus.dwControlsAccepted = kControlsAccepted;
  ReportStatus(platform::kServiceStartPending, 0);
  LogLine(L"Service starting.");
  InstallCrashHooks();
  gStopEvent = platform::CreateEventW(true, false);
  if (!gStopEvent) {
    const uint32_t error = platform::GetLastError();
    LogLine(L"CreateEvent failed.");
    ReportStatus(platform::kServiceStopped, error);
    return;
  }
  uint32_t error = 0;
  if (!StartWorker(error)) {
    ReportStatus(platform::kServiceStopped, error);
    CloseStopEvent();
    return;
  }
  StartPipeThread();
  ReportStatus(platform::kServiceRunning, 0);
  LogLine(L"Service RUNNING.");
  SuperviseWorker();
  ShutDown();
}

uint32_t ServiceCtrlHandlerEx(uint32_t control) {
  LogLine(L"ServiceCtrlHandlerEx: ctrl=" + std::to_wstring(control));
  if (control != platform::kServiceControlStop && control != kServiceControlShutdown &&
      control != kServiceControlPreshutdown) {
    return 0;
  }
  LogLine(L"ServiceCtrlHandlerEx: STOP/SHUTDOWN received");
  if (gServiceStatusHandle) ReportStatus(platform::kServiceStopPending, 0);
  WriteDisconnectIntent();
  gWorkerOperations.StopTunnelService(kTunnelName, kTunnelStopWait);
  SignalStop();
  gWorkerOperations.RollbackToOpen();
  return 0;
}

bool StopOwnService() {
  platform::Handle manager = platform::OpenSCManagerW(platform::kScManagerConnect);
  if (!manager) return false;
  platform::Handle service =
      platform::OpenServiceW(manager, kServiceName, platform::kServiceQueryStatus | platform::kServiceStop);
  bool stopped = false;
  if (service) {
    platform::ControlService(service, platform::kServiceControlStop);
    stopped = WaitForOwnStop(service);
    platform::CloseServiceHandle(service);
  }
  platform::CloseServiceHandle(manager);
  return stopped;
}
