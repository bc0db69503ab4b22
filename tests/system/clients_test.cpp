// Clients of the pipe beside each other and beside the worker: sixteen at once, silent ones, broken lines.
#include <memory>
#include <set>

#include "tests/support/system_run.h"

namespace {

constexpr char kUnknownMethod[] =
    R"({"jsonrpc":"2.0","id":1,"result":null,"error":{"message":"IPC: unknown method"}})"
    "\n";
constexpr char kMissingMethod[] =
    R"({"jsonrpc":"2.0","id":0,"result":null,"error":{"message":"IPC: missing method"}})"
    "\n";

// Each request on a thread of its own, all at once; the replies in their order.
Lines AskAtOnce(const Lines& requests) {
  auto replies = std::make_shared<Lines>(requests.size());
  auto done = std::make_shared<size_t>(0);
  for (size_t i = 0; i < requests.size(); ++i) {
    sim::StartClientThread("client " + std::to_string(i), [replies, done, i, line = requests[i]] {
      (*replies)[i] = sim::Ask(line).value_or("");
      ++*done;
    });
  }
  EXPECT_TRUE(sim::RunUntil([&] { return *done == requests.size(); }, 10 * kMinute));
  return *replies;
}

std::string RequestWithId(const std::string& method, size_t id) {
  return "{\"id\":" + std::to_string(id) + ",\"method\":\"" + method + "\"}";
}

std::string WithId(const std::string& text, size_t id) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + text;
}

using ClientPointer = std::unique_ptr<sim::PipeClient>;

std::vector<ClientPointer> SilentClients(size_t count) {
  std::vector<ClientPointer> clients;
  for (size_t i = 0; i < count; ++i) {
    clients.push_back(std::make_unique<sim::PipeClient>());
    EXPECT_TRUE(clients.back()->Connected());
  }
  return clients;
}

TEST(Clients, SixteenAtOnceAreAllServed) {
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    SCOPED_TRACE(seed);
    SystemRun run({.seed = seed});
    run.StartConnected();
    Lines requests;
    for (size_t id = 0; id < 16; ++id) {
      requests.push_back(RequestWithId(id % 2 ? "GetState" : "GET /ui/status", id));
    }
    const Lines replies = AskAtOnce(requests);
    for (size_t id = 0; id < 16; ++id) {
      EXPECT_TRUE(replies[id].starts_with(WithId(",\"result\":{", id))) << replies[id];
      EXPECT_TRUE(replies[id].ends_with("},\"error\":null}\n")) << replies[id];
      const char* key = id % 2 ? "state" : "tunnel_status";
      EXPECT_EQ(Field(replies[id], key), id % 2 ? "connected" : "CONNECTED");
    }
  }
}

TEST(Clients, AllTwentyGetTheirTurnOnSixteenInstances) {
  SystemRun run;
  run.Start();
  Lines requests(20, Request("GetState"));
  for (const std::string& reply : AskAtOnce(requests)) EXPECT_EQ(Field(reply, "state"), "disconnected");
}

TEST(Clients, ASeventeenthIsTurnedAwayUntilOneLeaves) {
  SystemRun run;
  run.Start();
  std::vector<ClientPointer> clients = SilentClients(16);
  EXPECT_EQ(sim::PipeInstances(), 16u);
  {
    sim::PipeClient late(1000);
    EXPECT_FALSE(late.Connected());
    EXPECT_EQ(late.Error(), 231u);
  }
  clients[7]->Close();
  // The server tries to make an instance every 250 milliseconds.
  const uint64_t before = sim::Now();
  EXPECT_EQ(State(), "disconnected");
  EXPECT_LE(sim::Now() - before, 300u);
  for (ClientPointer& client : clients) client->Write("{\"method\":\"Nope\"}\n");
  for (size_t i = 0; i < clients.size(); ++i) {
    if (i == 7) continue;
    EXPECT_EQ(clients[i]->ReadToEnd(),
              R"({"jsonrpc":"2.0","id":0,"result":null,"error":{"message":"IPC: unknown method"}})"
              "\n");
  }
}

TEST(Clients, SilentOnesStopNeitherTheWorkerNorTheOthers) {
  SystemRun run;
  run.Start();
  const std::vector<ClientPointer> clients = SilentClients(15);
  EXPECT_EQ(Login(), kLoginReply);
  run.Connect();
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_TRUE(WaitForIdle());
}

TEST(Clients, ABrokenLineGetsItsReplyAndTheNextClientIsServed) {
  SystemRun run;
  run.Start();
  EXPECT_EQ(sim::Ask(""), kMissingMethod);
  EXPECT_EQ(sim::Ask("\xFF\xFE{{{"), kMissingMethod);
  EXPECT_EQ(sim::Ask("{\"method\":\"GetState"), kMissingMethod);
  EXPECT_EQ(sim::Ask("{\"method\" : \"GetState\"}"), kMissingMethod);
  EXPECT_EQ(Ask("getstate"), kUnknownMethod);
  EXPECT_EQ(Ask("POST /ui/quota"), kUnknownMethod);
  EXPECT_EQ(State(), "disconnected");
}

TEST(Clients, AnOverlongLineGetsTheFixedReply) {
  SystemRun run;
  run.Start();
  sim::PipeClient client;
  client.Write(std::string(200'000, ' '));
  // Exactly the limit is still being read; the next chunk without a line feed ends it.
  client.Write(std::string(512, ' '));
  EXPECT_EQ(client.ReadToEnd(), kNoRequestReply);
  EXPECT_EQ(State(), "disconnected");
}

TEST(Clients, OnlyTheFirstLineOfAWriteIsServed) {
  SystemRun run;
  run.Start();
  sim::PipeClient client;
  client.Write("{\"method\":\"Get\rState\"}\r\n{\"method\":\"Connect\"}\n");
  EXPECT_EQ(Field(client.ReadToEnd().value_or(""), "state"), "disconnected");
  EXPECT_EQ(gTunnelDesired, 0);
}

TEST(Clients, ALineInManyPiecesIsPutTogether) {
  SystemRun run;
  run.Start();
  sim::PipeClient client;
  for (const char byte : Request("GetState") + "\n") {
    client.Write(std::string(1, byte));
    sim::Run(10);
  }
  EXPECT_EQ(Field(client.ReadToEnd().value_or(""), "state"), "disconnected");
}

TEST(Clients, OneThatLeavesInTheMiddleCostsNothing) {
  SystemRun run;
  run.Start();
  {
    sim::PipeClient client;
    client.Write("{\"method\":");
  }
  {
    sim::PipeClient client;
    client.Write(Request("GET /ui/logs") + "\n");
  }
  EXPECT_EQ(State(), "disconnected");
  sim::Run(1000);
  EXPECT_EQ(sim::PipeInstances(), 1u);
}

// A reply larger than the pipe's buffer waits until the client has read it.
TEST(Clients, ALargeReplyArrivesWhole) {
  SystemRun run;
  run.Start();
  sim::PutFile(L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log", std::string(150'000, 'x') + "\r\n");
  const std::string reply = Ask("GET /ui/logs", "\"limit\":2000");
  EXPECT_GT(reply.size(), 150'000u);
  EXPECT_TRUE(reply.ends_with("],\"error\":null}\n"));
}

// The guard reads and writes apart, so two at once may both count; that costs one more pass.
TEST(Clients, ConnectAtOnceIsOneConnection) {
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    SCOPED_TRACE(seed);
    SystemRun run({.seed = seed});
    run.StartAndLogIn();
    for (const std::string& reply : AskAtOnce(Lines(4, Request("Connect")))) EXPECT_EQ(reply, kTrueReply);
    EXPECT_GE(gTunnelEpoch, 1u);
    EXPECT_LE(gTunnelEpoch, 4u);
    ASSERT_TRUE(WaitForStatus(kStatusConnected));
    // Behind a raised epoch the connected loop leaves once more, and comes back.
    sim::Run(kMinute);
    EXPECT_EQ(gTunnelStatus, kStatusConnected);
    EXPECT_EQ(sim::HostRouteTexts().size(), 3u);
  }
}

TEST(Clients, ConnectTwiceIsOneLineAndOneEpoch) {
  SystemRun run;
  run.StartAndLogIn();
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  EXPECT_EQ(sim::LogCount("IPC: Connect requested"), 1u);
  EXPECT_EQ(gTunnelEpoch, 1u);
}

TEST(Clients, DisconnectWhenIdleDoesNothing) {
  SystemRun run;
  run.Start();
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_EQ(sim::LogCount("IPC: Disconnect requested"), 0u);
  EXPECT_EQ(gTunnelEpoch, 0u);
}

// Two writers of the tunnel's intent at once: whoever is last wins, and the machine follows.
TEST(Clients, ADisconnectDuringTheConnectPassWins) {
  const char* const kMoments[] = {"Bootstrap: CP base URL = https://cp.telvor.test:8443",
                                  "WireGuard tunnel service not installed; installing from conf.",
                                  "WireGuard: waiting for handshake...",
                                  "VPNSERVICE: about to call EnableFailClosedBaseline",
                                  "WFP: updating split-bypass allowlist after baseline: count=3"};
  for (const char* moment : kMoments) {
    SCOPED_TRACE(moment);
    SystemRun run;
    run.StartAndLogIn();
    EXPECT_EQ(Ask("Connect"), kTrueReply);
    ASSERT_TRUE(WaitForLine(moment));
    EXPECT_EQ(Ask("Disconnect"), kTrueReply);
    sim::Run(2 * kMinute);
    EXPECT_EQ(gTunnelStatus, kStatusDisconnected);
    EXPECT_TRUE(FirewallIsOpen());
    EXPECT_FALSE(sim::ServiceInstalled(kTunnelService));
    EXPECT_FALSE(gTunnelUp);
    run.Stop();
    ExpectNothingLeft();
  }
}

// The worker sits in a slow look-up; the client's own teardown does not wait for it.
TEST(Clients, ADisconnectDuringALongRefreshTakesTheTunnelDownAtOnce) {
  SystemRun run;
  run.StartConnected();
  sim::SetHost(L"bypass.example", {"198.51.100.20", "198.51.100.21"}, 20'000);
  ASSERT_TRUE(WaitForLine("SplitTunnelV1: RefreshSplitTunnelRoutes ENTER"));
  const uint64_t asked = sim::Now();
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_LT(sim::Now() - asked, 5000u);
  EXPECT_FALSE(sim::ServiceInstalled(kTunnelService));
  EXPECT_TRUE(FirewallIsOpen());
  EXPECT_EQ(State(), "disconnected");
  // Behind the refresh, which has put permits back meanwhile, the worker notices and tears down once more.
  ASSERT_TRUE(WaitForLine("WorkerLoop EXIT: gTunnelDesired != Connected"));
  EXPECT_GT(sim::Now() - asked, 19'000u);
  EXPECT_TRUE(WaitForIdle());
  EXPECT_TRUE(sim::RunUntil([] { return FirewallIsOpen(); }, kMinute));
}

TEST(Clients, DisconnectAndConnectWithinOneTickConnectsAnew) {
  SystemRun run;
  run.StartConnected();
  EXPECT_EQ(Ask("Disconnect"), kTrueReply);
  EXPECT_EQ(Ask("Connect"), kTrueReply);
  ASSERT_TRUE(sim::RunUntil([] { return sim::LogCount("IPC: Connect requested") == 2; }, kMinute));
  ASSERT_TRUE(
      sim::RunUntil([] { return sim::LogCount("WFP: split-bypass allowlist update OK") == 2; }, kMinute));
  ASSERT_TRUE(WaitForStatus(kStatusConnected));
  sim::Run(5000);
  EXPECT_EQ(gTunnelStatus, kStatusConnected);
  EXPECT_EQ(sim::ServiceState(kTunnelService), platform::kServiceRunning);
}

}  // namespace
