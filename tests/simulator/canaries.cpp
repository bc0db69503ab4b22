#include "canaries.h"

#include <mutex>
#include <string>

#include "engine/tunnel_state.h"
#include "firewall/platform.h"
#include "firewall/wfp_session.h"
#include "service/data_files.h"
#include "service/log.h"
#include "service/paths.h"
#include "sim/filtering.h"
#include "wireguard/platform.h"

namespace simulator {
namespace {

WorkerOperations gHealthy;

void SkipsRollbackAtStart(WorkerOperations& operations) {
  operations.RollbackToOpen = [] {
    const bool starts = FactsOf(ThreadNumber()).worker && !gFacts.rolledBackAtStart;
    return starts || gHealthy.RollbackToOpen();
  };
}

void NeverRollsBack(WorkerOperations& operations) {
  operations.RollbackToOpen = [] { return true; };
}

void TakesAnyHandshake(WorkerOperations& operations) {
  operations.WgHandshakeSeen = [](const std::wstring&) { return true; };
}

void ForgetsTheBaseline(WorkerOperations& operations) {
  operations.EnableFailClosedBaseline = [](const std::wstring&, uint32_t) { return true; };
}

// The last of the baseline goes again by itself.
bool EnableAllButOne(const std::wstring& address, uint32_t ifIndex) {
  if (!gHealthy.EnableFailClosedBaseline(address, ifIndex)) return false;
  constexpr size_t kLast = 12;
  platform::Handle engine = nullptr;
  if (OpenWfpEngine(engine) != 0) return true;
  if (sim::FiltersInForce().size() > kLast) {
    platform::FwpmFilterDeleteById0(engine, sim::FiltersInForce()[kLast].filterId);
  }
  platform::FwpmEngineClose0(engine);
  return true;
}

void LeavesTheRuleSetHalf(WorkerOperations& operations) {
  operations.EnableFailClosedBaseline = &EnableAllButOne;
}

void HoldsALockAcrossTheNetwork(WorkerOperations& operations) {
  operations.Bootstrap = [] {
    const std::lock_guard lock(gBypassMutex);
    return gHealthy.Bootstrap();
  };
}

void LeavesTheTunnel(WorkerOperations& operations) {
  operations.UninstallTunnelService = [](const std::wstring&) { return true; };
}

void LogsTheToken(WorkerOperations& operations) {
  operations.Bootstrap = [] {
    const bool ready = gHealthy.Bootstrap();
    LogLine(L"token " + gCachedAccessToken);
    return ready;
  };
}

void RaisesTheEpoch(WorkerOperations& operations) {
  operations.RestartTunnelService = [](const std::wstring& name) {
    gTunnelEpoch.fetch_add(1);
    return gHealthy.RestartTunnelService(name);
  };
}

void ShowsConnectedEarly(WorkerOperations& operations) {
  operations.RestartTunnelService = [](const std::wstring& name) {
    gTunnelStatus.exchange(kStatusConnected);
    return gHealthy.RestartTunnelService(name);
  };
}

void KeepsRoutes(WorkerOperations& operations) {
  operations.RemoveBypassRoutes = [](const AddressList&) { return true; };
}

void WritesTheConfigurationInPlace(WorkerOperations& operations) {
  operations.Bootstrap = [] {
    const bool ready = gHealthy.Bootstrap();
    if (ready) WriteTextFile(kTunnelConfigFile, L"[Interface]\n");
    return ready;
  };
}

void LeaksAHandle(WorkerOperations& operations) {
  operations.IsTunnelServiceRunning = [](const std::wstring& name) {
    platform::OpenSCManagerW(platform::kScManagerConnect);
    return gHealthy.IsTunnelServiceRunning(name);
  };
}

void HangsOnStop(WorkerOperations& operations) {
  operations.RollbackToOpen = [] {
    constexpr uint32_t kTenMinutes = 600'000;
    if (gFacts.stopSignaled) platform::Sleep(kTenMinutes);
    return gHealthy.RollbackToOpen();
  };
}

void ForgesAToken(WorkerOperations& operations) {
  operations.Bootstrap = [] {
    {
      const std::lock_guard lock(gSessionMutex);
      if (!gCachedAccessToken.empty()) gCachedAccessToken += L'x';
    }
    return gHealthy.Bootstrap();
  };
}

void StopsBeforeRoutes(WorkerOperations& operations) {
  operations.RemoveBypassRoutes = [](const AddressList& addresses) {
    gWorkerOperations.StopTunnelService(kTunnelName, 8000);
    return gHealthy.RemoveBypassRoutes(addresses);
  };
}

void BringsTheIntentBack(WorkerOperations& operations) {
  operations.UninstallTunnelService = [](const std::wstring& name) {
    if (!FactsOf(ThreadNumber()).worker) gTunnelDesired.exchange(kDesiredConnected);
    return gHealthy.UninstallTunnelService(name);
  };
}

void LosesTheDevice(WorkerOperations& operations) {
  operations.Bootstrap = [] {
    WriteTextFile(kDeviceIdFile, L"another\r\n");
    platform::DeleteFileW(std::wstring(kDeviceIdFile) + L".protected");
    return gHealthy.Bootstrap();
  };
}

TableChange gPlant = nullptr;

}  // namespace

RunOptions WithCanary(const Canary& canary) {
  gPlant = canary.plant;
  RunOptions options;
  options.change = [](WorkerOperations& operations) {
    gHealthy = operations;
    gPlant(operations);
  };
  return options;
}

const std::vector<Canary>& Canaries() {
  static const std::vector<Canary> kAll = {
      {"skips-rollback-at-start", "a new worker leaves the rule set of a dead process",
       "predecessor's rules are gone", &SkipsRollbackAtStart},
      {"never-rolls-back", "no rollback removes anything", "predecessor's rules are gone", &NeverRollsBack},
      {"takes-any-handshake", "every handshake counts as seen", "connected is true", &TakesAnyHandshake},
      {"forgets-the-baseline", "the baseline is not committed", "connected is true", &ForgetsTheBaseline},
      {"half-a-rule-set", "the baseline's last filter goes again", "rule set is whole",
       &LeavesTheRuleSetHalf},
      {"lock-across-the-network", "the bootstrap runs under a lock", "no lock across calls",
       &HoldsALockAcrossTheNetwork},
      {"leaves-the-tunnel", "the tunnel service is not removed", "no tunnel at rest", &LeavesTheTunnel},
      {"logs-the-token", "the access token is logged", "no secret in log", &LogsTheToken},
      {"raises-the-epoch", "the worker raises the epoch", "worker leaves intent", &RaisesTheEpoch},
      {"connected-early", "CONNECTED is shown before the handshake", "worker shows its position",
       &ShowsConnectedEarly},
      {"keeps-routes", "the teardown keeps the bypass routes", "removed routes are gone", &KeepsRoutes},
      {"configuration-in-place", "the configuration is written in place", "whole configuration",
       &WritesTheConfigurationInPlace},
      {"leaks-a-handle", "a manager's handle stays open", "no handle at rest", &LeaksAHandle},
      {"hangs-on-stop", "the rollback of a stop takes ten minutes", "ends on stop", &HangsOnStop},
      {"forges-a-token", "a token is changed before it is sent", "known token", &ForgesAToken},
      {"stops-before-routes", "the tunnel is stopped before its routes go", "routes go before the tunnel",
       &StopsBeforeRoutes},
      {"brings-the-intent-back", "a client's removal of the tunnel writes the intent again",
       "intent is written as told", &BringsTheIntentBack},
      {"loses-the-device", "the device's files are replaced", "same device", &LosesTheDevice},
  };
  return kAll;
}

std::optional<Find> FindCanary(const Canary& canary, uint64_t first, uint64_t count) {
  for (uint64_t seed = first; seed < first + count; ++seed) {
    Outcome outcome = RunPlan(DrawPlan(seed), WithCanary(canary));
    if (outcome.violation) return Find{seed, std::move(outcome)};
  }
  return std::nullopt;
}

}  // namespace simulator
