// The idle branch: nothing is wanted, and nothing may be left of a tunnel.
#include "tests/engine/worker_fixture.h"

namespace {

TEST(WorkerIdle, UninstallsAndOpensOnEveryPass) {
  WorkerRun run;
  fake::gState.refusing = {"TunnelServiceExists"};
  run.Start();
  sim::Run(600);
  run.Stop();
  EXPECT_EQ(Passes(), (Journal{
                          "call UninstallTunnelService telvor",
                          "call RollbackToOpen",
                          "call UninstallTunnelService telvor",
                          "call RollbackToOpen",
                          "call UninstallTunnelService telvor",
                          "call RollbackToOpen",
                      }));
  EXPECT_EQ(Gaps(fake::Times("UninstallTunnelService")), (std::vector<uint64_t>{250, 250}));
}

TEST(WorkerIdle, ShowsDisconnectedAndNotUp) {
  WorkerRun run;
  gTunnelStatus = 3;
  gTunnelUp = true;
  StopAtCall("UninstallTunnelService", 1);
  run.Start();
  run.Wait();
  EXPECT_EQ(fake::Calls("UninstallTunnelService").at(0).status, 0);
  EXPECT_FALSE(fake::Calls("UninstallTunnelService").at(0).up);
  EXPECT_EQ(gTunnelStatus, 0);
  EXPECT_FALSE(gTunnelUp);
}

TEST(WorkerIdle, DoesNotMindFailingOperations) {
  WorkerRun run;
  fake::gState.refusing = {"UninstallTunnelService", "RollbackToOpen"};
  run.Start();
  sim::Run(1000);
  EXPECT_FALSE(run.Ended());
  run.Stop();
  EXPECT_GE(fake::Count("UninstallTunnelService"), 4u);
}

TEST(WorkerIdle, LeavesAtOnceWhenTheStopEventFires) {
  WorkerRun run;
  run.Start();
  sim::Run(100);
  const uint64_t stopped = sim::Now();
  run.Stop();
  EXPECT_EQ(sim::Now(), stopped);
  EXPECT_EQ(fake::Count("UninstallTunnelService"), 1u);
}

TEST(WorkerIdle, LeavesTheBypassRoutesAlone) {
  WorkerRun run;
  gBypassRoutesInstalled = true;
  gBypassIpsApplied = {L"9.0.0.1"};
  run.Start();
  sim::Run(1000);
  run.Stop();
  EXPECT_EQ(fake::Count("RemoveBypassRoutes"), 0u);
  EXPECT_TRUE(gBypassRoutesInstalled);
  EXPECT_EQ(gBypassIpsApplied, AddressList{L"9.0.0.1"});
}

TEST(WorkerIdle, WakesForAConnectWithinAQuarterSecond) {
  WorkerRun run;
  run.Start();
  sim::Run(100);
  WriteConnectIntent();
  const uint64_t asked = sim::Now();
  StopAtCall("Bootstrap", 1);
  run.Wait();
  EXPECT_EQ(fake::Times("Bootstrap").at(0) - asked, 150u);
}

TEST(WorkerIdle, GoesOnWhenItsWaitFails) {
  WorkerRun run;
  sim::Fail({.operation = "WaitForSingleObject", .code = 6, .argumentsContain = "milliseconds=250"});
  run.Start();
  sim::Run(100);
  EXPECT_FALSE(run.Ended());
  run.Stop();
  EXPECT_EQ(fake::Count("UninstallTunnelService"), 2u);
}

TEST(WorkerIdle, AFailedLookAtTheStopEventEndsTheThread) {
  WorkerRun run;
  sim::Fail({.operation = "WaitForSingleObject", .code = 6, .argumentsContain = "milliseconds=0"});
  run.Start();
  run.Wait();
  EXPECT_EQ(Passes(), Journal{});
}

TEST(WorkerIdle, EndsWithoutAStopEvent) {
  WorkerRun run;
  platform::CloseHandle(gStopEvent);
  gStopEvent = nullptr;
  run.Start();
  run.Wait();
  EXPECT_EQ(Passes(), Journal{});
}

}  // namespace
