// The product's process-wide variables, as a new process has them.
#include "controlplane/base_url.h"
#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "ipc/methods.h"
#include "kernel.h"

namespace sim {
namespace {

void ResetTunnelState() {
  gTunnelDesired = kDesiredDisconnected;
  gTunnelStatus = kStatusDisconnected;
  gTunnelEpoch = 0;
  gTunnelUp = false;
  gAuthRequired = false;
  gLastError.clear();
  gBypassIpsEffective.clear();
  gBypassIpsApplied.clear();
  gUiServers.clear();
  gSelectedServerId.clear();
  gSelectedServer = ServerRecord{};
  gSelectedServerValid = false;
  gCachedAccessToken.clear();
  gBypassRoutesInstalled = false;
  gLastRefreshTick = 0;
  gRefreshIteration = 0;
  gCpIpV4.clear();
  gDefaultGatewayV4.clear();
  gDefaultIfIndex = 0;
}

void ResetServiceHost() {
  gStopEvent = nullptr;
  gServiceStatusHandle = nullptr;
  gServiceStatus = platform::ServiceStatus{};
  gServiceCheckPoint = 1;
  gWorkerThread = nullptr;
  gIpcThread = nullptr;
}

}  // namespace

void ResetProcessVariables() {
  ResetTunnelState();
  ResetServiceHost();
  gCpBaseUrl = kDefaultCpBaseUrl;
  gWorkerOperations = EmptyWorkerOperations();
  for (PipeMethod& method : gPipeMethods) method.body = nullptr;
}

}  // namespace sim
