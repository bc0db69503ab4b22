// The whole service with threads that really run at once: clients beside each other, beside the worker, and
// beside a stop. Made for the thread sanitizer; what it finds is not reproducible by a seed, so the checks
// hold in any order.
#include <atomic>
#include <memory>

#include "tests/support/system_run.h"

namespace {

constexpr int kRounds = 3;

sim::Options Free(int round) {
  return {.seed = static_cast<uint64_t>(round), .freeRunning = true};
}

// What the clients do: each of them all the requests in turn, beginning with another one.
class Crowd {
 public:
  Crowd(size_t clients, const Lines& requests, size_t turns) {
    for (size_t client = 0; client < clients; ++client) {
      ++shared_->running;
      sim::StartClientThread("client " + std::to_string(client), [shared = shared_, requests, client, turns] {
        for (size_t i = 0; i < turns; ++i) {
          Send(*shared, requests[(client + i) % requests.size()]);
        }
        --shared->running;
      });
    }
  }

  void Wait() {
    EXPECT_TRUE(sim::RunUntil([this] { return shared_->running == 0; }, 60 * kMinute));
    EXPECT_EQ(shared_->broken, 0u);
  }

  size_t Replies() const { return shared_->replies; }

 private:
  struct Shared {
    std::atomic<size_t> running{0};
    std::atomic<size_t> replies{0};
    std::atomic<size_t> broken{0};
  };

  // A client that comes while the process ends gets the fixed reply or nothing.
  static void Send(Shared& shared, const std::string& request) {
    const std::string reply = sim::Ask(request).value_or("");
    const bool whole = reply.starts_with("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":") &&
                       reply.ends_with(",\"error\":null}\n");
    if (whole) ++shared.replies;
    if (!whole && !reply.empty() && reply != kNoRequestReply) ++shared.broken;
  }

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

const std::string kLogin = Request("POST /ui/login", R"("email":"user@example.com","password":"secret")");

Lines Views() {
  return {Request("GetState"), Request("GET /ui/status"), Request("GET /ui/locations"),
          Request("GET /ui/logs", "\"limit\":50"), Request("GetRecentLogs")};
}

Lines Changes() {
  return {Request("Connect"),
          Request("POST /ui/select-location", "\"server_id\":\"srv-b\""),
          Request("Disconnect"),
          kLogin,
          Request("Connect"),
          Request("POST /ui/logout"),
          kLogin};
}

// A login cannot replace a key file that a bootstrap is reading just then, says so, and is tried again.
bool LogInSoon() {
  for (int attempt = 0; attempt < 20; ++attempt) {
    const std::string reply = Login();
    if (reply == kLoginReply) return true;
    EXPECT_EQ(Field(reply, "message"), "login ok but active WG key rotation failed");
    sim::Run(1000);
  }
  return false;
}

TEST(Requests, ViewsBesideAConnection) {
  for (int round = 1; round <= kRounds; ++round) {
    SystemRun run(Free(round));
    run.StartAndLogIn();
    Crowd crowd(8, Views(), 20);
    run.Connect();
    crowd.Wait();
    EXPECT_EQ(crowd.Replies(), 160u);
    EXPECT_EQ(Ask("Disconnect"), kTrueReply);
    run.Stop();
    ExpectNothingLeft();
  }
}

TEST(Requests, ChangesOfEveryKindBesideEachOther) {
  for (int round = 1; round <= kRounds; ++round) {
    SystemRun run(Free(round));
    run.StartAndLogIn();
    Lines requests = Changes();
    for (const std::string& view : Views()) requests.push_back(view);
    Crowd crowd(6, requests, requests.size());
    crowd.Wait();
    EXPECT_EQ(crowd.Replies(), 6 * requests.size());
    // Whatever the last of them wanted, the service still does what it is told.
    EXPECT_TRUE(LogInSoon());
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    EXPECT_TRUE(WaitForStatus(kStatusConnected, 10 * kMinute));
    EXPECT_EQ(Ask("Disconnect"), kTrueReply);
    run.Stop();
    ExpectNothingLeft();
  }
}

TEST(Requests, AStopBesideThem) {
  for (int round = 1; round <= kRounds; ++round) {
    SystemRun run(Free(round));
    run.StartConnected();
    Crowd crowd(8, Views(), 10);
    run.Stop();
    crowd.Wait();
    ExpectNothingLeft();
  }
}

TEST(Requests, BootstrapsBesideTheWorkers) {
  for (int round = 1; round <= kRounds; ++round) {
    SystemRun run(Free(round));
    run.StartAndLogIn();
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    Crowd crowd(4,
                {Request("POST /ui/select-location", "\"server_id\":\"srv-a\""),
                 Request("POST /ui/select-location", "\"server_id\":\"srv-b\"")},
                6);
    crowd.Wait();
    EXPECT_EQ(crowd.Replies(), 24u);
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    EXPECT_TRUE(WaitForStatus(kStatusConnected, 10 * kMinute));
    run.Stop();
    ExpectNothingLeft();
  }
}

TEST(Requests, ARefreshBesideThem) {
  SystemRun run(Free(1));
  run.StartConnected();
  Crowd crowd(4, Views(), 200);
  sim::Run(2 * kMinute);
  crowd.Wait();
  EXPECT_TRUE(WaitForLine("WorkerLoop : Started refresh1"));
  EXPECT_EQ(State(), "connected");
  run.Stop();
  ExpectNothingLeft();
}

}  // namespace
