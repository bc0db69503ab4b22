#include "wireguard/tunnel_service.h"

#include <string_view>
#include <vector>

#include "service/log.h"
#include "service/scope_guard.h"
#include "service/wide_text.h"
#include "wireguard/platform.h"
#include "wireguard/process_runner.h"

namespace {

constexpr std::wstring_view kServiceNamePrefix = L"WireGuardTunnel$";
constexpr uint32_t kPollIntervalMs = 250;
constexpr uint32_t kUninstallStopTimeoutMs = 8000;
constexpr uint32_t kExtraTunnelStopTimeoutMs = 30000;
constexpr uint32_t kRestartTimeoutMs = 60000;

std::wstring ServiceName(const std::wstring& tunnelName) {
  return std::wstring(kServiceNamePrefix) + tunnelName;
}

auto CloseServiceHandleLater(platform::Handle handle) {
  return ScopeGuard([handle] {
    if (handle != nullptr) platform::CloseServiceHandle(handle);
  });
}

bool LogLastError(const wchar_t* what) {
  const uint32_t code = platform::GetLastError();
  LogWin32Error(what, code);
  return false;
}

bool QueryState(platform::Handle service, uint32_t& state) {
  return platform::QueryServiceStatusEx(service, state) || LogLastError(L"QueryServiceStatusEx");
}

bool StopAndWait(platform::Handle service, uint32_t timeoutMs) {
  if (!platform::ControlService(service, platform::kServiceControlStop)) {
    const uint32_t code = platform::GetLastError();
    if (code != platform::kErrorServiceNotActive) {
      LogWin32Error(L"ControlService(STOP)", code);
      return false;
    }
  }
  if (WaitServiceState(service, platform::kServiceStopped, timeoutMs)) return true;
  LogLine(L"WireGuard tunnel service did not reach STOPPED within timeout.");
  return false;
}

bool StartAndWait(platform::Handle service) {
  if (!platform::StartServiceW(service)) {
    const uint32_t code = platform::GetLastError();
    if (code != platform::kErrorServiceAlreadyRunning) {
      LogWin32Error(L"StartServiceW", code);
      return false;
    }
  }
  if (WaitServiceState(service, platform::kServiceRunning, kRestartTimeoutMs)) return true;
  LogLine(L"WireGuard tunnel service did not reach RUNNING within timeout.");
  return false;
}

bool EnumerateServices(platform::Handle manager, std::vector<platform::ServiceEntry>& services) {
  const auto enumerate = [&](uint32_t bufferSize, uint32_t& bytesNeeded) {
    return platform::EnumServicesStatusExW(manager, platform::kScEnumProcessInfo, platform::kServiceWin32,
                                           platform::kServiceStateAll, bufferSize, bytesNeeded, services);
  };
  uint32_t size = 0;
  if (!enumerate(0, size) && (platform::GetLastError() != platform::kErrorMoreData || size == 0)) {
    return false;
  }
  uint32_t stillNeeded = 0;
  return enumerate(size, stillNeeded) || LogLastError(L"EnumServicesStatusExW");
}

}  // namespace

bool TunnelServiceExists(const std::wstring& name) {
  const platform::Handle manager = platform::OpenSCManagerW(platform::kScManagerConnect);
  if (manager == nullptr) return false;
  const auto closeManager = CloseServiceHandleLater(manager);
  const platform::Handle service =
      platform::OpenServiceW(manager, ServiceName(name), platform::kServiceQueryStatus);
  const auto closeService = CloseServiceHandleLater(service);
  return service != nullptr;
}

bool IsTunnelServiceRunning(const std::wstring& name) {
  const platform::Handle manager = platform::OpenSCManagerW(platform::kScManagerConnect);
  if (manager == nullptr) return LogLastError(L"OpenSCManagerW");
  const auto closeManager = CloseServiceHandleLater(manager);
  const platform::Handle service =
      platform::OpenServiceW(manager, ServiceName(name), platform::kServiceQueryStatus);
  if (service == nullptr) return false;
  const auto closeService = CloseServiceHandleLater(service);
  uint32_t state = 0;
  return platform::QueryServiceStatusEx(service, state) && state == platform::kServiceRunning;
}

bool WaitServiceState(platform::Handle service, uint32_t state, uint32_t timeoutMs) {
  const uint64_t start = platform::GetTickCount64();
  for (;;) {
    uint32_t current = 0;
    if (!QueryState(service, current)) return false;
    if (current == state) return true;
    if (platform::GetTickCount64() - start > timeoutMs) return false;
    platform::Sleep(kPollIntervalMs);
  }
}

bool StopTunnelService(const std::wstring& name, uint32_t timeoutMs) {
  const platform::Handle manager = platform::OpenSCManagerW(platform::kScManagerConnect);
  if (manager == nullptr) return LogLastError(L"OpenSCManagerW");
  const auto closeManager = CloseServiceHandleLater(manager);
  const platform::Handle service = platform::OpenServiceW(
      manager, ServiceName(name), platform::kServiceQueryStatus | platform::kServiceStop);
  // Wanted: whatever the reason, a service that cannot be opened leaves nothing to stop.
  if (service == nullptr) return true;
  const auto closeService = CloseServiceHandleLater(service);
  uint32_t state = 0;
  if (!QueryState(service, state)) return false;
  return state == platform::kServiceStopped || StopAndWait(service, timeoutMs);
}

bool RestartTunnelService(const std::wstring& name) {
  const platform::Handle manager = platform::OpenSCManagerW(platform::kScManagerConnect);
  if (manager == nullptr) return LogLastError(L"OpenSCManagerW");
  const auto closeManager = CloseServiceHandleLater(manager);
  const platform::Handle service = platform::OpenServiceW(
      manager, ServiceName(name),
      platform::kServiceQueryStatus | platform::kServiceStart | platform::kServiceStop);
  if (service == nullptr) return LogLastError(L"OpenServiceW");
  const auto closeService = CloseServiceHandleLater(service);
  uint32_t state = 0;
  if (!QueryState(service, state)) return false;
  if (state == platform::kServiceRunning && !StopAndWait(service, kRestartTimeoutMs)) return false;
  return StartAndWait(service);
}

bool UninstallTunnelService(const std::wstring& name) {
  StopTunnelService(name, kUninstallStopTimeoutMs);
  uint32_t exitCode = 0;
  std::wstring stdoutText;
  std::wstring stderrText;
  std::wstring failure;
  if (!RunProcessCapture(kWireGuardProgram, L"/uninstalltunnelservice " + name, exitCode, stdoutText,
                         stderrText)) {
    failure = L"failed to execute for tunnel=" + name;
  } else if (exitCode != 0 && TunnelServiceExists(name)) {
    failure = L"failed ec=" + std::to_wstring(exitCode) + L" tunnel=" + name;
  } else {
    return !TunnelServiceExists(name);
  }
  LogLine(L"wireguard.exe uninstalltunnelservice " + failure);
  LogLineUnlessEmpty(L"stdout: ", stdoutText);
  LogLineUnlessEmpty(L"stderr: ", stderrText);
  return false;
}

void EnforceSingleTunnel(const std::wstring& keepName) {
  const std::wstring keptService = ServiceName(keepName);
  const platform::Handle manager =
      platform::OpenSCManagerW(platform::kScManagerConnect | platform::kScManagerEnumerateService);
  if (manager == nullptr) {
    LogLastError(L"OpenSCManagerW(enum)");
    return;
  }
  const auto closeManager = CloseServiceHandleLater(manager);
  std::vector<platform::ServiceEntry> services;
  if (!EnumerateServices(manager, services)) return;
  for (const platform::ServiceEntry& service : services) {
    // Wanted: the prefix is compared with its case, the kept name without.
    if (!service.name.starts_with(kServiceNamePrefix)) continue;
    if (EqualsIgnoringCase(service.name, keptService)) continue;
    if (service.currentState != platform::kServiceRunning) continue;
    LogLine(L"Single-tunnel invariant: stopping extra tunnel service: " + service.name);
    StopTunnelService(service.name.substr(kServiceNamePrefix.size()), kExtraTunnelStopTimeoutMs);
  }
}
