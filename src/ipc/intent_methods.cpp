#include "ipc/intent_methods.h"

#include <mutex>

#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "ipc/replies.h"
#include "ipc/request_fields.h"
#include "service/log.h"

namespace {

bool ReplyTrue(const PipeRequest& request, std::string& reply) {
  reply = ResultReply(request.id, "true");
  return true;
}

// The worker tears down too, at the same time: all of this tolerates having been done already.
void DisconnectNow() {
  WriteDisconnectIntent();
  gWorkerOperations.UninstallTunnelService(kTunnelName);
  gWorkerOperations.RollbackToOpen();
}

}  // namespace

bool ConnectMethod(const PipeRequest& request, std::string& reply) {
  const int32_t status = gTunnelStatus;
  if ((status == kStatusConnecting || status == kStatusConnected) && gTunnelDesired == kDesiredConnected) {
    return ReplyTrue(request, reply);
  }
  LogLine(L"IPC: Connect requested");
  gTunnelDesired.exchange(kDesiredConnected);
  gTunnelEpoch.fetch_add(1);
  gTunnelStatus.exchange(kStatusConnecting);
  return ReplyTrue(request, reply);
}

bool DisconnectMethod(const PipeRequest& request, std::string& reply) {
  if (gTunnelStatus == kStatusDisconnected && gTunnelDesired == kDesiredDisconnected) {
    return ReplyTrue(request, reply);
  }
  LogLine(L"IPC: Disconnect requested");
  DisconnectNow();
  return ReplyTrue(request, reply);
}

bool StopServiceMethod(const PipeRequest& request, std::string& reply) {
  LogLine(L"IPC: StopService requested");
  WriteDisconnectIntent();
  gWorkerOperations.RollbackToOpen();
  const bool stopped = gWorkerOperations.StopOwnService();
  reply = ResultReply(request.id, JsonWord(stopped));
  return stopped;
}

bool SelectLocationMethod(const PipeRequest& request, std::string& reply) {
  std::string serverId;
  if (!ReadRequestString(request.line, "server_id", serverId) || serverId.empty()) {
    reply = ErrorReply(request.id, "missing server_id");
    return false;
  }
  {
    std::lock_guard lock(gUiLock);
    gSelectedServerId = serverId;
    gSelectedServerValid = false;
  }
  // Wanted: the bootstrap runs first, with the old tunnel still up.
  if (!gWorkerOperations.Bootstrap()) {
    LogLine(
        L"Unable to pull bootstrap state either AUTH_REQUIRED or other error; staying "
        L"DISCONNECTED/CONNECTING.");
    gTunnelUp.exchange(false);
    gTunnelStatus.exchange(kStatusDisconnected);
  }
  if (gTunnelStatus != kStatusDisconnected || gTunnelDesired != kDesiredDisconnected) {
    LogLine(L"Select-location: tunnel is up; forcing immediate disconnect due to server change");
    DisconnectNow();
  }
  return ReplyTrue(request, reply);
}
