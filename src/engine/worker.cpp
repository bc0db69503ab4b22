#include "engine/worker.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "controlplane/text.h"
#include "engine/drop_file.h"
#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "engine/worker_startup.h"
#include "service/log.h"
#include "service/paths.h"
#include "service/platform.h"

namespace {

constexpr wchar_t kHandshakeTimeout[] = L"HANDSHAKE_TIMEOUT";

constexpr uint32_t kTick = 250;                    // milliseconds
constexpr uint32_t kFirstBackoff = 1000;           // milliseconds
constexpr uint32_t kLongestBackoff = 30000;        // milliseconds
constexpr uint32_t kTunnelStopWait = 8000;         // milliseconds
constexpr uint32_t kHandshakeAttempts = 3;         // failed in a row until the worker parks in ERROR
constexpr int32_t kQuickRefreshes = 3;             // refreshes at the quick interval, then the slow one
constexpr uint64_t kQuickRefreshInterval = 30000;  // milliseconds
constexpr uint64_t kSlowRefreshInterval = 300000;  // milliseconds
constexpr uint32_t kResolveAttempts = 5;
constexpr uint32_t kResolvePause = 250;  // milliseconds, times the attempt's number

// What lives and dies with one run of the thread.
struct Run {
  uint32_t backoffMs = kFirstBackoff;
  uint32_t handshakeAttempts = 0;
  uint64_t startEpoch = 0;
};

uint32_t WaitForStop(uint32_t milliseconds) {
  return platform::WaitForSingleObject(gStopEvent, milliseconds);
}

std::vector<std::wstring> CopyUnderBypassLock(const std::vector<std::wstring>& list) {
  std::lock_guard lock(gBypassMutex);
  return list;
}

// Looks at neither desired nor epoch: a change of intent waits until the back-off is over.
void BackoffWait(Run& run) {
  if (WaitForStop(run.backoffMs) == platform::kWaitObject0) return;
  if (run.backoffMs < kLongestBackoff) run.backoffMs = std::min(run.backoffMs * 2, kLongestBackoff);
}

// What is rolled back is the firewall alone; the next pass deals with routes and service.
void FailWithRollback(Run& run, const std::wstring& line) {
  LogLine(line);
  gWorkerOperations.RollbackToOpen();
  gTunnelUp.exchange(false);
  BackoffWait(run);
}

// False if the thread is to end.
bool IdlePass() {
  gTunnelUp.exchange(false);
  gTunnelStatus.exchange(kStatusDisconnected);
  // Wanted: the uninstaller runs on every idle pass, whether or not there is a tunnel service.
  gWorkerOperations.UninstallTunnelService(kTunnelName);
  gWorkerOperations.RollbackToOpen();
  return WaitForStop(kTick) != platform::kWaitObject0;
}

bool InstallRoutes(const std::vector<std::wstring>& addresses) {
  if (!gWorkerOperations.ApplyBypassRoutes(addresses)) return false;
  gBypassRoutesInstalled = true;
  gBypassIpsApplied = addresses;
  gLastRefreshTick = platform::GetTickCount64();
  gRefreshIteration = 0;
  return true;
}

void InstallRoutesBeforeTunnel() {
  const std::vector<std::wstring> addresses = CopyUnderBypassLock(gBypassIpsEffective);
  LogLine(L"SplitTunnelV1: pre-tunnel route install ENTER count=" + std::to_wstring(addresses.size()));
  if (InstallRoutes(addresses)) {
    LogLine(L"SplitTunnelV1: pre-tunnel route install OK gw=" + gDefaultGatewayV4 + L" ifIndex=" +
            std::to_wstring(gDefaultIfIndex));
  } else {
    LogLine(L"SplitTunnelV1: pre-tunnel route install FAILED (continuing)");
  }
}

bool InstallTunnelService() {
  LogLine(L"WireGuard tunnel service not installed; installing from conf.");
  uint32_t exitCode = 0;
  std::wstring stdoutText;
  std::wstring stderrText;
  const std::wstring arguments = std::wstring(L"/installtunnelservice \"") + kTunnelConfigFile + L"\"";
  if (gWorkerOperations.RunProcessCapture(kWireGuardProgram, arguments, exitCode, stdoutText, stderrText) &&
      exitCode == 0) {
    return true;
  }
  LogLine(L"wireguard.exe installtunnelservice failed ec=" + std::to_wstring(exitCode));
  LogLineUnlessEmpty(L"stdout: ", stdoutText);
  LogLineUnlessEmpty(L"stderr: ", stderrText);
  return false;
}

// Bootstrap, routes, other tunnels, installation.
bool PrepareTunnel(Run& run) {
  if (!gWorkerOperations.Bootstrap()) {
    LogLine(L"Bootstrap not ready (likely AUTH_REQUIRED); staying DISCONNECTED/CONNECTING and retrying.");
    gTunnelUp.exchange(false);
    gTunnelStatus.exchange(kStatusDisconnected);
    BackoffWait(run);
    return false;
  }
  InstallRoutesBeforeTunnel();
  gWorkerOperations.EnforceSingleTunnel(kTunnelName);
  if (!gWorkerOperations.TunnelServiceExists(kTunnelName) && !InstallTunnelService()) {
    gTunnelUp.exchange(false);
    gTunnelStatus.exchange(kStatusError);
    BackoffWait(run);
    return false;
  }
  return true;
}

// Until a new intent or the stop event. The tunnel service stays as it is.
void ParkInError() {
  // Noted before the status shows: a Connect that answers it at once must not be missed.
  const uint64_t epoch = gTunnelEpoch;
  gTunnelStatus.exchange(kStatusError);
  LogLine(L"Handshake timed out repeatedly; entering ERROR until user action.");
  while (WaitForStop(kTick) == platform::kWaitTimeout) {
    if (gTunnelDesired != kDesiredConnected || gTunnelEpoch != epoch) return;
  }
}

void HandleHandshakeFailure(Run& run) {
  ++run.handshakeAttempts;
  LogLine(L"WireGuard handshake not seen (attempt " + std::to_wstring(run.handshakeAttempts) +
          L"); will retry.");
  gWorkerOperations.RollbackToOpen();
  gTunnelUp.exchange(false);
  SetLastErrorText(kHandshakeTimeout);
  if (run.handshakeAttempts < kHandshakeAttempts) {
    gTunnelStatus.exchange(kStatusConnecting);
    BackoffWait(run);
    return;
  }
  ParkInError();
  run.handshakeAttempts = 0;
}

void NoteHandshake(Run& run) {
  {
    std::lock_guard lock(gLastErrorMutex);
    if (gLastError == kHandshakeTimeout) gLastError.clear();
  }
  run.backoffMs = kFirstBackoff;
  LogLine(L"WireGuard handshake OK.");
  // Wanted: a relative path with three dots as its folder, which normally cannot be written.
  WriteDropFile(L"...\\step4.txt", L"before wg write\n");
}

// A freshly started tunnel with a handshake.
bool BringTunnelUp(Run& run) {
  if (!gWorkerOperations.RestartTunnelService(kTunnelName)) {
    FailWithRollback(run, L"WireGuard tunnel service did not reach RUNNING. Keeping OPEN; retrying.");
    return false;
  }
  if (!gWorkerOperations.IsTunnelServiceRunning(kTunnelName)) {
    FailWithRollback(run, L"Tunnel service not running after start; retrying.");
    return false;
  }
  LogLine(L"WireGuard: waiting for handshake...");
  if (!gWorkerOperations.WgHandshakeSeen(kTunnelName)) {
    HandleHandshakeFailure(run);
    return false;
  }
  NoteHandshake(run);
  if (!InstallRoutes(CopyUnderBypassLock(gBypassIpsEffective))) {
    LogLine(L"SplitTunnelV1: route apply failed (continuing without bypass)");
  }
  run.handshakeAttempts = 0;
  return true;
}

bool FindTunnelAdapter(Run& run, uint32_t& ifIndex) {
  const std::wstring name = kTunnelName;
  if (!gWorkerOperations.GetAdapterIfIndexByName(name, ifIndex) || ifIndex == 0) {
    FailWithRollback(run, L"WFP: unable to resolve WireGuard adapter ifIndex for tunnelName='" + name +
                              L"'; refusing fail-closed");
    return false;
  }
  LogLine(L"WFP: WireGuard adapter ifIndex=" + std::to_wstring(ifIndex) + L" (tunnelName='" + name + L"')");
  return true;
}

bool FindControlPlane(Run& run) {
  const std::wstring baseUrl = gWorkerOperations.defaultCpBaseUrl;
  ParsedBaseUrl parsed;
  if (!gWorkerOperations.ParseHttpsBaseUrl(baseUrl, parsed)) {
    FailWithRollback(run, L"WFP: invalid CP base URL; rolling back to OPEN; retrying.");
    return false;
  }
  if (!ResolveCpIpV4(baseUrl) || gCpIpV4.empty()) {
    FailWithRollback(
        run, L"WFP: failed to resolve " + parsed.host + L" for baseline; rolling back to OPEN; retrying.");
    return false;
  }
  LogLine(L"WFP: Resolved " + parsed.host + L" to " + gCpIpV4);
  return true;
}

void PermitBypassAddresses() {
  const std::vector<std::wstring> addresses = CopyUnderBypassLock(gBypassIpsApplied);
  LogLine(L"WFP: updating split-bypass allowlist after baseline: count=" + std::to_wstring(addresses.size()));
  LogLine(gWorkerOperations.UpdateSplitTunnelBypassAllowlistV4(addresses)
              ? L"WFP: split-bypass allowlist update OK"
              : L"WFP: split-bypass allowlist update FAILED (continuing fail-closed with CP/WG/DNS only)");
}

// The firewall goes in last: until here none of its filters is in force.
bool CloseFirewall(Run& run) {
  uint32_t ifIndex = 0;
  if (!FindTunnelAdapter(run, ifIndex) || !FindControlPlane(run)) return false;
  LogLine(L"VPNSERVICE: about to call EnableFailClosedBaseline");
  if (!gWorkerOperations.EnableFailClosedBaseline(gCpIpV4, ifIndex)) {
    FailWithRollback(run, L"WFP baseline failed to apply; rolling back to OPEN; retrying.");
    return false;
  }
  PermitBypassAddresses();
  return true;
}

void RefreshIfDue() {
  const uint64_t interval =
      gRefreshIteration < kQuickRefreshes ? kQuickRefreshInterval : kSlowRefreshInterval;
  const uint64_t now = platform::GetTickCount64();
  if (gLastRefreshTick != 0 && now - gLastRefreshTick <= interval) return;
  LogLine(L"WorkerLoop : Started refresh" + std::to_wstring(gRefreshIteration));
  gLastRefreshTick = now;
  LogLine(L"SplitTunnelV1: refresh iteration=" + std::to_wstring(gRefreshIteration));
  gWorkerOperations.RefreshSplitTunnelRoutes();
  ++gRefreshIteration;
}

// Checks neither the tunnel service nor the handshake: a dead tunnel stays CONNECTED until someone acts.
void StayConnected(const Run& run) {
  while (WaitForStop(kTick) == platform::kWaitTimeout) {
    if (gTunnelDesired != kDesiredConnected) {
      LogLine(L"WorkerLoop EXIT: gTunnelDesired != Connected");
      return;
    }
    const uint64_t epoch = gTunnelEpoch;
    if (epoch != run.startEpoch) {
      LogLine(L"WorkerLoop EXIT: epoch changed: start=" + std::to_wstring(run.startEpoch) + L" cur=" +
              std::to_wstring(epoch));
      return;
    }
    RefreshIfDue();
  }
}

// Routes first, then the tunnel, the firewall last.
void TearDown() {
  if (gBypassRoutesInstalled) {
    gWorkerOperations.RemoveBypassRoutes(CopyUnderBypassLock(gBypassIpsApplied));
    std::lock_guard lock(gBypassMutex);
    gBypassIpsApplied.clear();
    gBypassRoutesInstalled = false;
  }
  gTunnelUp.exchange(false);
  gWorkerOperations.StopTunnelService(kTunnelName, kTunnelStopWait);
  gWorkerOperations.RollbackToOpen();
  gTunnelStatus.exchange(kStatusDisconnected);
}

void ConnectPass(Run& run) {
  gTunnelStatus.exchange(kStatusConnecting);
  if (!PrepareTunnel(run) || !BringTunnelUp(run) || !CloseFirewall(run)) return;
  gTunnelUp.exchange(true);
  gTunnelStatus.exchange(kStatusConnected);
  StayConnected(run);
  TearDown();
}

void RunPasses() {
  Run run;
  gWorkerOperations.RollbackToOpen();  // a rule set left by a dead predecessor goes before anything else
  while (WaitForStop(0) == platform::kWaitTimeout) {
    run.startEpoch = gTunnelEpoch;
    if (gTunnelDesired != kDesiredDisconnected) {
      ConnectPass(run);
    } else if (!IdlePass()) {
      return;
    }
  }
}

}  // namespace

uint32_t WorkerLoop(void* /*argument*/) {
  StartUpWorker();
  WriteDropFile(L"C:\\ProgramData\\TELVOR\\step1.txt", L"in try\n");
  try {
    RunPasses();
  } catch (const std::exception& exception) {
    WriteDropFile(L"C:\\ProgramData\\TELVOR\\cpp_exception.txt", Utf8ToWide(exception.what()));
  } catch (...) {
    WriteDropFile(L"C:\\ProgramData\\TELVOR\\cpp_exception_unknown.txt", L"unknown exception caught\n");
  }
  return 0;
}

bool ResolveCpIpV4(const std::wstring& baseUrl) {
  gCpIpV4.clear();
  ParsedBaseUrl parsed;
  if (!gWorkerOperations.ParseHttpsBaseUrl(baseUrl, parsed)) return false;
  for (uint32_t attempt = 1; attempt <= kResolveAttempts; ++attempt) {
    const AddressList addresses = gWorkerOperations.ResolveHostIpV4(parsed.host);
    if (!addresses.empty()) {
      gCpIpV4 = addresses.front();
      return true;
    }
    platform::Sleep(attempt * kResolvePause);
  }
  return false;
}
