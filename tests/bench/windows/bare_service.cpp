// The least that a service can be: the floor of what the real one holds while it is idle.
#include <windows.h>

namespace {

HANDLE gStop = nullptr;
SERVICE_STATUS_HANDLE gStatus = nullptr;
wchar_t gName[] = L"TELVORBARE";

void Report(DWORD state) {
  SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, SERVICE_ACCEPT_STOP, NO_ERROR, 0, 0, 0};
  SetServiceStatus(gStatus, &status);
}

void WINAPI Run(DWORD, wchar_t**) {
  gStop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  gStatus = RegisterServiceCtrlHandlerW(gName, [](DWORD control) {
    if (control == SERVICE_CONTROL_STOP) SetEvent(gStop);
  });
  Report(SERVICE_RUNNING);
  WaitForSingleObject(gStop, INFINITE);
  Report(SERVICE_STOPPED);
}

}  // namespace

int wmain() {
  const SERVICE_TABLE_ENTRYW services[] = {{gName, Run}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(services) ? 0 : 1;
}
