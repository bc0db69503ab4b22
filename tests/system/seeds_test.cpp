// A short day of the service in many orders of its threads: the same order gives the same run, and in every
// order the machine is clean at the end.
#include <cstdlib>
#include <memory>

#include "tests/support/system_run.h"

namespace {

// How many seeds the tests below try; TELVOR_SEEDS asks for more.
uint64_t SeedCount() {
  const char* asked = std::getenv("TELVOR_SEEDS");
  return asked ? std::strtoull(asked, nullptr, 10) : 12;
}

// Clients that watch the state, one request after the other, until told to leave. What they get must be a
// reply, or nothing once the service is gone.
class Watchers {
 public:
  explicit Watchers(const Lines& methods) {
    for (const std::string& method : methods) {
      sim::StartClientThread("watcher " + method, [shared = shared_, method] { Watch(*shared, method); });
      ++shared_->running;
    }
  }

  bool Leave() {
    shared_->leave = true;
    return sim::RunUntil([this] { return shared_->running == 0; }, 10 * kMinute);
  }

  size_t Replies() const { return shared_->replies; }
  const Lines& Broken() const { return shared_->broken; }

 private:
  struct Shared {
    bool leave = false;
    size_t running = 0;
    size_t replies = 0;
    Lines broken;
  };

  static void Watch(Shared& shared, const std::string& method) {
    while (!shared.leave) {
      const std::string reply = Ask(method);
      const bool whole = reply.starts_with("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":") &&
                         reply.ends_with(",\"error\":null}\n");
      if (whole) ++shared.replies;
      if (!whole && !reply.empty() && reply != kNoRequestReply) shared.broken.push_back(reply);
      platform::Sleep(2500);
    }
    --shared.running;
  }

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

// From the start to the stop, with the watchers at it all the time. The parts of it that are waited for must
// come.
void LiveADay(SystemRun& run) {
  run.Start();
  Watchers watchers({"GetState", "GET /ui/status", "GET /ui/locations", "GET /ui/logs"});
  EXPECT_EQ(Login(), kLoginReply);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  EXPECT_TRUE(WaitForStatus(kStatusConnected));
  sim::Run(31'000);
  EXPECT_EQ(SelectLocation("srv-b"), kTrueReply);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  EXPECT_TRUE(sim::RunUntil([] { return gTunnelUp && gTunnelStatus == kStatusConnected; }, 2 * kMinute));
  sim::HandshakeAnswers(false);
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  EXPECT_TRUE(WaitForStatus(kStatusError));
  sim::HandshakeAnswers(true);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  EXPECT_TRUE(sim::RunUntil([] { return gTunnelUp && gTunnelStatus == kStatusConnected; }, 2 * kMinute));
  EXPECT_EQ(Ask("POST /ui/logout"), kLogoutReply);
  EXPECT_TRUE(WaitForIdle());
  EXPECT_TRUE(watchers.Leave());
  EXPECT_GT(watchers.Replies(), 50u);
  EXPECT_EQ(watchers.Broken(), Lines{});
  run.Stop();
}

struct Record {
  std::string trace;
  std::string log;
  uint64_t end = 0;
};

Record RecordDay(uint64_t seed) {
  SystemRun run({.seed = seed});
  LiveADay(run);
  return {sim::TraceText(), sim::LogBytes(), sim::Now()};
}

TEST(Seeds, TheSameSeedGivesTheSameRun) {
  for (const uint64_t seed : {1u, 2u, 77u}) {
    SCOPED_TRACE(seed);
    const Record first = RecordDay(seed);
    const Record second = RecordDay(seed);
    EXPECT_GT(first.trace.size(), 100'000u);
    // Not EXPECT_EQ: the texts are too long to be shown.
    EXPECT_TRUE(first.trace == second.trace);
    EXPECT_TRUE(first.log == second.log);
    EXPECT_EQ(first.end, second.end);
  }
}

TEST(Seeds, AnotherSeedGivesAnotherOrder) {
  EXPECT_FALSE(RecordDay(1).trace == RecordDay(2).trace);
}

TEST(Seeds, EveryOrderLeavesACleanMachine) {
  for (uint64_t seed = 1; seed <= SeedCount(); ++seed) {
    SCOPED_TRACE(seed);
    SystemRun run({.seed = seed});
    const Lines routes = sim::RouteTexts();
    LiveADay(run);
    ExpectNothingLeft();
    EXPECT_EQ(sim::RouteTexts(), routes);
    EXPECT_FALSE(sim::ServiceInstalled(kTunnelService));
  }
}

TEST(Seeds, AStopBesideClientsEndsInEveryOrder) {
  for (uint64_t seed = 1; seed <= SeedCount(); ++seed) {
    SCOPED_TRACE(seed);
    SystemRun run({.seed = seed});
    run.StartConnected();
    Watchers watchers({"GetState", "GET /ui/status", "GET /ui/locations", "GET /ui/logs"});
    sim::Run(100 * seed);
    // The instances of clients that are cut off in the middle.
    sim::ExpectOpenHandles(4);
    run.Stop();
    EXPECT_TRUE(watchers.Leave());
    EXPECT_EQ(watchers.Broken(), Lines{});
    ExpectNothingLeft();
    EXPECT_TRUE(sim::HostRouteTexts().empty());
  }
}

// The machine loses its process at any call of a connection; the next start and connection work all the same.
TEST(Seeds, AKillAtAnyMomentIsRecoveredFrom) {
  for (uint64_t seed = 1; seed <= 3 * SeedCount(); ++seed) {
    SCOPED_TRACE(seed);
    SystemRun run({.seed = seed});
    run.StartAndLogIn();
    sim::TearWritesAt(seed % 50);
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    const size_t calls = sim::Trace().size() + 25 * seed % 1500;
    sim::RunUntil([calls] { return sim::Trace().size() >= calls; }, kMinute);
    sim::KillProcess();
    run.Start();
    EXPECT_EQ(Login(), kLoginReply);
    run.Connect();
    EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
    EXPECT_EQ(sim::FiltersInForce().size(), 23u);
    EXPECT_EQ(Ask("Disconnect"), kTrueReply);
    EXPECT_TRUE(WaitForIdle());
    run.Stop();
    ExpectNothingLeft();
  }
}

}  // namespace
