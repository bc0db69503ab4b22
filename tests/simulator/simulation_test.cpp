// The simulator itself: its invariants can be broken, its runs repeat themselves, and the service keeps them
// all over a fixed set of seeds.
#include "simulation.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "canaries.h"
#include "days.h"
#include "invariants.h"
#include "replies.h"
#include "rule_model.h"
#include "shrink.h"
#include "sim/filtering.h"
#include "tests/support/sim_failures.h"

namespace {

using namespace simulator;

// A login, a connection, a kill within it, another connection, and a stop within that.
constexpr char kShortLife[] =
    "seed 7\n"
    "0 ask 2 1\n"
    "1000 ask 0 1\n"
    "20000 kill 17 0\n"
    "500 start 0 0\n"
    "1000 ask 0 1\n"
    "20000 control 0 0\n"
    "500 start 0 0\n";

Plan ShortLife() {
  return ReadPlan(kShortLife).value();
}

// A few of the days that telvor-sim tries without the sanitizers.
constexpr uint64_t kDays = 2;

std::string Seen(const Outcome& outcome) {
  return outcome.violation ? outcome.violation->invariant + ": " + outcome.violation->detail : "";
}

TEST(Simulation, TheServiceKeepsEveryInvariant) {
  for (uint64_t seed = 1; seed <= kDays; ++seed) {
    EXPECT_EQ(Seen(RunPlan(DrawPlan(seed))), "") << "seed " << seed;
  }
}

// Without trouble nothing fails, and the busy day has a tunnel: its worker adds the filters of the rule set.
TEST(Simulation, DaysWithoutTroubleKeepEveryInvariant) {
  const Outcome idle = RunPlan(DayPlan("idle", 0.1));
  const Outcome busy = RunPlan(DayPlan("busy", 0.1));
  EXPECT_EQ(Seen(idle) + Seen(busy), "");
  EXPECT_GE(idle.milliseconds, 360'000u);
  EXPECT_GE(busy.milliseconds, 360'000u);
  EXPECT_EQ(idle.faults + busy.faults, 0u);
}

TEST(Simulation, ABusyDayIsPolledEveryOtherSecond) {
  const Plan plan = DayPlan("busy", 0.5);
  size_t polls = 0;
  uint64_t length = 0;
  for (const Event& event : plan.events) {
    polls += QuestionAt(event.choice).method == std::string("GET /ui/status");
    length += event.pause;
  }
  EXPECT_EQ(polls, 899u);
  EXPECT_EQ(length, 1'800'000u);
  EXPECT_EQ(DayPlan("idle", 0.5).events.size(), 1u);
  EXPECT_TRUE(DayPlan("rainy", 0.5).events.empty());
}

TEST(Simulation, APlanRunsTwiceAlike) {
  const Outcome first = RunPlan(DrawPlan(101));
  const Outcome second = RunPlan(DrawPlan(101));
  EXPECT_GT(first.calls, 1000u);
  EXPECT_EQ(first.traceHash, second.traceHash);
  EXPECT_EQ(first.endHash, second.endHash);
  EXPECT_EQ(first.milliseconds, second.milliseconds);
}

TEST(Simulation, ToldRunsGoTheSameWay) {
  const Outcome told = RunPlan(ShortLife(), {.story = true});
  EXPECT_EQ(told.traceHash, RunPlan(ShortLife()).traceHash);
  EXPECT_GT(told.story.size(), 100u);
}

TEST(Simulation, AnotherSeedGivesAnotherRun) {
  Plan other = ShortLife();
  ++other.seed;
  EXPECT_NE(RunPlan(ShortLife()).traceHash, RunPlan(other).traceHash);
}

TEST(Simulation, EveryCanaryIsFoundByItsInvariant) {
  EXPECT_EQ(Seen(RunPlan(ShortLife())), "");
  for (const Canary& canary : Canaries()) {
    const Outcome outcome = RunPlan(ShortLife(), WithCanary(canary));
    ASSERT_TRUE(outcome.violation) << canary.name;
    EXPECT_EQ(outcome.violation->invariant, canary.invariant)
        << canary.name << ": " << outcome.violation->detail;
  }
}

TEST(Simulation, AFailureIsShortenedToWhatItTakes) {
  const Canary& canary = Canaries().front();
  const Plan smallest = ShrinkByRunning(ShortLife(), canary.invariant, WithCanary(canary));
  EXPECT_LT(smallest.events.size(), ShortLife().events.size());
  EXPECT_EQ(RunPlan(smallest, WithCanary(canary)).violation.value().invariant, canary.invariant);
}

// ---- Invariants that no canary breaks: on facts made up for it ----

// What the invariant of that name says of the facts as they are.
std::string Says(const std::string& name) {
  for (const Invariant& invariant : Invariants()) {
    if (invariant.name == name) return Concerns(invariant) ? invariant.broken() : "does not concern it";
  }
  return "no such invariant";
}

class MadeUp : public testing::Test {
 protected:
  MadeUp() { gFacts = Facts{}; }
  ~MadeUp() override { gFacts = Facts{}; }

  Exchange& Asked(const std::string& method, const std::string& reply) {
    for (size_t index = 0; index < kQuestionCount; ++index) {
      if (QuestionAt(index).method == method) exchange_.request = RequestLine(QuestionAt(index), 7) + "\n";
    }
    exchange_.client = 7;
    exchange_.what = method;
    exchange_.complete = exchange_.answered = true;
    exchange_.reply = reply;
    exchange_.statuses = 1;
    gFacts.exchange = &exchange_;
    return exchange_;
  }

  sim::Machine machine_;
  Exchange exchange_;
};

constexpr char kTrue[] = "{\"jsonrpc\":\"2.0\",\"id\":7,\"result\":true,\"error\":null}\n";

TEST_F(MadeUp, TwoLinesAreOneTooMany) {
  Asked("Connect", kTrue);
  EXPECT_EQ(Says("one line"), "");
  Asked("Connect", std::string(kTrue) + kTrue);
  EXPECT_NE(Says("one line"), "");
  Asked("Connect", "");
  EXPECT_NE(Says("one line"), "");
}

TEST_F(MadeUp, ALineMustFitItsRequest) {
  Asked("Connect", kTrue);
  EXPECT_EQ(Says("allowed line"), "");
  Asked("GetState", kTrue);
  EXPECT_NE(Says("allowed line"), "");
  Asked("Connect", "{\"jsonrpc\":\"2.0\",\"id\":8,\"result\":true,\"error\":null}\n");
  EXPECT_NE(Says("allowed line"), "");
  Asked("Connect",
        "{\"jsonrpc\":\"2.0\",\"id\":0,\"result\":null,\"error\":{\"message\":\"IPC: no request\"}}\n");
  EXPECT_NE(Says("allowed line"), "");
}

TEST_F(MadeUp, AStateMustHaveBeenThere) {
  const std::string reply =
      R"({"jsonrpc":"2.0","id":7,"result":{"deviceId":null,"wgPublicKey":null,"state":"connected",)"
      R"("protocol":"WireGuard","rxBytes":0,"txBytes":0,"lastError":null},"error":null})"
      "\n";
  Asked("GetState", reply);
  EXPECT_NE(Says("allowed line"), "");
  Asked("GetState", reply).statuses = 1U << 2U;
  EXPECT_EQ(Says("allowed line"), "");
}

TEST_F(MadeUp, AClientThreadDoesNotTouchTheStatusByItself) {
  gFacts.stepThread = 3;
  gFacts.shown.status = 1;
  EXPECT_NE(Says("others leave the status"), "");
  gFacts.shown.status = 0;
  gFacts.before.status = 1;
  FactsOf(3).method = "POST /ui/select-location";
  FactsOf(3).bootstrapFailed = true;
  EXPECT_EQ(Says("others leave the status"), "");
}

TEST_F(MadeUp, ConnectedNeedsItsSteps) {
  gFacts.stepThread = 3;
  FactsOf(3).worker = true;
  gFacts.shown.status = 2;
  EXPECT_EQ(Says("connected comes last"), "missing before CONNECTED: Bootstrap");
}

TEST_F(MadeUp, ABaselineNeedsAHandshake) {
  const sim::TraceEntry commit{0, 3, "FwpmTransactionCommit0", "engine=0x100", "ok", true};
  gFacts.call = &commit;
  FactsOf(3).worker = true;
  FactsOf(3).operation = "EnableFailClosedBaseline";
  EXPECT_NE(Says("baseline after handshake"), "");
  gFacts.pass.operations.push_back({.name = "WgHandshakeSeen", .result = true});
  EXPECT_EQ(Says("baseline after handshake"), "");
}

TEST_F(MadeUp, AConfigurationThatIsCutIsNotWhole) {
  const sim::TraceEntry move{
      0, 3, "MoveFileExW", "from=\"x\" to=\"C:\\ProgramData\\TELVOR\\wg\\telvor.conf\" flags=9", "ok", true};
  gFacts.call = &move;
  gFacts.config = "[Interface]\nPrivateKey = ";
  EXPECT_EQ(Says("configuration is whole"), "without Address = ");
}

TEST_F(MadeUp, ARollbackThatLeavesAFilterIsNone) {
  const OperationFacts rollback{.name = "RollbackToOpen", .thread = 3, .result = true};
  gFacts.operation = &rollback;
  EXPECT_EQ(Says("rollback leaves nothing"), "");
  FactsOf(3).leftByRollback = 1;
  EXPECT_EQ(Says("rollback leaves nothing"), "1 filters left");
}

TEST_F(MadeUp, AWorkerBeginsWithItsRollback) {
  const OperationFacts bootstrap{.name = "Bootstrap", .thread = 3, .result = true};
  gFacts.operation = &bootstrap;
  FactsOf(3).worker = true;
  EXPECT_EQ(Says("rollback comes first"), "Bootstrap before the rollback");
}

TEST_F(MadeUp, ATunnelServiceThatIsGoneDoesNotRun) {
  EXPECT_NE(Says("tunnel runs while connected"), "");
  EXPECT_NE(Says("baseline while connected"), "");
}

TEST_F(MadeUp, ABlockFilterIsNoPermit) {
  sim::EngineFilter filter;
  filter.filter.displayData.name = L"ALLOW loopback v4";
  filter.filter.providerKey = {0xB8D16C9B, 0x7D78, 0x4A2C, {0x9A, 0x8B, 0x01, 0xF4, 0xB1, 0xF1, 0xB0, 0xA1}};
  filter.filter.actionType = 0x1001;
  sim::PutFilter(filter);
  EXPECT_EQ(RuleSetFault(true), "no plain permit: 'ALLOW loopback v4'");
}

TEST(Replies, FormsTakeAnyTextForAStar) {
  EXPECT_TRUE(FitsForm("abc", "abc"));
  EXPECT_FALSE(FitsForm("abcd", "abc"));
  EXPECT_TRUE(FitsForm("a{x}b{}c", "a{*}b{*}c"));
  EXPECT_FALSE(FitsForm("a{x}b{}", "a{*}b{*}c"));
  EXPECT_FALSE(FitsForm("ab", "ab*b"));
}

}  // namespace
