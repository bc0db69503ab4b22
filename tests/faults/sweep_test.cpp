// Every platform call of a day of the service fails, once and from then on, and after every call the process
// is killed. The calls are found by living the day undisturbed. Here one call of each operation fails, an
// early one, and of the kills only some are tried; all of them by
//
//   TELVOR_FAULTS=0/1 telvor_faults_tests
//
// or, in several processes, by TELVOR_FAULTS=0/4, 1/4, 2/4 and 3/4. What was tried is printed at the end.
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>

#include "controlplane/text.h"
#include "tests/faults/day.h"
#include "tests/faults/expectation.h"
#include "tests/faults/place.h"

namespace faults {
namespace {

constexpr uint64_t kSeed = 7;
constexpr size_t kCrashesOfAShortSweep = 20;
constexpr size_t kEarly = 8;  // an eighth of an operation's calls precede the one of a short sweep
constexpr size_t kMostFailingCases = 12;  // then the sweep is given up
constexpr size_t kShownOfACall = 300;     // characters
constexpr size_t kShownOfTheLog = 1500;   // bytes
constexpr uint32_t kStopPatience = 60'000;
// The client that asks for the stop is cut off, and its instance is not closed.
constexpr size_t kInstancesCutOff = 1;

struct UndisturbedDay {
  std::vector<sim::TraceEntry> trace;
  std::vector<Place> places;
  std::vector<const Expectation*> expectations;  // null for calls that cannot fail, and for those without
  std::string told;                              // the log and the replies
  std::set<std::string> configurations;
  std::set<std::wstring> files;  // after it and a further connection
};

std::string Told(const Diary& diary, size_t logBegin, size_t repliesBegin) {
  std::string text = sim::LogBytes().substr(std::min(logBegin, sim::LogBytes().size()));
  for (size_t i = repliesBegin; i < diary.replies.size(); ++i) text += diary.replies[i];
  return text;
}

// By the service manager; a process that cannot be stopped is killed.
void EndTheProcess() {
  if (!sim::ProductRunning()) return;
  sim::SendControl(platform::kServiceControlStop, kStopPatience);
  if (!WaitForEnd(kStopPatience)) sim::KillProcess();
}

void ExpectAnOrderlyStop() {
  EXPECT_TRUE(sim::SendControl(platform::kServiceControlStop));
  EXPECT_TRUE(WaitForEnd());
  ExpectNothingLeft();
}

UndisturbedDay LiveUndisturbed() {
  UndisturbedDay day;
  SystemRun run({.seed = kSeed});
  const Lines routes = sim::RouteTexts();
  Diary diary;
  LiveUntilEvening({}, diary);
  EXPECT_TRUE(StopForTheNight(diary));
  ExpectNothingLeft();
  day.trace = sim::Trace();
  day.places = PlacesOf(day.trace);
  for (size_t i = 0; i < day.trace.size(); ++i) {
    const sim::TraceEntry& entry = day.trace[i];
    day.expectations.push_back(entry.canFail ? FindExpectation(std::string(entry.operation), day.places[i])
                                             : nullptr);
  }
  day.told = Told(diary, 0, 0);
  day.configurations = diary.configurations;
  sim::ExpectOpenHandles(kInstancesCutOff);
  StartAgain();
  ExpectTheDayGoesOn(routes);
  ExpectAnOrderlyStop();
  const std::vector<std::wstring> files = sim::AllFiles();
  day.files.insert(files.begin(), files.end());
  return day;
}

const UndisturbedDay& Undisturbed() {
  static const UndisturbedDay gDay = LiveUndisturbed();
  return gDay;
}

// ---- Which calls are tried ----

// "k/n": every n-th call from the k-th on. None: a short sweep.
bool AskedShare(size_t& first, size_t& step) {
  const char* asked = std::getenv("TELVOR_FAULTS");
  if (!asked) return false;
  char* slash = nullptr;
  first = std::strtoull(asked, &slash, 10);
  step = *slash == '/' ? std::strtoull(slash + 1, nullptr, 10) : 0;
  EXPECT_GT(step, 0u) << "TELVOR_FAULTS is k/n";
  return step > 0;
}

std::vector<size_t> EveryNth(size_t first, size_t step, bool onlyThatCanFail) {
  std::vector<size_t> chosen;
  const auto& trace = Undisturbed().trace;
  for (size_t i = first; i < trace.size(); i += step) {
    if (!onlyThatCanFail || trace[i].canFail) chosen.push_back(i);
  }
  return chosen;
}

size_t CountOfOperations(const std::vector<size_t>& calls) {
  std::set<std::string> operations;
  for (const size_t i : calls) operations.emplace(Undisturbed().trace[i].operation);
  return operations.size();
}

// An early one of each operation, so that little of the day is to be lived before it.
std::vector<size_t> OneOfEachOperation() {
  std::map<std::string, std::vector<size_t>> groups;
  for (const size_t i : EveryNth(0, 1, true))
    groups[std::string(Undisturbed().trace[i].operation)].push_back(i);
  std::vector<size_t> chosen;
  chosen.reserve(groups.size());
  for (const auto& [operation, calls] : groups) chosen.push_back(calls[calls.size() / kEarly]);
  return chosen;
}

const Expectation* ExpectationOf(size_t i) {
  return Undisturbed().expectations[i];
}

std::string OperationOf(size_t i) {
  return std::string(Undisturbed().trace[i].operation);
}

// ---- One failure ----

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
  const size_t at = text.find(what);
  return at == std::string::npos ? text : text.replace(at, what.size(), by);
}

// The log itself is written with these: when they fail from then on, it cannot tell anything.
bool TheLogNeeds(const std::string& operation) {
  for (const char* needed : {"GetEnvironmentVariableW", "CreateFileW", "WriteFile", "WideCharToMultiByte"}) {
    if (operation == needed) return true;
  }
  return false;
}

void ExpectItWasTold(const Expectation& expectation, const Mischief& mischief, const std::string& told) {
  if (!*expectation.says) return;
  if (mischief.kind == Mischief::Kind::kFailFromThenOn && TheLogNeeds(mischief.operation)) return;
  bool found = false;
  for (const std::string& line : Alternatives(expectation.says)) {
    found |= told.find(Replaced(line, "{code}", std::to_string(mischief.code))) != std::string::npos;
  }
  EXPECT_TRUE(found) << "nothing says " << expectation.says << "\n" << told.substr(0, kShownOfTheLog);
}

void ExpectWholeRepliesAndNoSecrets(const Diary& diary) {
  for (const std::string& reply : diary.replies) {
    EXPECT_TRUE(reply.empty() ||
                (reply.starts_with("{\"jsonrpc\":\"2.0\",\"id\":") && reply.ends_with("}\n")))
        << reply;
  }
  for (const char* secret : {"secret", "access-1", "refresh-1"}) {
    EXPECT_EQ(sim::LogCount(secret), 0u) << secret;
  }
}

// How many handles may be open at the end: of the calls that failed, and of a stop asked through the pipe.
size_t HandlesThatMayStay(bool askedToStop) {
  std::map<uint32_t, std::string> before;  // the thread's call before
  size_t count = askedToStop ? kInstancesCutOff : 0;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    const bool pipeBefore = before[entry.thread] == "CreatePipe";
    if (entry.result.starts_with("failed")) count += HandlesLeftBy(std::string(entry.operation), pipeBefore);
    before[entry.thread] = entry.operation;
  }
  return count;
}

void MakeGood(Aftermath aftermath) {
  if (aftermath == Aftermath::kOperator) {
    sim::RemoveFile(kDeviceIdFile);
    sim::RemoveFile(std::wstring(kDeviceIdFile) + L".protected");
    sim::RemoveFile(kRuntimePolicyFile);
  }
  if (aftermath == Aftermath::kNewProcess) EndTheProcess();
  if (!sim::ProductRunning()) StartAgain();
}

// From then on means also at the operation's later calls.
Aftermath WorstOf(const std::string& operation, size_t from) {
  Aftermath worst = Aftermath::kGoesOn;
  for (const size_t i : EveryNth(from, 1, true)) {
    if (OperationOf(i) == operation && ExpectationOf(i)) worst = std::max(worst, ExpectationOf(i)->aftermath);
  }
  return worst;
}

void TryFailure(size_t i, Mischief::Kind kind, bool thenHome) {
  ASSERT_TRUE(ExpectationOf(i)) << "nothing is known of what is to be seen";
  const Expectation& expectation = *ExpectationOf(i);
  const Mischief mischief{kind, i + 1, OperationOf(i), CodeOf(OperationOf(i)), thenHome};
  const bool once = kind == Mischief::Kind::kFailOnce;
  const Aftermath aftermath = once ? expectation.aftermath : WorstOf(OperationOf(i), i);
  SystemRun run({.seed = kSeed});
  const Lines routes = sim::RouteTexts();
  Diary diary;
  LiveUntilEvening(mischief, diary);
  const bool beforeTheNight = diary.hit;
  if (!beforeTheNight) StopForTheNight(diary);
  sim::ClearFaults();
  ASSERT_TRUE(diary.hit);
  ExpectItWasTold(expectation, mischief, Told(diary, diary.logBefore, diary.repliesBefore));
  ExpectWholeRepliesAndNoSecrets(diary);
  // A request to stop that fails may leave it running.
  EXPECT_TRUE(sim::ProductRunning() || !beforeTheNight || aftermath == Aftermath::kNewProcess);
  MakeGood(aftermath);
  ExpectTheDayGoesOn(routes);
  ExpectAnOrderlyStop();
  sim::ExpectOpenHandles(HandlesThatMayStay(!beforeTheNight));
}

// ---- One crash ----

// What a killed process left behind.
struct Remains {
  Lines routes;
  bool session = false;  // a whole one
  bool brokenVerifier = false;
  bool emptyPolicy = false;
  std::string deviceId;  // that the next process must find
};

std::string Trimmed(const std::optional<std::string>& bytes) {
  return TrimAscii(bytes.value_or(""));
}

Remains LookAround() {
  Remains remains;
  remains.routes = sim::RouteTexts();
  remains.session = sim::Unseal(sim::FileBytes(kSessionFile).value_or("")).has_value();
  const auto verifier = sim::FileBytes(std::wstring(kDeviceIdFile) + L".protected");
  const auto sealed = verifier ? sim::Unseal(*verifier) : std::nullopt;
  remains.brokenVerifier = verifier && !sealed;
  remains.emptyPolicy = sim::FileBytes(kRuntimePolicyFile) == "";
  const std::string clear = Trimmed(sim::FileBytes(kDeviceIdFile));
  remains.deviceId = sealed ? *sealed : clear.empty() || remains.brokenVerifier ? "desktop-ab12" : clear;
  return remains;
}

void ExpectTheOldRulesGoFirst() {
  sim::Before("CreateProcessW", [] { EXPECT_TRUE(FirewallIsOpen()); });
  StartAgain();
  EXPECT_TRUE(sim::RunUntil([] { return !sim::ServiceInstalled(kTunnelService); }, kMinute));
}

// The id's files are removed once it is seen that nothing goes without.
void ExpectABrokenVerifierBlocks() {
  EXPECT_EQ(Login(), kLoginReply);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  EXPECT_TRUE(
      WaitForLine("LoadOrCreateDeviceId: protected verifier present but could not be decrypted", kMinute));
  MakeGood(Aftermath::kOperator);
}

// Wanted: the seed is not looked at while there is a sealed file.
void ExpectAnEmptyPolicyStays() {
  EXPECT_TRUE(sim::LogHas("SplitTunnelV1: runtime source=encrypted"));
  MakeGood(Aftermath::kOperator);
}

void TryCrash(size_t i) {
  SystemRun run({.seed = kSeed});
  const Lines routes = sim::RouteTexts();
  constexpr size_t kTears = 40;
  sim::TearWritesAt(i % kTears);
  Diary diary;
  const Mischief crash{Mischief::Kind::kCrashAfter, i + 1};
  LiveUntilEvening(crash, diary);
  if (!diary.hit) StopForTheNight(diary);
  // Behind the last call there is no other before which it could be killed.
  ASSERT_EQ(diary.hit, i + 1 < Undisturbed().trace.size());
  if (!diary.hit) return;
  ASSERT_FALSE(sim::ProductRunning());
  const Remains remains = LookAround();
  const auto configuration = sim::FileBytes(kTunnelConfigFile);
  EXPECT_TRUE(!configuration || Undisturbed().configurations.contains(*configuration)) << *configuration;
  ExpectTheOldRulesGoFirst();
  EXPECT_EQ(sim::RouteTexts(), remains.routes);
  EXPECT_EQ(Field(Ask("GET /ui/status"), "auth_state"), remains.session ? "AUTH_OK" : "AUTH_REQUIRED");
  if (remains.brokenVerifier) ExpectABrokenVerifierBlocks();
  if (remains.emptyPolicy) ExpectAnEmptyPolicyStays();
  ExpectTheDayGoesOn(routes);
  EXPECT_EQ(Trimmed(sim::FileBytes(kDeviceIdFile)), remains.deviceId);
  for (const std::wstring& file : sim::AllFiles()) {
    EXPECT_TRUE(Undisturbed().files.contains(file)) << sim::Narrow(file);
  }
  ExpectAnOrderlyStop();
  sim::ExpectOpenHandles(HandlesThatMayStay(false));
}

// ---- All of them ----

std::map<std::string, size_t> gTried;  // by what was done to them

// Tells at the end how much it was.
class Sweep : public testing::Test {
 protected:
  static void SetUpTestSuite() { gBegin = std::chrono::steady_clock::now(); }

  static void TearDownTestSuite() {
    const std::vector<size_t> all = EveryNth(0, 1, false);
    const std::vector<size_t> fallible = EveryNth(0, 1, true);
    std::cout << "A day of " << all.size() << " calls of " << CountOfOperations(all) << " operations; "
              << fallible.size() << " calls of " << CountOfOperations(fallible)
              << " operations can fail.\nTried:";
    for (const auto& [what, count] : gTried) std::cout << " " << count << " " << what << ",";
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - gBegin;
    std::cout << " in " << std::lround(seconds.count()) << " s\n";
  }

 private:
  static inline std::chrono::steady_clock::time_point gBegin;
};

size_t FailedParts() {
  const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  size_t count = 0;
  for (int i = 0; i < result.total_part_count(); ++i) count += result.GetTestPartResult(i).failed() ? 1 : 0;
  return count;
}

void TryEach(const std::string& what, const std::vector<size_t>& calls,
             const std::function<void(size_t)>& attempt) {
  size_t failing = 0;
  for (const size_t i : calls) {
    const std::string name = what + " call " + std::to_string(i + 1) + " " + OperationOf(i) + " " +
                             Undisturbed().places[i].call.substr(0, kShownOfACall);
    SCOPED_TRACE(name);
    const size_t before = FailedParts();
    attempt(i);
    ++gTried[what];
    if (FailedParts() == before) continue;
    ++failing;
    // What other threads find says not where.
    std::cout << "failed: " << name << "\n";
    ASSERT_LT(failing, kMostFailingCases) << "given up";
  }
}

TEST_F(Sweep, EveryCallThatCanFailIsDescribed) {
  std::set<const Expectation*> used;
  for (const size_t i : EveryNth(0, 1, true)) {
    const Expectation* expectation = ExpectationOf(i);
    EXPECT_TRUE(expectation) << OperationOf(i) << " " << Undisturbed().places[i].call;
    used.insert(expectation);
  }
  for (const Expectation& expectation : Expectations()) {
    EXPECT_TRUE(used.contains(&expectation))
        << "no such call: " << expectation.operations << " " << expectation.place;
    EXPECT_NE(std::string(expectation.says).empty(), std::string(expectation.silence).empty())
        << expectation.operations << " " << expectation.place;
  }
}

// Else a line would prove nothing.
TEST_F(Sweep, AnUndisturbedDaySaysNoneOfIt) {
  for (const Expectation& expectation : Expectations()) {
    if (!*expectation.says) continue;
    for (const std::string& line : Alternatives(expectation.says)) {
      EXPECT_EQ(Undisturbed().told.find(line), std::string::npos) << line;
    }
  }
}

// All calls that can fail, or a share of them, in a whole day each; else one of each operation.
void TryFailures(const char* what, Mischief::Kind kind) {
  size_t first = 0;
  size_t step = 1;
  const bool whole = AskedShare(first, step);
  TryEach(what, whole ? EveryNth(first, step, true) : OneOfEachOperation(),
          [kind, whole](size_t i) { TryFailure(i, kind, !whole); });
}

TEST_F(Sweep, AFailureOfAnyCallIsOutlived) {
  TryFailures("failing once", Mischief::Kind::kFailOnce);
}

TEST_F(Sweep, AnOutageOfAnyCallIsOutlived) {
  TryFailures("failing from then on", Mischief::Kind::kFailFromThenOn);
}

TEST_F(Sweep, AKillAfterAnyCallIsRecoveredFrom) {
  size_t first = 0;
  size_t step = Undisturbed().trace.size() / kCrashesOfAShortSweep;
  AskedShare(first, step);
  TryEach("killed after", EveryNth(first, step, false), &TryCrash);
}

}  // namespace
}  // namespace faults
