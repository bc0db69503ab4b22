// The least that a service can be: the floor of what the real one holds while it is idle.
//
//     bare_service [HOST PORT REQUESTS]   makes so many requests by HTTPS first, each in a session of its own
//     as
//                                         the real one does: the floor of what a connect leaves behind
#include <windows.h>
// clang-format off
#include <winhttp.h>
// clang-format on

#include <cstdlib>
#include <initializer_list>

namespace {

HANDLE gStop = nullptr;
SERVICE_STATUS_HANDLE gStatus = nullptr;
wchar_t gName[] = L"TELVORBARE";
const wchar_t* gHost = nullptr;
INTERNET_PORT gPort = 0;
int gRequests = 0;

// False if there was no answer.
bool Request() {
  const HINTERNET session =
      WinHttpOpen(gName, WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
  const HINTERNET connection = WinHttpConnect(session, gHost, gPort, 0);
  const HINTERNET request = WinHttpOpenRequest(connection, L"GET", L"/", nullptr, WINHTTP_NO_REFERER,
                                               WINHTTP_DEFAULT_ACCEPT_TYPES, WINHTTP_FLAG_SECURE);
  const bool answered = WinHttpSendRequest(request, WINHTTP_NO_ADDITIONAL_HEADERS, 0, nullptr, 0, 0, 0) &&
                        WinHttpReceiveResponse(request, nullptr);
  for (const HINTERNET handle : {request, connection, session}) WinHttpCloseHandle(handle);
  return answered;
}

void Report(DWORD state) {
  SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, SERVICE_ACCEPT_STOP, NO_ERROR, 0, 0, 0};
  SetServiceStatus(gStatus, &status);
}

void WINAPI Run(DWORD, wchar_t**) {
  gStop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  gStatus = RegisterServiceCtrlHandlerW(gName, [](DWORD control) {
    if (control == SERVICE_CONTROL_STOP) SetEvent(gStop);
  });
  Report(SERVICE_START_PENDING);
  bool good = true;
  for (; good && gRequests > 0; --gRequests) good = Request();
  if (good) {
    Report(SERVICE_RUNNING);
    WaitForSingleObject(gStop, INFINITE);
  }
  Report(SERVICE_STOPPED);
}

}  // namespace

int wmain(int count, wchar_t** words) {
  if (count == 4) {
    gHost = words[1];
    gPort = static_cast<INTERNET_PORT>(_wtoi(words[2]));
    gRequests = _wtoi(words[3]);
  }
  const SERVICE_TABLE_ENTRYW services[] = {{gName, Run}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(services) ? 0 : 1;
}
