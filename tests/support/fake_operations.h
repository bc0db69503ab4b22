// Worker operations that answer as a test says and write down what happened: the calls with their arguments,
// between them the lines that reached the log meanwhile.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "sim/files.h"
#include "sim/kernel.h"

namespace fake {

struct Call {
  std::string operation;
  uint64_t time = 0;  // sim::Now()
  int32_t status = 0;
  bool up = false;
};

struct State {
  // What the operations answer: the queued answers first, then false for those in `refusing`, else true.
  std::map<std::string, std::deque<bool>> answers;
  std::set<std::string> refusing;
  // Run within the call, after it was written down; the number counts the operation's calls from 1, and 0
  // stands for every call.
  std::map<std::pair<std::string, size_t>, std::function<void()>> actions;
  std::function<void()> onEveryCall;

  RuntimePolicy policy;
  std::wstring policySource = L"seed";
  std::map<std::wstring, AddressList> domains;
  AddressList controlPlaneAddresses = {L"10.99.0.1"};
  uint32_t adapterIndex = 42;
  uint32_t installerExitCode = 0;
  std::wstring installerOutput;
  std::wstring installerErrors;

  std::vector<Call> calls;
  std::vector<std::string> journal;
  size_t logLinesTaken = 0;
};
inline State gState;

inline constexpr wchar_t kBaseUrl[] = L"https://cp.example:8443";

inline void TakeLogLines() {
  const std::vector<std::string> lines = sim::LogLines();
  for (; gState.logLinesTaken < lines.size(); ++gState.logLinesTaken) {
    gState.journal.push_back("log " + lines[gState.logLinesTaken]);
  }
}

// "call <operation> <arguments>" and "log <line>", in the order in which they happened.
inline const std::vector<std::string>& Journal() {
  TakeLogLines();
  return gState.journal;
}

inline size_t Count(const std::string& operation) {
  size_t count = 0;
  for (const Call& call : gState.calls) count += call.operation == operation ? 1 : 0;
  return count;
}

inline std::vector<Call> Calls(const std::string& operation) {
  std::vector<Call> found;
  for (const Call& call : gState.calls) {
    if (call.operation == operation) found.push_back(call);
  }
  return found;
}

inline std::vector<uint64_t> Times(const std::string& operation) {
  std::vector<uint64_t> times;
  for (const Call& call : Calls(operation)) times.push_back(call.time);
  return times;
}

inline void OnCall(const std::string& operation, size_t number, std::function<void()> action) {
  gState.actions[{operation, number}] = std::move(action);
}

inline bool Note(const std::string& operation, const std::string& arguments = "") {
  TakeLogLines();
  gState.journal.push_back("call " + operation + arguments);
  gState.calls.push_back({operation, sim::Now(), gTunnelStatus.load(), gTunnelUp.load()});
  if (gState.onEveryCall) gState.onEveryCall();
  for (const size_t number : {Count(operation), size_t{0}}) {
    const auto action = gState.actions.find({operation, number});
    if (action != gState.actions.end()) action->second();
  }
  std::deque<bool>& queued = gState.answers[operation];
  if (queued.empty()) return !gState.refusing.contains(operation);
  const bool answer = queued.front();
  queued.pop_front();
  return answer;
}

inline std::string Words(const AddressList& list) {
  std::string text;
  for (const std::wstring& word : list) text += " " + sim::Narrow(word);
  return text;
}

inline bool ApplyBypassRoutes(const AddressList& addresses) {
  if (!Note("ApplyBypassRoutes", Words(addresses))) return false;
  gDefaultGatewayV4 = L"192.168.1.1";
  gDefaultIfIndex = 7;
  return true;
}

inline bool RunProcessCapture(const std::wstring& program, const std::wstring& arguments, uint32_t& exitCode,
                              std::wstring& output, std::wstring& errors) {
  if (!Note("RunProcessCapture", " [" + sim::Narrow(program) + "] [" + sim::Narrow(arguments) + "]")) {
    return false;
  }
  exitCode = gState.installerExitCode;
  output = gState.installerOutput;
  errors = gState.installerErrors;
  return true;
}

inline bool ParseHttpsBaseUrl(const std::wstring& url, ParsedBaseUrl& parsed) {
  if (!Note("ParseHttpsBaseUrl", Words({url}))) return false;
  parsed = {L"https", L"cp.example", 8443};
  return true;
}

inline WorkerOperations PolicyAndRouteOperations() {
  WorkerOperations table = EmptyWorkerOperations();
  table.LoadRuntimePolicy = [](RuntimePolicy& policy, std::wstring& source) {
    policy = gState.policy;
    source = gState.policySource;
    return Note("LoadRuntimePolicy");
  };
  table.ResolveDomainIPv4 = [](const std::wstring& domain) {
    return Note("ResolveDomainIPv4", Words({domain})) ? gState.domains[domain] : AddressList{};
  };
  table.ApplyBypassRoutes = ApplyBypassRoutes;
  table.RemoveBypassRoutes = [](const AddressList& addresses) {
    return Note("RemoveBypassRoutes", Words(addresses));
  };
  table.GetAdapterIfIndexByName = [](const std::wstring& name, uint32_t& ifIndex) {
    ifIndex = gState.adapterIndex;
    return Note("GetAdapterIfIndexByName", Words({name}));
  };
  table.RefreshSplitTunnelRoutes = [] { Note("RefreshSplitTunnelRoutes"); };
  return table;
}

inline void AddTunnelOperations(WorkerOperations& table) {
  table.Bootstrap = [] { return Note("Bootstrap"); };
  table.EnforceSingleTunnel = [](const std::wstring& name) { Note("EnforceSingleTunnel", Words({name})); };
  table.TunnelServiceExists = [](const std::wstring& name) {
    return Note("TunnelServiceExists", Words({name}));
  };
  table.RunProcessCapture = RunProcessCapture;
  table.RestartTunnelService = [](const std::wstring& name) {
    return Note("RestartTunnelService", Words({name}));
  };
  table.IsTunnelServiceRunning = [](const std::wstring& name) {
    return Note("IsTunnelServiceRunning", Words({name}));
  };
  table.WgHandshakeSeen = [](const std::wstring& name) { return Note("WgHandshakeSeen", Words({name})); };
  table.StopTunnelService = [](const std::wstring& name, uint32_t timeout) {
    return Note("StopTunnelService", Words({name, std::to_wstring(timeout)}));
  };
  table.UninstallTunnelService = [](const std::wstring& name) {
    return Note("UninstallTunnelService", Words({name}));
  };
}

inline void AddFirewallOperations(WorkerOperations& table) {
  table.ParseHttpsBaseUrl = ParseHttpsBaseUrl;
  table.ResolveHostIpV4 = [](const std::wstring& host) {
    return Note("ResolveHostIpV4", Words({host})) ? gState.controlPlaneAddresses : AddressList{};
  };
  table.EnableFailClosedBaseline = [](const std::wstring& ip, uint32_t ifIndex) {
    return Note("EnableFailClosedBaseline", Words({ip, std::to_wstring(ifIndex)}));
  };
  table.UpdateSplitTunnelBypassAllowlistV4 = [](const AddressList& addresses) {
    return Note("UpdateSplitTunnelBypassAllowlistV4", Words(addresses));
  };
  table.RollbackToOpen = [] { return Note("RollbackToOpen"); };
}

// Plugs the table in, with every operation that the worker calls answering well and an empty policy. The
// views' and the dispatcher's own operations stay empty.
inline void PlugOperations() {
  gState = State{};
  WorkerOperations table = PolicyAndRouteOperations();
  AddTunnelOperations(table);
  AddFirewallOperations(table);
  table.StopOwnService = [] { return Note("StopOwnService"); };
  table.defaultCpBaseUrl = kBaseUrl;
  gWorkerOperations = table;
}

}  // namespace fake
