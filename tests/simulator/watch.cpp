#include "watch.h"

#include <algorithm>
#include <exception>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "engine/tunnel_state.h"
#include "facts.h"
#include "firewall/baseline.h"
#include "firewall/wfp_session.h"
#include "invariants.h"
#include "ipc/methods.h"
#include "ipc/request_fields.h"
#include "random.h"
#include "rule_model.h"
#include "service/paths.h"
#include "sim/device.h"
#include "sim/files.h"
#include "sim/filtering.h"
#include "sim/network.h"
#include "sim/scheduler.h"
#include "sim/services.h"

namespace simulator {
namespace {

TableChange gChange = nullptr;
WorkerOperations gBehind;
std::array<PipeMethod, kPipeMethodCount> gMethodsBehind;

// ---- The worker's table ----

void LookAround(uint32_t thread);

bool IsWorker() {
  return FactsOf(ThreadNumber()).worker;
}

// A worker's thread begins with its policy, which nobody else loads through the table.
void NoteWorkerStart() {
  FactsOf(ThreadNumber()).worker = true;
  gFacts.pass = PassFacts{};
  gFacts.rolledBackAtStart = false;
}

void NoteInPass(const OperationFacts& operation) {
  PassFacts& pass = gFacts.pass;
  const std::string_view name = operation.name;
  if (name == "WgHandshakeSeen") pass.handshakesMissed = operation.result ? 0 : pass.handshakesMissed + 1;
  if (name == "RestartTunnelService") pass.restartedAt = sim::Now();
  if (name == "StopTunnelService") pass.tornDown = true;
  pass.operations.push_back(operation);
}

// One use of an operation, from its beginning to its end.
class Use {
 public:
  explicit Use(const char* name) : exceptions_(std::uncaught_exceptions()) {
    LookAround(ThreadNumber());
    if (std::string_view(name) == "LoadRuntimePolicy") NoteWorkerStart();
    ThreadFacts& thread = FactsOf(ThreadNumber());
    if (thread.worker && std::string_view(name) == "Bootstrap") {
      gFacts.pass.operations.clear();
      gFacts.pass.tornDown = false;
      gFacts.firewall.rollbacksAtBaseline.reset();
    }
    outer_ = std::exchange(thread.operation, name);
    facts.name = name;
    facts.thread = ThreadNumber();
    facts.faultsBefore = sim::FaultsApplied();
    facts.routesMadeBefore = gFacts.routesMade;
    if (Telling()) Tell(Who() + ": " + name + " ...");
  }
  ~Use() {
    LookAround(facts.thread);
    FactsOf(facts.thread).operation = outer_;
    facts.unwound = std::uncaught_exceptions() > exceptions_;
    const bool bootstrap = std::string_view(facts.name) == "Bootstrap";
    FactsOf(facts.thread).bootstrapFailed = bootstrap && !facts.result && !facts.unwound;
    if (IsWorker()) NoteInPass(facts);
    if (Telling())
      Tell(Who() + ": " + facts.name + (facts.unwound ? " left" : facts.result ? " ok" : " failed"));
    if (facts.unwound) return;
    gFacts.operation = &facts;
    Judge(Moment::kOperation);
    gFacts.operation = nullptr;
    if (IsWorker() && std::string_view(facts.name) == "RollbackToOpen") gFacts.rolledBackAtStart = true;
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  OperationFacts facts;

 private:
  static std::string Who() {
    const ThreadFacts& thread = FactsOf(ThreadNumber());
    const std::string number = std::to_string(ThreadNumber());
    if (thread.worker) return "worker " + number;
    return (thread.method ? std::string("client thread ") : std::string("thread ")) + number;
  }

  int exceptions_;
  const char* outer_ = nullptr;
};

bool Succeeded(bool result) {
  return result;
}
bool Succeeded(const AddressList& result) {
  return !result.empty();
}

template <class Argument>
void NoteArgument(OperationFacts& facts, const Argument& argument) {
  if constexpr (std::is_same_v<Argument, AddressList>) facts.addresses = argument;
}

template <size_t kSize>
struct Name {
  constexpr Name(const char (&name)[kSize]) { std::copy_n(name, kSize, text); }
  char text[kSize]{};
};

template <Name kName, auto kMember>
struct Seam;
template <Name kName, class Result, class... Arguments, Result (*WorkerOperations::*kMember)(Arguments...)>
struct Seam<kName, kMember> {
  static Result Watched(Arguments... arguments) {
    Use use(kName.text);
    (NoteArgument(use.facts, arguments), ...);
    if constexpr (std::is_void_v<Result>) {
      (gBehind.*kMember)(arguments...);
      use.facts.result = true;
    } else {
      Result result = (gBehind.*kMember)(arguments...);
      use.facts.result = Succeeded(result);
      return result;
    }
  }
  static void Install(WorkerOperations& operations) { operations.*kMember = &Watched; }
};

#define TELVOR_SEAM(operation) Seam<#operation, &WorkerOperations::operation>::Install(gWorkerOperations)

void StandBeforeOperations() {
  gBehind = gWorkerOperations;
  if (gChange) gChange(gBehind);
  TELVOR_SEAM(LoadRuntimePolicy);
  TELVOR_SEAM(ResolveDomainIPv4);
  TELVOR_SEAM(Bootstrap);
  TELVOR_SEAM(ApplyBypassRoutes);
  TELVOR_SEAM(RemoveBypassRoutes);
  TELVOR_SEAM(EnforceSingleTunnel);
  TELVOR_SEAM(TunnelServiceExists);
  TELVOR_SEAM(RunProcessCapture);
  TELVOR_SEAM(RestartTunnelService);
  TELVOR_SEAM(IsTunnelServiceRunning);
  TELVOR_SEAM(WgHandshakeSeen);
  TELVOR_SEAM(GetAdapterIfIndexByName);
  TELVOR_SEAM(ParseHttpsBaseUrl);
  TELVOR_SEAM(ResolveHostIpV4);
  TELVOR_SEAM(EnableFailClosedBaseline);
  TELVOR_SEAM(UpdateSplitTunnelBypassAllowlistV4);
  TELVOR_SEAM(RefreshSplitTunnelRoutes);
  TELVOR_SEAM(StopTunnelService);
  TELVOR_SEAM(UninstallTunnelService);
  TELVOR_SEAM(RollbackToOpen);
  TELVOR_SEAM(WgGetRxTxBytes);
  TELVOR_SEAM(StopOwnService);
}

// ---- The pipe's table ----

// What the method is bound to write, by what it finds as it begins: nothing runs in between.
void ExpectIntent(ThreadFacts& thread) {
  const std::string_view method = thread.method;
  const bool connecting = gTunnelStatus == kStatusConnecting || gTunnelStatus == kStatusConnected;
  const bool idle = gTunnelStatus == kStatusDisconnected && gTunnelDesired == kDesiredDisconnected;
  thread.mayConnect = method == "Connect" && !(connecting && gTunnelDesired == kDesiredConnected);
  thread.mustWriteIntent = thread.mayConnect || (method == "Disconnect" && !idle) ||
                           method == "StopService" || method == "POST /ui/logout";
  thread.mayDisconnect =
      (thread.mustWriteIntent && !thread.mayConnect) || method == "POST /ui/select-location";
  thread.wroteIntent = false;
}

bool WatchMethod(size_t index, const PipeRequest& request, std::string& reply) {
  const uint32_t number = ThreadNumber();
  LookAround(number);
  FactsOf(number).method = gPipeMethods[index].name;
  ExpectIntent(FactsOf(number));
  const bool result = gMethodsBehind[index].body(request, reply);
  LookAround(number);
  if (FactsOf(number).mustWriteIntent && !FactsOf(number).wroteIntent) {
    Violate("intent is written as told",
            std::string(gPipeMethods[index].name) + " has not changed the intent");
  }
  FactsOf(number).mayConnect = false;
  FactsOf(number).mayDisconnect = false;
  return result;
}

template <size_t kIndex>
bool WatchedMethod(const PipeRequest& request, std::string& reply) {
  return WatchMethod(kIndex, request, reply);
}

template <size_t... kIndices>
void StandBeforeMethods(std::index_sequence<kIndices...>) {
  gMethodsBehind = gPipeMethods;
  ((gPipeMethods[kIndices].body = &WatchedMethod<kIndices>), ...);
}

// ---- Steps ----

Snapshot Shown() {
  return {gTunnelDesired, gTunnelStatus, gTunnelEpoch, gTunnelUp};
}

std::string SnapshotText(const Snapshot& shown) {
  return "desired " + std::to_string(shown.desired) + ", status " + std::to_string(shown.status) +
         ", epoch " + std::to_string(shown.epoch) + (shown.up ? ", up" : "");
}

void NoteStatus(int32_t status) {
  for (Exchange* exchange : gFacts.exchanges)
    exchange->statuses |= 1U << (static_cast<uint32_t>(status) & 31U);
}

// A state of the whole, coarse enough that a new one is news.
void NoteState() {
  const Snapshot& shown = gFacts.shown;
  uint64_t hash = Mix(0, static_cast<uint64_t>(shown.desired) * 8 + static_cast<uint64_t>(shown.status) * 2 +
                             (shown.up ? 1 : 0));
  hash = Mix(hash, gFacts.pass.operations.size());
  hash = Mix(hash, gFacts.pass.handshakesMissed);
  hash = Mix(hash, sim::FiltersInForce().size());
  hash = Mix(hash, sim::ServiceState(L"WireGuardTunnel$telvor").value_or(0));
  hash = Mix(hash, sim::Routes().size());
  hash = Mix(hash, gFacts.exchanges.size() * 2 + (gFacts.stopSignaled ? 1 : 0));
  for (const Exchange* exchange : gFacts.exchanges)
    hash = Mix(hash, std::hash<std::string>()(exchange->what));
  gFacts.states.insert(hash);
}

// The tables are wired by each new process.
void StandBeforeTables() {
  if (gWorkerOperations.RollbackToOpen != &RollbackToOpen) return;
  StandBeforeOperations();
  StandBeforeMethods(std::make_index_sequence<kPipeMethodCount>());
}

// A method writes its intent once.
void NoteIntentWritten(ThreadFacts& thread) {
  thread.wroteIntent = true;
  thread.mayConnect = false;
  thread.mayDisconnect = false;
}

// What has been written since the last look, this thread has written.
void LookAround(uint32_t thread) {
  const Snapshot now = Shown();
  if (std::exchange(gFacts.processEnded, false)) {
    gFacts.shown = now;
    return;
  }
  if (now == gFacts.shown) return;
  gFacts.before = std::exchange(gFacts.shown, now);
  gFacts.stepThread = thread;
  if (Telling()) Tell("thread " + std::to_string(thread) + " writes: " + SnapshotText(now));
  NoteStatus(now.status);
  Judge(Moment::kStep);
  if (now.epoch != gFacts.before.epoch) NoteIntentWritten(FactsOf(thread));
  NoteState();
}

void OnStep(uint32_t thread) {
  StandBeforeTables();
  LookAround(thread);
}

void OnProcessEnd() {
  Tell("the process has ended");
  gFacts.processEnded = true;
  gFacts.endedByStop = gFacts.stopSignaled;
  ++gFacts.life;
  gFacts.stopSignaled = false;
  gFacts.supervisionEnds = false;
  gFacts.endUnreported = false;
  gFacts.pass = PassFacts{};
  gFacts.firewall.sweeping.clear();
}

const sim::Device kDevice(
    "simulator watch", [] {}, &OnProcessEnd);

// ---- Calls ----

bool Has(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

void OnCreateFile(const sim::TraceEntry& call) {
  // The handle behind it, as WriteFile shows it.
  FactsOf(call.thread).openedFile = call.arguments;
  FactsOf(call.thread).openedHandle = "file=" + call.result.substr(call.result.find('=') + 1) + ' ';
}

void OnMoveFile(const sim::TraceEntry& call) {
  if (call.result == "ok" && Has(call.arguments, "wg\\telvor.conf\" flags")) {
    gFacts.config = sim::FileBytes(kTunnelConfigFile);
  }
  const std::optional<std::string> key = sim::FileBytes(kPrivateKeyFile);
  if (key && key->size() > 2) gFacts.secrets.insert(key->substr(0, key->size() - 2));
}

void OnSetServiceStatus(const sim::TraceEntry& call) {
  if (Has(call.arguments, " state=3 ")) FactsOf(call.thread).mayDisconnect = true;
  if (Has(call.arguments, " state=1 ") && call.result != "ok") gFacts.endUnreported = true;
}

void OnSetEvent(const sim::TraceEntry& call) {
  if (call.result == "ok") gFacts.stopSignaled = true;
}

// The wait for the stop and the worker's end, which only the supervisor makes.
void OnWaitForMultipleObjects(const sim::TraceEntry& call) {
  FactsOf(call.thread).supervisor = true;
  if (Has(call.result, "failed")) gFacts.supervisionEnds = true;
}

void OnCreateThread(const sim::TraceEntry& call) {
  if (FactsOf(call.thread).supervisor && Has(call.result, "failed")) gFacts.supervisionEnds = true;
}

void OnCreateRoute(const sim::TraceEntry& call) {
  if (call.result == "ok") ++gFacts.routesMade;
}

std::string Engine(const sim::TraceEntry& call) {
  return call.arguments.substr(0, call.arguments.find(' '));
}

void OnProviderDelete(const sim::TraceEntry& call) {
  gFacts.firewall.sweeping.insert(Engine(call));
}

void OnFilterAdd(const sim::TraceEntry& call) {
  if (call.result.starts_with("failed")) gFacts.firewall.halfPairAllowed = true;
}

void OnSweep(const sim::TraceEntry& call) {
  if (call.result.starts_with("failed")) gFacts.firewall.tornByFault = true;
}

void OnCommit(const sim::TraceEntry& call) {
  FirewallFacts& firewall = gFacts.firewall;
  const bool rollback = firewall.sweeping.erase(Engine(call)) > 0;
  if (call.result != "ok") return;
  if (rollback) {
    ++firewall.rollbacks;
    FactsOf(call.thread).leftByRollback = OwnFilterCount();
  }
  const char* operation = FactsOf(call.thread).operation;
  if (operation && std::string_view(operation) == "EnableFailClosedBaseline") {
    ++firewall.baselines;
    firewall.rollbacksAtBaseline = firewall.rollbacks;
  }
  if (OwnFilterCount() == 0 || BaselineInForce()) firewall.tornByFault = false;
  if (Telling()) {
    Tell("thread " + std::to_string(call.thread) + " commits: " + std::to_string(OwnFilterCount()) +
         " filters of the system in force");
  }
}

using CallNote = void (*)(const sim::TraceEntry&);
std::unordered_map<uint64_t, CallNote> SortCallNotes() {
  static constexpr std::pair<const char*, CallNote> kNotes[] = {
      {"CreateFileW", &OnCreateFile},
      {"MoveFileExW", &OnMoveFile},
      {"SetServiceStatus", &OnSetServiceStatus},
      {"SetEvent", &OnSetEvent},
      {"WaitForMultipleObjects", &OnWaitForMultipleObjects},
      {"CreateThread", &OnCreateThread},
      {"CreateIpForwardEntry2", &OnCreateRoute},
      {"SetIpForwardEntry2", &OnCreateRoute},
      {"FwpmProviderDeleteByKey0", &OnProviderDelete},
      {"FwpmFilterAdd0", &OnFilterAdd},
      {"FwpmFilterCreateEnumHandle0", &OnSweep},
      {"FwpmFilterEnum0", &OnSweep},
      {"FwpmFilterDeleteByKey0", &OnSweep},
      {"FwpmFilterDeleteById0", &OnSweep},
      {"FwpmTransactionCommit0", &OnCommit},
  };
  std::unordered_map<uint64_t, CallNote> notes;
  for (const auto& [name, note] : kNotes) notes.emplace(MixText(0, name), note);
  return notes;
}

// By the hash of the operation's name, which every call has anyway.
const std::unordered_map<uint64_t, CallNote> kCallNotes = SortCallNotes();

// `operation`: the hash of its name.
void HashCall(const sim::TraceEntry& call, uint64_t operation) {
  const uint64_t head = Mix(gFacts.traceHash, (call.time * 64 + call.thread) ^ operation);
  gFacts.traceHash = MixText(MixText(head, call.arguments), call.result);
}

void TellFault(const sim::TraceEntry& call) {
  const size_t applied = sim::FaultsApplied();
  if (std::exchange(gFacts.faultsSeen, applied) == applied) return;
  if (Telling())
    Tell("thread " + std::to_string(call.thread) + ": " + std::string(call.operation) + " " + call.result);
}

void OnReturned(const sim::TraceEntry& call) {
  ++gFacts.calls;
  TellFault(call);
  const uint64_t operation = MixText(0, call.operation);
  HashCall(call, operation);
  const auto note = kCallNotes.find(operation);
  if (note != kCallNotes.end()) note->second(call);
  gFacts.call = &call;
  Judge(Moment::kCall);
  gFacts.call = nullptr;
}

}  // namespace

void StartWatching(TableChange change) {
  gChange = change;
  sim::SetWatch({&OnStep, &OnReturned});
}

void StopWatching() {
  sim::SetWatch({});
}

const WorkerOperations& OperationsBehindWatch() {
  return gBehind;
}

uint32_t ThreadNumber() {
  const sim::Thread* thread = sim::CurrentThread();
  return thread ? thread->id : 0;
}

}  // namespace simulator
