// The worker's table of operations and what the worker makes of an empty one.
#include "tests/engine/worker_fixture.h"

namespace {

TEST(EmptyWorkerOperations, EveryOperationAnswersFalseOrNothing) {
  sim::Machine machine;
  const WorkerOperations empty = EmptyWorkerOperations();
  RuntimePolicy policy;
  std::wstring text;
  std::wstring errors;
  ParsedBaseUrl parsed;
  uint32_t number = 0;
  uint64_t rx = 0;
  uint64_t tx = 0;
  EXPECT_FALSE(empty.LoadRuntimePolicy(policy, text));
  EXPECT_TRUE(empty.ResolveDomainIPv4(L"a.example").empty());
  EXPECT_FALSE(empty.Bootstrap());
  EXPECT_FALSE(empty.ApplyBypassRoutes({}));
  EXPECT_FALSE(empty.RemoveBypassRoutes({}));
  empty.EnforceSingleTunnel(L"telvor");
  EXPECT_FALSE(empty.TunnelServiceExists(L"telvor"));
  EXPECT_FALSE(empty.RunProcessCapture(L"a.exe", L"", number, text, errors));
  EXPECT_FALSE(empty.RestartTunnelService(L"telvor"));
  EXPECT_FALSE(empty.IsTunnelServiceRunning(L"telvor"));
  EXPECT_FALSE(empty.WgHandshakeSeen(L"telvor"));
  EXPECT_FALSE(empty.GetAdapterIfIndexByName(L"telvor", number));
  EXPECT_FALSE(empty.ParseHttpsBaseUrl(L"https://a.example", parsed));
  EXPECT_TRUE(empty.ResolveHostIpV4(L"a.example").empty());
  EXPECT_FALSE(empty.EnableFailClosedBaseline(L"10.0.0.1", 1));
  EXPECT_FALSE(empty.UpdateSplitTunnelBypassAllowlistV4({}));
  empty.RefreshSplitTunnelRoutes();
  EXPECT_FALSE(empty.StopTunnelService(L"telvor", 8000));
  EXPECT_FALSE(empty.UninstallTunnelService(L"telvor"));
  EXPECT_FALSE(empty.RollbackToOpen());
  EXPECT_FALSE(empty.WgGetRxTxBytes(L"telvor", rx, tx));
  EXPECT_FALSE(empty.StopOwnService());
  EXPECT_TRUE(sim::Trace().empty());
}

TEST(EmptyWorkerOperations, TheWorkerIdlesOverThem) {
  WorkerRun run;
  gWorkerOperations = EmptyWorkerOperations();
  run.Start();
  sim::Run(1000);
  EXPECT_FALSE(run.Ended());
  EXPECT_EQ(gTunnelStatus, 0);
}

TEST(EmptyWorkerOperations, AWantedTunnelFailsAtTheBootstrapAndBacksOff) {
  WorkerRun run;
  gWorkerOperations = EmptyWorkerOperations();
  WriteConnectIntent();
  run.Start();
  sim::Run(7500);
  run.Stop();
  EXPECT_EQ(sim::LogCount("Bootstrap not ready (likely AUTH_REQUIRED); staying DISCONNECTED/CONNECTING and "
                          "retrying."),
            4u);
  EXPECT_EQ(sim::LogLines().at(0), "SplitTunnelV1: runtime source=");
}

}  // namespace
