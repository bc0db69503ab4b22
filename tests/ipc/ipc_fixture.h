// What the tests of the pipe channel share: requests and the replies expected of them, the account's session,
// and operations that write down their calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "ipc/dispatch.h"
#include "service/data_files.h"
#include "service/wiring.h"
#include "sim/files.h"
#include "sim/http.h"
#include "sim/kernel.h"
#include "tests/support/sim_failures.h"

namespace ipc_test {

using Lines = std::vector<std::string>;

// The reply to a request line, without line end.
inline std::string ReplyTo(const std::string& line) {
  std::string reply = "not replaced";
  HandleIpcRequest(line, reply);
  return reply;
}

// The reply to a method without parameters, with id 7.
inline std::string Call(const std::string& method) {
  return ReplyTo("{\"jsonrpc\":\"2.0\",\"id\":7,\"method\":\"" + method + "\"}");
}

inline std::string ResultText(const std::string& result, int32_t id = 7) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"result\":" + result + ",\"error\":null}";
}

inline std::string ErrorText(const std::string& message, int32_t id = 7) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"result\":null,\"error\":{\"message\":\"" +
         message + "\"}}";
}

// What the session file holds of the account.
inline void PutSession(const std::string& access, int64_t secondsLeft) {
  sim::PutFile(kSessionFile, sim::Seal("{\"access_token\":\"" + access +
                                       "\",\"refresh_token\":\"refresh-1\",\"expires_at\":" +
                                       std::to_string(sim::UnixTime() + secondsLeft) + "}"));
}

// As the pipe's replies show the text of the token step without a session file.
inline constexpr char kNoSession[] = R"(no session: C:\\ProgramData\\TELVOR\\auth\\session.dat)";

// ---- Operations that write down their calls ----
struct Operations {
  Lines calls;  // with what the tunnel state was then
  bool bootstrap = true;
  bool stopOwnService = true;
};
inline Operations gOperations;

inline std::string State() {
  return "desired=" + std::to_string(gTunnelDesired) + " epoch=" + std::to_string(gTunnelEpoch) +
         " status=" + std::to_string(gTunnelStatus) + " up=" + (gTunnelUp ? "true" : "false");
}

inline void SetState(int32_t desired, uint64_t epoch, int32_t status, bool up) {
  gTunnelDesired = desired;
  gTunnelEpoch = epoch;
  gTunnelStatus = status;
  gTunnelUp = up;
}

// A line of gOperations.calls, with the state that is expected at that time.
inline std::string At(const std::string& call, const std::string& state) {
  return call + " at " + state;
}

inline void Note(const std::string& call) {
  gOperations.calls.push_back(At(call, State()));
}

// The methods of the product over operations that only write down their calls.
inline void WireRecordedOperations() {
  WireSubsystems();
  gOperations = {};
  const wchar_t* url = gWorkerOperations.defaultCpBaseUrl;
  gWorkerOperations = EmptyWorkerOperations();
  gWorkerOperations.defaultCpBaseUrl = url;
  gWorkerOperations.Bootstrap = [] {
    Note("Bootstrap");
    return gOperations.bootstrap;
  };
  gWorkerOperations.UninstallTunnelService = [](const std::wstring& name) {
    Note("UninstallTunnelService " + sim::Narrow(name));
    return false;
  };
  gWorkerOperations.RollbackToOpen = [] {
    Note("RollbackToOpen");
    return false;
  };
  gWorkerOperations.StopOwnService = [] {
    Note("StopOwnService");
    return gOperations.stopOwnService;
  };
  gWorkerOperations.RefreshSplitTunnelRoutes = [] { Note("RefreshSplitTunnelRoutes"); };
  gWorkerOperations.StopTunnelService = [](const std::wstring& name, uint32_t) {
    Note("StopTunnelService " + sim::Narrow(name));
    return true;
  };
}

}  // namespace ipc_test
