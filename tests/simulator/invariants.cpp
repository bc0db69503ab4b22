#include "invariants.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "engine/tunnel_state.h"
#include "facts.h"
#include "replies.h"
#include "rule_model.h"
#include "service/paths.h"
#include "sim/files.h"
#include "sim/filtering.h"
#include "sim/network.h"
#include "sim/services.h"

namespace simulator {
namespace {

bool Has(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

std::string StepText() {
  const Snapshot& before = gFacts.before;
  const Snapshot& after = gFacts.shown;
  return "thread " + std::to_string(gFacts.stepThread) + ": desired " + std::to_string(before.desired) +
         " to " + std::to_string(after.desired) + ", status " + std::to_string(before.status) + " to " +
         std::to_string(after.status) + ", epoch " + std::to_string(before.epoch) + " to " +
         std::to_string(after.epoch) + ", up " + std::to_string(before.up) + " to " +
         std::to_string(after.up);
}

std::string Unless(bool holds, std::string_view otherwise) {
  return holds ? "" : std::string(otherwise);
}

// ---- Steps ----

bool IntentChanged() {
  return gFacts.before.epoch != gFacts.shown.epoch || gFacts.before.desired != gFacts.shown.desired;
}

const ThreadFacts& Stepping() {
  return FactsOf(gFacts.stepThread);
}

// The name of the worker's last operation in its pass; empty at its start.
std::string_view LastOperation() {
  const auto& operations = gFacts.pass.operations;
  return operations.empty() ? "" : operations.back().name;
}

std::string WorkerLeavesIntent() {
  return Unless(!Stepping().worker || !IntentChanged(), StepText());
}

std::string IntentIsWrittenAsTold() {
  if (!IntentChanged() || Stepping().worker) return "";
  const Snapshot& after = gFacts.shown;
  const bool once = after.epoch == gFacts.before.epoch + 1;
  const bool connects =
      Stepping().mayConnect && after.desired == 1 && after.status == 1 && after.up == gFacts.before.up;
  const bool disconnects = Stepping().mayDisconnect && after.desired == 0 && after.status == 0 && !after.up;
  return Unless(once && (connects || disconnects), StepText());
}

std::string OthersLeaveTheStatus() {
  if (IntentChanged() || Stepping().worker) return "";
  const bool failedSelection = Stepping().bootstrapFailed && Stepping().method &&
                               std::string_view(Stepping().method) == "POST /ui/select-location" &&
                               gFacts.shown.status == kStatusDisconnected && !gFacts.shown.up;
  return Unless(failedSelection, StepText());
}

// The worker is at the top of its loop: a pass may begin.
bool AtPassBoundary() {
  const std::string_view last = LastOperation();
  return !Stepping().operation &&
         (last == "RollbackToOpen" || last == "Bootstrap" || last == "RunProcessCapture");
}

bool IdleBegins() {
  return AtPassBoundary() && gFacts.shown.desired == 0;
}
bool PassBegins() {
  return AtPassBoundary() && gFacts.shown.desired != 0;
}
bool BootstrapHasFailed() {
  return Stepping().bootstrapFailed;
}
bool HasTornDown() {
  return gFacts.pass.tornDown && LastOperation() == "RollbackToOpen";
}
bool HandshakeMissedOnceOrTwice() {
  const uint32_t missed = gFacts.pass.handshakesMissed;
  return LastOperation() == "RollbackToOpen" && missed % 3 != 0;
}
bool HandshakeMissedThrice() {
  const uint32_t missed = gFacts.pass.handshakesMissed;
  return LastOperation() == "RollbackToOpen" && missed > 0 && missed % 3 == 0;
}
bool InstallHasFailed() {
  return LastOperation() == "RunProcessCapture";
}
bool AllowlistIsUpdated() {
  return LastOperation() == "UpdateSplitTunnelBypassAllowlistV4";
}

// What the worker may show, and when.
struct WorkerWrite {
  int32_t status;
  bool up;
  bool (*when)();
};
constexpr WorkerWrite kWorkerWrites[] = {
    {kStatusDisconnected, false, &IdleBegins},
    {kStatusDisconnected, false, &BootstrapHasFailed},
    {kStatusDisconnected, false, &HasTornDown},
    {kStatusConnecting, false, &PassBegins},
    {kStatusConnecting, false, &HandshakeMissedOnceOrTwice},
    {kStatusConnected, true, &AllowlistIsUpdated},
    {kStatusError, false, &HandshakeMissedThrice},
    {kStatusError, false, &InstallHasFailed},
};

// A worker that an exception has ended leaves its tunnel behind as up; the next one writes that when it has
// one.
bool UpIsLeftBehind() {
  return gFacts.lockFailures && gFacts.before.up && gFacts.shown.up;
}

std::string WorkerShowsItsPosition() {
  if (!Stepping().worker) return "";
  const Snapshot& after = gFacts.shown;
  // It may leave the connected state before it has another word for where it is.
  if (after.status == gFacts.before.status && !after.up) return "";
  const bool told =
      std::any_of(std::begin(kWorkerWrites), std::end(kWorkerWrites), [&](const WorkerWrite& write) {
        const bool up = write.up == after.up || UpIsLeftBehind();
        return write.status == after.status && up && write.when();
      });
  return Unless(told, StepText() + ", after " + std::string(LastOperation()));
}

// The steps of a connection in their order; one that may be left out, or may come more than once, says so.
struct ConnectStep {
  std::string_view operation;
  bool mustSucceed;
  bool optional;
};
constexpr ConnectStep kConnectSteps[] = {
    {"Bootstrap", true, false},
    {"ApplyBypassRoutes", false, false},
    {"EnforceSingleTunnel", false, false},
    {"TunnelServiceExists", false, false},
    {"RunProcessCapture", true, true},
    {"RestartTunnelService", true, false},
    {"IsTunnelServiceRunning", true, false},
    {"WgHandshakeSeen", true, false},
    {"ApplyBypassRoutes", false, false},
    {"GetAdapterIfIndexByName", true, false},
    {"ParseHttpsBaseUrl", true, false},
    {"ParseHttpsBaseUrl", true, false},
    {"ResolveHostIpV4", false, false},
    {"ResolveHostIpV4", false, true},
    {"ResolveHostIpV4", false, true},
    {"ResolveHostIpV4", false, true},
    {"ResolveHostIpV4", false, true},
    {"EnableFailClosedBaseline", true, false},
    {"UpdateSplitTunnelBypassAllowlistV4", false, false},
};

bool TurnsConnected() {
  return Stepping().worker && gFacts.shown.status == kStatusConnected &&
         gFacts.before.status != kStatusConnected;
}

std::string ConnectedComesLast() {
  if (!TurnsConnected()) return "";
  auto operation = gFacts.pass.operations.begin();
  const auto end = gFacts.pass.operations.end();
  for (const ConnectStep& step : kConnectSteps) {
    const bool here = operation != end && operation->name == step.operation;
    if (!here && step.optional) continue;
    if (!here) return "missing before CONNECTED: " + std::string(step.operation);
    if (step.mustSucceed && !operation->result)
      return "failed before CONNECTED: " + std::string(step.operation);
    ++operation;
  }
  return operation == end ? "" : "too much before CONNECTED: " + std::string(operation->name);
}

std::string ConnectedIsTrue() {
  if (!TurnsConnected()) return "";
  if (gFacts.handshakeShownAt < gFacts.pass.restartedAt) return "no handshake since the tunnel's start";
  const FirewallFacts& firewall = gFacts.firewall;
  const bool rolledBack = firewall.rollbacksAtBaseline && *firewall.rollbacksAtBaseline != firewall.rollbacks;
  return Unless(rolledBack || BaselineInForce(), "the baseline is not in force");
}

// ---- Calls ----

// Writing the log is all that a lock may be held over.
std::string NoLockAcrossCalls() {
  static constexpr std::array<std::string_view, 14> kQuick = {
      "CreateFileW",      "WriteFile",   "CloseHandle",         "GetLocalTime",
      "CreateDirectoryW", "_time64",     "MultiByteToWideChar", "WideCharToMultiByte",
      "GetTickCount64",   "DeleteFileW", "FormatMessageW",      "GetEnvironmentVariableW",
      "FlushFileBuffers", "_mkgmtime64"};
  if (sim::LocksHeld() == 0) return "";
  const std::string_view operation = gFacts.call->operation;
  return Unless(std::find(kQuick.begin(), kQuick.end(), operation) != kQuick.end(),
                std::string(operation) + " under a lock");
}

std::string NoSecretInLog() {
  const ThreadFacts& thread = FactsOf(gFacts.call->thread);
  const std::string& file = thread.openedFile;
  if (!gFacts.call->arguments.starts_with(thread.openedHandle)) return "";
  if (!Has(file, "vpnservice.log") && !Has(file, ".txt\" access=0x40000000 share=1")) return "";
  for (const std::string& secret : gFacts.secrets) {
    if (Has(gFacts.call->arguments, secret)) return "a secret in " + gFacts.call->arguments;
  }
  return "";
}

bool CallSucceeded() {
  return gFacts.call->result == "ok";
}

std::string RuleSetIsWhole() {
  return CallSucceeded() && !gFacts.firewall.tornByFault ? RuleSetFault(gFacts.firewall.halfPairAllowed) : "";
}

std::string BaselineAfterHandshake() {
  if (!CallSucceeded()) return "";
  const ThreadFacts& thread = FactsOf(gFacts.call->thread);
  if (!thread.operation || std::string_view(thread.operation) != "EnableFailClosedBaseline") return "";
  const auto& operations = gFacts.pass.operations;
  const bool seen = std::any_of(operations.begin(), operations.end(), [](const OperationFacts& operation) {
    return operation.name == std::string_view("WgHandshakeSeen") && operation.result;
  });
  return Unless(thread.worker && seen, "a baseline without a handshake in its pass");
}

std::string ConfigIsPutInPlaceWhole() {
  if (!CallSucceeded()) return "";
  if (!Has(gFacts.call->arguments, "wg\\telvor.conf\" flags")) return "";
  const std::string text = gFacts.config.value_or("");
  for (const char* part : {"[Interface]", "PrivateKey = ", "Address = ", "[Peer]",
                           "PublicKey = ", "Endpoint = ", "AllowedIPs = ", "PersistentKeepalive = "}) {
    if (!Has(text, part)) return std::string("without ") + part;
  }
  return Unless(text.ends_with("\n"), "its last line is cut");
}

// ---- Operations ----

std::string RollbackLeavesNothing() {
  const OperationFacts& operation = *gFacts.operation;
  if (operation.name != std::string_view("RollbackToOpen") || !operation.result) return "";
  const size_t left = FactsOf(operation.thread).leftByRollback;
  return Unless(left == 0, std::to_string(left) + " filters left");
}

std::string RollbackComesFirst() {
  const std::string_view name = gFacts.operation->name;
  if (!FactsOf(gFacts.operation->thread).worker || gFacts.rolledBackAtStart) return "";
  const bool setsUp = name == "LoadRuntimePolicy" || name == "ResolveDomainIPv4" || name == "RollbackToOpen";
  return Unless(setsUp, std::string(name) + " before the rollback");
}

std::string PredecessorsRulesAreGone() {
  if (gFacts.operation->name != std::string_view("RollbackToOpen") || gFacts.rolledBackAtStart) return "";
  const ThreadFacts& thread = FactsOf(gFacts.operation->thread);
  const bool undisturbed = sim::FaultsApplied() == gFacts.operation->faultsBefore &&
                           gFacts.firewall.baselines == 0 && gFacts.exchanges.empty();
  if (!thread.worker || !undisturbed) return "";
  return Unless(OwnFilterCount() == 0, std::to_string(OwnFilterCount()) + " filters of a dead process");
}

bool IsRouteTo(const platform::MibIpForwardRow2& row, const std::string& address) {
  const platform::MibIpForwardRow2 wanted =
      sim::Route(address, 32, sim::Narrow(gDefaultGatewayV4), gDefaultIfIndex, 0);
  return row.destinationPrefixLength == 32 && row.destinationPrefix == wanted.destinationPrefix &&
         row.nextHop == wanted.nextHop && row.interfaceIndex == wanted.interfaceIndex;
}

// The address of an entry of the policy; empty if it has none.
std::string CleanAddress(const std::wstring& entry) {
  const std::string text = sim::Narrow(entry.substr(0, entry.find(L'/')));
  const bool plain = !text.empty() && text != "0.0.0.0" &&
                     text.find_first_not_of("0123456789.") == std::string::npos &&
                     std::count(text.begin(), text.end(), '.') == 3;
  return plain ? text : "";
}

std::string RouteLeft(const std::vector<std::wstring>& entries) {
  if (gDefaultGatewayV4.empty() || gDefaultIfIndex == 0) return "";
  for (const std::wstring& entry : entries) {
    const std::string address = CleanAddress(entry);
    if (address.empty()) continue;
    for (const auto& row : sim::Routes()) {
      if (IsRouteTo(row, address)) return "a route to " + address + " is left";
    }
  }
  return "";
}

std::string RemovedRoutesAreGone() {
  const OperationFacts& operation = *gFacts.operation;
  if (operation.name != std::string_view("RemoveBypassRoutes")) return "";
  const bool undisturbed =
      sim::FaultsApplied() == operation.faultsBefore && gFacts.routesMade == operation.routesMadeBefore;
  return undisturbed ? RouteLeft(operation.addresses) : "";
}

std::string RoutesGoBeforeTheTunnel() {
  const OperationFacts& operation = *gFacts.operation;
  const bool teardown =
      operation.name == std::string_view("StopTunnelService") && FactsOf(operation.thread).worker;
  return Unless(!teardown || !gBypassRoutesInstalled, "the tunnel stops while routes are installed");
}

// ---- Replies and requests ----

std::string OneLine() {
  const Exchange& exchange = *gFacts.exchange;
  if (!exchange.answered || !exchange.readToEnd) return "";
  const std::string& reply = exchange.reply;
  const bool cutOff = exchange.life != gFacts.life || sim::FaultsApplied() != exchange.faultsBefore;
  const bool one = reply.find('\n') == reply.size() - 1 && !reply.empty();
  return Unless(one || (cutOff && reply.find('\n') == std::string::npos),
                exchange.what + " got " + (reply.empty() ? "nothing" : reply));
}

std::string AllowedLine() {
  const Exchange& exchange = *gFacts.exchange;
  const bool whole = exchange.answered && exchange.readToEnd && exchange.reply.ends_with("\n");
  return whole ? ReplyFault(exchange) : "";
}

std::string KnownToken() {
  const bool known = gFacts.bearer.empty() || gFacts.tokens.contains(gFacts.bearer);
  return Unless(known, "a token that the control plane never gave: " + gFacts.bearer);
}

std::string SameDevice() {
  const bool known = gFacts.deviceNamed.empty() || gFacts.deviceIds.contains(gFacts.deviceNamed);
  return Unless(known, "a device id that is not this machine's: " + gFacts.deviceNamed);
}

// ---- The end, rest, and the connection ----

std::string ConfigIsWholeOrTheOldOne() {
  return Unless(sim::FileBytes(kTunnelConfigFile) == gFacts.config,
                "telvor.conf is not what was put in place");
}

std::string NoFilterAtRest() {
  return Unless(OwnFilterCount() == 0, std::to_string(OwnFilterCount()) + " filters of the system");
}

std::string NoTunnelAtRest() {
  return Unless(!sim::ServiceInstalled(kTunnelService), "the tunnel service is there");
}

std::string DisconnectedAtRest() {
  const bool rests = gTunnelStatus == 0 && gTunnelDesired == 0 && !gTunnelUp;
  return Unless(rests,
                "status " + std::to_string(gTunnelStatus) + ", desired " + std::to_string(gTunnelDesired));
}

std::string NoRouteAtRest() {
  return gFacts.afterConnection ? RouteLeft(gBypassIpsEffective) : "";
}

std::string NoHandleAtRest() {
  for (const char* kind : {"file", "find", "process", "process thread", "manager", "service", "engine",
                           "enumeration", "http", "memory"}) {
    if (sim::OpenHandles(kind) > 0) return std::to_string(sim::OpenHandles(kind)) + " open handles: " + kind;
  }
  return Unless(!PipesAreOpen() && sim::OpenHandles("named pipe") <= 1, "pipes are left open");
}

std::string BaselineWhileConnected() {
  return Unless(BaselineInForce(), "the baseline is not in force");
}

std::string TunnelRunsWhileConnected() {
  return Unless(sim::ServiceState(kTunnelService) == 4U, "the tunnel service does not run");
}

constexpr size_t kMoments = static_cast<size_t>(Moment::kConnected) + 1;
using InvariantsByMoment = std::array<std::vector<const Invariant*>, kMoments>;

InvariantsByMoment SortInvariants() {
  InvariantsByMoment sorted;
  for (const Invariant& invariant : Invariants())
    sorted[static_cast<size_t>(invariant.moment)].push_back(&invariant);
  return sorted;
}

// Sorted once: calls are judged by the million.
const InvariantsByMoment kByMoment = SortInvariants();

}  // namespace

const std::vector<Invariant>& Invariants() {
  static const std::vector<Invariant> kAll = {
      {Moment::kStep, "worker leaves intent", "the worker writes neither desired nor the epoch",
       &WorkerLeavesIntent},
      {Moment::kStep, "intent is written as told",
       "desired, epoch and status change together, once a request, as the request's row of the table says",
       &IntentIsWrittenAsTold},
      {Moment::kStep, "others leave the status",
       "without an intent, only a failed change of location touches the status outside the worker",
       &OthersLeaveTheStatus},
      {Moment::kStep, "worker shows its position", "the worker shows the status of the place where it is",
       &WorkerShowsItsPosition},
      {Moment::kStep, "connected comes last", "CONNECTED is shown after all steps, in their order",
       &ConnectedComesLast},
      {Moment::kStep, "connected is true",
       "CONNECTED is shown only with a handshake since the start and the baseline committed",
       &ConnectedIsTrue},
      {Moment::kCall, "no lock across calls", "no lock is held across the network, a process or a wait",
       &NoLockAcrossCalls},
      {Moment::kCall, "no secret in log", "tokens, passwords and private keys are in no log line",
       &NoSecretInLog, "WriteFile"},
      {Moment::kCall, "rule set is whole",
       "what is committed is the baseline whole or not at all, with whole permits, and blocks nothing",
       &RuleSetIsWhole, "FwpmTransactionCommit0"},
      {Moment::kCall, "baseline after handshake", "no baseline is committed in a pass without a handshake",
       &BaselineAfterHandshake, "FwpmTransactionCommit0"},
      {Moment::kCall, "configuration is whole", "telvor.conf is put in place whole", &ConfigIsPutInPlaceWhole,
       "MoveFileExW"},
      {Moment::kOperation, "rollback leaves nothing", "after a rollback no filter of the system is left",
       &RollbackLeavesNothing},
      {Moment::kOperation, "rollback comes first", "a worker begins with a rollback", &RollbackComesFirst},
      {Moment::kOperation, "predecessor's rules are gone",
       "the rule set of a dead process is gone before anything else happens", &PredecessorsRulesAreGone},
      {Moment::kOperation, "removed routes are gone", "routes that were removed are gone",
       &RemovedRoutesAreGone},
      {Moment::kOperation, "routes go before the tunnel", "a teardown removes its routes before the tunnel",
       &RoutesGoBeforeTheTunnel},
      {Moment::kReply, "one line", "every request gets exactly one line", &OneLine},
      {Moment::kReply, "allowed line", "the line is one that its request may get at that moment",
       &AllowedLine},
      {Moment::kRequest, "known token", "only tokens that the control plane gave are sent to it",
       &KnownToken},
      {Moment::kRequest, "same device", "the device id comes back after every crash", &SameDevice},
      {Moment::kEnd, "whole configuration", "telvor.conf survives an end as it was put in place",
       &ConfigIsWholeOrTheOldOne},
      {Moment::kRest, "no filter at rest", "at rest no filter of the system is in force", &NoFilterAtRest},
      {Moment::kRest, "no tunnel at rest", "at rest no tunnel service is there", &NoTunnelAtRest},
      {Moment::kRest, "disconnected at rest", "at rest the status is DISCONNECTED", &DisconnectedAtRest},
      {Moment::kRest, "no route at rest", "after an undisturbed connection none of its routes is left",
       &NoRouteAtRest},
      {Moment::kRest, "no handle at rest", "at rest nothing is open but what the service waits with",
       &NoHandleAtRest},
      {Moment::kConnected, "baseline while connected", "with the tunnel up the baseline is in force",
       &BaselineWhileConnected},
      {Moment::kConnected, "tunnel runs while connected", "with the tunnel up its service runs",
       &TunnelRunsWhileConnected},
  };
  return kAll;
}

bool Concerns(const Invariant& invariant) {
  return invariant.operation.empty() || invariant.operation == gFacts.call->operation;
}

void Judge(Moment moment) {
  if (gFacts.violation) return;
  for (const Invariant* invariant : kByMoment[static_cast<size_t>(moment)]) {
    if (!Concerns(*invariant)) continue;
    const std::string seen = invariant->broken();
    if (!seen.empty()) Violate(invariant->name, seen);
  }
}

}  // namespace simulator
