#include "service/console_host.h"

#include "engine/tunnel_state.h"
#include "engine/worker.h"
#include "service/log.h"
#include "service/platform.h"

uint32_t RunConsoleMode() {
  LogLine(L"Console mode: starting (not under SCM). Press Ctrl+C to stop.");
  gStopEvent = platform::CreateEventW(true, false);
  if (!gStopEvent) return platform::GetLastError();
  platform::SetConsoleCtrlHandler(&ConsoleCtrlHandler);
  gWorkerThread = platform::CreateThread(&WorkerLoop, nullptr);
  if (!gWorkerThread) return platform::GetLastError();
  platform::WaitForSingleObject(gWorkerThread, platform::kInfinite);
  platform::CloseHandle(gWorkerThread);
  gWorkerThread = nullptr;
  platform::CloseHandle(gStopEvent);
  gStopEvent = nullptr;
  LogLine(L"Console mode: exited.");
  return 0;
}

bool ConsoleCtrlHandler(uint32_t type) {
  constexpr uint32_t kCtrlCloseEvent = 2;
  if (type > kCtrlCloseEvent) return false;
  LogLine(L"Console Ctrl event: stopping.");
  if (const platform::Handle event = gStopEvent) platform::SetEvent(event);
  return true;
}
