#include "engine/tunnel_state.h"

std::atomic<int32_t> gTunnelDesired{kDesiredDisconnected};
std::atomic<int32_t> gTunnelStatus{kStatusDisconnected};
std::atomic<uint64_t> gTunnelEpoch{0};
std::atomic<bool> gTunnelUp{false};
std::atomic<bool> gAuthRequired{false};

platform::Mutex gLastErrorMutex;
std::wstring gLastError;

platform::Mutex gBypassMutex;
std::vector<std::wstring> gBypassIpsEffective;
std::vector<std::wstring> gBypassIpsApplied;

platform::Mutex gUiLock;
std::vector<ServerRecord> gUiServers;
std::string gSelectedServerId;
ServerRecord gSelectedServer;
bool gSelectedServerValid = false;

platform::Mutex gSessionMutex;
std::wstring gCachedAccessToken;

bool gBypassRoutesInstalled = false;
uint64_t gLastRefreshTick = 0;
int32_t gRefreshIteration = 0;
std::wstring gCpIpV4;
std::wstring gDefaultGatewayV4;
uint32_t gDefaultIfIndex = 0;

std::atomic<platform::Handle> gStopEvent = nullptr;
platform::Handle gServiceStatusHandle = nullptr;
platform::ServiceStatus gServiceStatus;
uint32_t gServiceCheckPoint = 1;
platform::Handle gWorkerThread = nullptr;
platform::Handle gIpcThread = nullptr;

void WriteDisconnectIntent() {
  gTunnelDesired.exchange(kDesiredDisconnected);
  gTunnelEpoch.fetch_add(1);
  gTunnelStatus.exchange(kStatusDisconnected);
  gTunnelUp.exchange(false);
}

void SetLastErrorText(const std::wstring& text) {
  std::lock_guard lock(gLastErrorMutex);
  gLastError = text;
}
