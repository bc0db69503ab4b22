#include "service/entry.h"

#include <string>
#include <string_view>

#include "service/console_host.h"
#include "service/lifecycle.h"
#include "service/platform.h"
#include "service/stage_marker.h"
#include "service/wiring.h"

uint32_t RunAsService() {
  WriteStageMarker(L"10-runasservice-enter.txt", L"entered RunAsService\r\n");
  WriteStageMarker(L"11-before-dispatch.txt", L"before StartServiceCtrlDispatcherW\r\n");
  if (platform::StartServiceCtrlDispatcherW(kServiceName, &ServiceMain)) {
    WriteStageMarker(L"13-dispatch-returned.txt", L"dispatcher returned\r\n");
    return 0;
  }
  const uint32_t error = platform::GetLastError();
  WriteStageMarker(L"12-dispatch-failed.txt",
                   L"StartServiceCtrlDispatcherW failed, GLE=" + std::to_wstring(error) + L"\r\n");
  return error;
}

extern "C" int wmain(int argc, wchar_t** argv) {
  WriteStageMarker(L"01-wmain-enter.txt", L"entered wmain\r\n");
  WireSubsystems();
  if (argc > 1 && std::wstring_view(argv[1]) == L"--console") {
    WriteStageMarker(L"02-wmain-console.txt", L"--console path\r\n");
    return static_cast<int>(RunConsoleMode());
  }
  WriteStageMarker(L"03-before-runasservice.txt", L"before RunAsService\r\n");
  const uint32_t code = RunAsService();
  WriteStageMarker(L"04-after-runasservice.txt", L"RunAsService rc=" + std::to_wstring(code) + L"\r\n");
  if (code == platform::kErrorFailedServiceControllerConnect) {
    WriteStageMarker(L"05-fallback-console.txt", L"fallback to console\r\n");
    return static_cast<int>(RunConsoleMode());
  }
  return static_cast<int>(code);
}
