// The least that a service can be: the floor of what the real one holds while it is idle.
//
//     bare_service
//     bare_asking_service HOST PORT REQUESTS
//
// The second makes so many requests by HTTPS first, each in a session of its own as the real one does: the
// floor of what connects leave behind. It is a program of its own, since the first is not even to load the
// library for it.
#include <windows.h>

#if defined(TELVOR_ASKS)
#include <winhttp.h>

#include <cstdlib>
#include <initializer_list>
#endif

namespace {

HANDLE gStop = nullptr;
SERVICE_STATUS_HANDLE gStatus = nullptr;
wchar_t gName[] = L"TELVORBARE";

#if defined(TELVOR_ASKS)

// False if there was no answer.
bool Ask(const wchar_t* host, INTERNET_PORT port) {
  const HINTERNET session =
      WinHttpOpen(gName, WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
  const HINTERNET connection = WinHttpConnect(session, host, port, 0);
  const HINTERNET request = WinHttpOpenRequest(connection, L"GET", L"/", nullptr, WINHTTP_NO_REFERER,
                                               WINHTTP_DEFAULT_ACCEPT_TYPES, WINHTTP_FLAG_SECURE);
  const bool answered = WinHttpSendRequest(request, WINHTTP_NO_ADDITIONAL_HEADERS, 0, nullptr, 0, 0, 0) &&
                        WinHttpReceiveResponse(request, nullptr);
  for (const HINTERNET handle : {request, connection, session}) WinHttpCloseHandle(handle);
  return answered;
}

bool Prepare(int count, wchar_t** words) {
  if (count != 4) return false;
  for (int requests = _wtoi(words[3]); requests > 0; --requests) {
    if (!Ask(words[1], static_cast<INTERNET_PORT>(_wtoi(words[2])))) return false;
  }
  return true;
}

#else

bool Prepare(int, wchar_t**) {
  return true;
}

#endif

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

int wmain(int count, wchar_t** words) {
  if (!Prepare(count, words)) return 1;
  const SERVICE_TABLE_ENTRYW services[] = {{gName, Run}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(services) ? 0 : 1;
}
