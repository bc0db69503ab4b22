#include "acts.h"

#include <functional>
#include <string>

#include "clients.h"
#include "engine/tunnel_state.h"
#include "facts.h"
#include "fault_operations.h"
#include "invariants.h"
#include "neighbours.h"
#include "rule_model.h"
#include "service/paths.h"
#include "sim/files.h"
#include "sim/kernel.h"
#include "sim/network.h"
#include "sim/pipes.h"
#include "sim/processes.h"
#include "sim/services.h"

namespace simulator {
namespace {

constexpr wchar_t kVerifierFile[] = L"C:\\ProgramData\\TELVOR\\auth\\device_id.txt.protected";
constexpr uint64_t kMinute = 60'000;
constexpr uint64_t kStopBound = 60'000;   // what a stop may take that nothing disturbs
constexpr uint64_t kRestBound = 900'000;  // back-off, calls that wait, programs that take their time
constexpr uint64_t kConnectBound = 900'000;

// Waits as sim::RunUntil does, but for no longer than until an invariant is broken.
bool Await(const std::function<bool()>& condition, uint64_t milliseconds) {
  return sim::RunUntil([&condition] { return gFacts.violation || condition(); }, milliseconds) &&
         !gFacts.violation;
}

// ---- The process ----

void NoteEnd() {
  Judge(Moment::kEnd);
}

// A text that was torn before it had its verifier is the device's from then on.
void NoteTornDeviceId() {
  const std::optional<std::string> text = sim::FileBytes(kDeviceIdFile);
  if (!text || sim::FileExists(kVerifierFile)) return;
  gFacts.deviceIds.insert(text->substr(0, text->find_first_of("\r\n")));
}

void Kill(uint32_t choice, uint32_t) {
  if (!sim::ProductRunning()) return;
  Tell("the process is killed, and writes are torn at " + std::to_string(choice % 40));
  sim::TearWritesAt(choice % 40);
  sim::KillProcess();
  NoteTornDeviceId();
  NoteEnd();
}

bool Runs() {
  return sim::ServiceState(L"TELVOR") == platform::kServiceRunning && sim::PipeInstances() > 0;
}

void SendStop(uint32_t choice, uint32_t amount) {
  if (!sim::ProductRunning()) return;
  constexpr uint32_t kControls[] = {1, 5, 15, 4};
  const uint32_t control = kControls[choice % std::size(kControls)];
  if (amount % 2 == 0) HealAll();
  const size_t faults = sim::FaultsApplied();
  Tell("the service manager sends control " + std::to_string(control));
  const bool runs = Runs();
  const bool taken = sim::SendControl(control, kStopBound);
  if (control == 4 || (!taken && !runs)) return;
  const bool ended = Await([] { return !sim::ProductRunning(); }, kStopBound);
  if (gFacts.violation) return;
  if (ended) {
    if (amount % 2 == 0 && sim::FaultsApplied() == faults) gFacts.afterConnection = false;
    NoteEnd();
  } else if (amount % 2 == 0 && sim::FaultsApplied() == faults && !gFacts.endUnreported) {
    // Whose service manager does not know of its end is not ended by it.
    Violate(kEndsOnStop, "the process is there a minute after its stop\n" + sim::ThreadListing());
  }
}

void StartAgain(uint32_t, uint32_t) {
  if (!sim::ProductRunning()) StartService();
}

// ---- Faults ----

void LetACallFail(uint32_t choice, uint32_t amount) {
  const FaultOperation& operation = FaultOperationAt(choice);
  const uint32_t times = operation.mayLast && amount % 5 == 0 ? 40 : 1 + amount % 3;
  const uint32_t skip = amount / 8 % (amount % 7 == 0 ? 150 : 6);
  sim::Fail({.operation = operation.name, .code = operation.code, .skip = skip, .times = times});
  Tell(std::string("to fail: ") + operation.name + ", " + std::to_string(times) + " times, after " +
       std::to_string(skip) + " calls");
}

platform::Mutex* const kLocks[] = {&gLastErrorMutex, &gBypassMutex, &gUiLock, &gSessionMutex};

void LetALockFail(uint32_t choice, uint32_t) {
  gFacts.lockFailures = true;
  sim::FailLock(*kLocks[choice % std::size(kLocks)]);
  Tell("a lock is to fail");
}

void ShortenAWrite(uint32_t choice, uint32_t amount) {
  constexpr const char* kMoving[] = {"WriteFile", "ReadFile", "WinHttpReadData", "WinHttpWriteData"};
  sim::Shorten(kMoving[choice % std::size(kMoving)], amount % 40);
}

// ---- The clock, the clients, and the rest of the world ----

void MoveClock(uint32_t choice, uint32_t) {
  constexpr int64_t kJumps[] = {3'600, -3'600,        86'400L * 40,  -86'400L * 400,
                                250,   4'000'000'000, -1'700'000'000};
  sim::SetUnixTime(sim::UnixTime() + kJumps[choice % std::size(kJumps)]);
}

void Ask(uint32_t choice, uint32_t amount) {
  // The first questions are what a user mostly does.
  StartAsking(amount % 3 == 0 ? choice : choice % 8);
}

void AskManyTimes(uint32_t choice, uint32_t amount) {
  for (uint32_t count = 0; count < 2 + amount % 18; ++count) StartAsking(choice + count * (amount % 3));
}

// What needs less than an act is given.
template <auto kAct>
void ByChoice(uint32_t choice, uint32_t) {
  kAct(choice);
}
template <auto kAct>
void Simply(uint32_t, uint32_t) {
  kAct();
}

void LoseHandshake(uint32_t choice, uint32_t) {
  sim::HandshakeAnswers(choice % 2 == 1);
}
void Wait(uint32_t, uint32_t amount) {
  Pass(amount % (20 * kMinute));
}

// ---- Calm ----

// What an operator does when a crash has torn the verifier, or a failure has sealed nothing: nothing else
// lets such a machine connect again.
void MendVerifier() {
  const std::optional<std::string> blob = sim::FileBytes(kVerifierFile);
  if (!blob || !sim::Unseal(*blob).value_or("").empty()) return;
  Tell("the operator removes the device's files");
  sim::RemoveFile(kVerifierFile);
  sim::RemoveFile(kDeviceIdFile);
  gFacts.deviceIds.insert("desktop-ab12");
}

// No session outlives a clock outside its years.
void MendClock() {
  constexpr int64_t kFirst = 1'600'000'000;
  constexpr int64_t kLast = 4'000'000'000;
  if (sim::UnixTime() < kFirst || sim::UnixTime() > kLast) sim::SetUnixTime(1'767'225'600);
}

bool HandlesRest() {
  constexpr const char* kKinds[] = {"file",    "find",   "process",     "process thread", "manager",
                                    "service", "engine", "enumeration", "http",           "memory"};
  for (const char* kind : kKinds) {
    if (sim::OpenHandles(kind) > 0) return false;
  }
  return !PipesAreOpen() && sim::OpenHandles("named pipe") <= 1;
}

// After an undisturbed connection its worker takes the routes away, at its next tick.
bool RoutesRest() {
  return !gFacts.afterConnection || !gBypassRoutesInstalled;
}

bool Rests() {
  return gTunnelStatus == 0 && gTunnelDesired == 0 && !gTunnelUp && !sim::ServiceInstalled(kTunnelService) &&
         gFacts.exchanges.empty() && OwnFilterCount() == 0 && RoutesRest() && HandlesRest();
}

void ComeToRest() {
  AskNow("Disconnect");
  const bool rests = Await(&Rests, kRestBound);
  Judge(Moment::kRest);
  if (!rests && !gFacts.violation) Violate(kComesToRest, sim::ThreadListing());
}

void Connect() {
  AskNow("POST /ui/login");
  AskNow("Connect");
  if (gFacts.violation) return;
  const uint64_t begun = sim::Now();
  while (gTunnelStatus != kStatusConnected && sim::Now() - begun < kConnectBound && !gFacts.violation) {
    // Three handshakes may have been missed just before: then it waits for the user.
    if (gTunnelStatus == kStatusError) AskNow("Connect");
    Await([] { return gTunnelUp && gTunnelStatus == kStatusConnected; }, kMinute);
    // A pass that a Disconnect and a Connect have overtaken shows its end too, and begins anew at once.
    if (gTunnelStatus == kStatusConnected && !Pass(1000)) return;
  }
  if (gFacts.violation) return;
  if (gTunnelStatus != kStatusConnected) {
    Violate(kConnectsAgain,
            "no connection, status " + std::to_string(gTunnelStatus) + "\n" + sim::LogLines().back());
  }
  Judge(Moment::kConnected);
}

// A service whose end is under way, or whose pipe could not be made, is no use to anybody.
bool ReadyForCalm() {
  if (!Await([] { return ClientsAtWork() == 0; }, 2 * kRestBound)) {
    if (!gFacts.violation) Violate(kAnswers, "clients are still at work\n" + sim::ThreadListing());
    return false;
  }
  const bool usable = sim::ProductRunning() && !gFacts.stopSignaled && !gFacts.supervisionEnds &&
                      Await([] { return sim::PipeInstances() > 0; }, kMinute) && sim::ProductRunning();
  if (gFacts.violation) return false;
  if (!usable && !Await([] { return !sim::ProductRunning(); }, kMinute) && !gFacts.violation) Kill(1000, 0);
  if (!sim::ProductRunning()) StartService();
  return !gFacts.violation;
}

}  // namespace

bool Pass(uint64_t milliseconds) {
  sim::RunUntil([] { return gFacts.violation.has_value(); }, milliseconds);
  return !gFacts.violation;
}

void StartService() {
  const size_t faults = sim::FaultsApplied();
  gFacts.faultsAtBirth = faults;
  gFacts.firewall.baselines = 0;
  gFacts.afterConnection = false;
  sim::ClearLog();
  Tell("the service manager starts the service");
  sim::StartProduct(true);
  Await([] { return Runs() || !sim::ProductRunning(); }, kMinute);
  if (gFacts.violation || Runs()) return;
  const bool stopped = !sim::ProductRunning() && gFacts.endedByStop;
  // Only trouble keeps it from starting; then the manager gives it up.
  if (sim::FaultsApplied() == faults && !gFacts.lockFailures && !stopped) {
    Violate(kStartsAgain, "not running after a minute\n" + sim::ThreadListing());
  }
  if (sim::ProductRunning()) Kill(1000, 0);
}

void CalmDown(uint32_t, uint32_t) {
  Tell("calm: all is made well");
  HealAll();
  for (platform::Mutex* lock : kLocks) sim::FailLock(*lock, 0);
  MendVerifier();
  MendClock();
  // What has been thrown already may still end the process.
  if (!Pass(1000) || !ReadyForCalm()) return;
  ComeToRest();
  if (gFacts.violation) return;
  Connect();
  if (gFacts.violation || !Pass(35'000)) return;
  gFacts.afterConnection = true;
  ComeToRest();
  gFacts.afterConnection = false;
}

const std::vector<Act>& Acts() {
  static const std::vector<Act> kActs = {
      {"ask", 40, &Ask},
      {"ask-many", 4, &AskManyTimes},
      {"be-rude", 6, &ByChoice<StartBeingRude>},
      {"wait", 8, &Wait},
      {"trouble-plane", 6, &TroublePlane},
      {"heal-plane", 5, &Simply<HealPlane>},
      {"rotate-tokens", 1, &Simply<RotateTokens>},
      {"handshake", 5, &LoseHandshake},
      {"trouble-programs", 4, &ByChoice<TroublePrograms>},
      {"trouble-tunnel", 4, &ByChoice<TroubleTunnelService>},
      {"trouble-network", 4, &ByChoice<TroubleNetwork>},
      {"trouble-names", 4, &ByChoice<TroubleNames>},
      {"policy", 2, &ByChoice<ChangePolicy>},
      {"hold-file", 3, &ByChoice<HoldAFile>},
      {"fault", 16, &LetACallFail},
      {"lock-fails", 1, &LetALockFail},
      {"shorten", 3, &ShortenAWrite},
      {"clock", 2, &MoveClock},
      {"control", 3, &SendStop},
      {"kill", 4, &Kill},
      {"start", 8, &StartAgain},
      {"heal", 4, &Simply<HealAll>},
      {"calm", 1, &CalmDown},
  };
  return kActs;
}

}  // namespace simulator
