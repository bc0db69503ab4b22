// ServiceMain's wait: the worker that ends is started afresh, and what ends the service instead.
#include "service/lifecycle.h"

#include "tests/service/service_fixture.h"

namespace {

constexpr uint64_t kThreadWait = 5000;

Lines LinesBehindRunning() {
  const Lines all = ServiceLines();
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i] == "Service RUNNING.")
      return Lines(all.begin() + static_cast<std::ptrdiff_t>(i) + 1, all.end());
  }
  return {};
}

TEST(ServiceSupervision, RestartsAWorkerThatEnds) {
  ServiceRun run;
  fake::OnCall("UninstallTunnelService", 2, [] { throw 1; });
  run.StartAndWaitForRunning();
  sim::Run(1000);
  EXPECT_EQ(LinesBehindRunning(), (Lines{
                                      "ServiceMain: worker exited. exitCode=0",
                                      "ServiceMain: restarting worker (stop not requested).",
                                      "Worker thread started (supervised).",
                                  }));
  EXPECT_EQ(Reports().size(), 2u);
  EXPECT_EQ(fake::Count("LoadRuntimePolicy"), 2u);
  EXPECT_GT(fake::Count("UninstallTunnelService"), 2u);
  EXPECT_EQ(sim::CountCalls("WaitForMultipleObjects"), 2u);
}

// Nothing damps it: no delay and no limit.
TEST(ServiceSupervision, RestartsAWorkerThatEndsAtOnceInATightLoop) {
  constexpr size_t kRestarts = 200;
  ServiceRun run;
  fake::OnCall("UninstallTunnelService", 0, [] {
    if (fake::Count("UninstallTunnelService") <= kRestarts) throw 1;
  });
  run.Start();
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("UninstallTunnelService") > kRestarts; }, 1000));
  const std::vector<uint64_t> times = fake::Times("UninstallTunnelService");
  EXPECT_EQ(times.front(), times.back());
  EXPECT_EQ(sim::LogCount("ServiceMain: restarting worker (stop not requested)."), kRestarts);
}

TEST(ServiceSupervision, ARestartedWorkerReconnects) {
  ServiceRun run;
  fake::OnCall("RefreshSplitTunnelRoutes", 1, [] { throw 1; });
  run.StartAndWaitForRunning();
  gTunnelDesired = 1;
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("UpdateSplitTunnelBypassAllowlistV4") == 2; }, 60'000));
  EXPECT_EQ(fake::Count("LoadRuntimePolicy"), 2u);
  EXPECT_EQ(fake::Count("Bootstrap"), 2u);
}

TEST(ServiceSupervision, NamesTheWorkersExitCode) {
  ServiceRun run;
  fake::OnCall("UninstallTunnelService", 1, [] { throw 1; });
  sim::Fail({.operation = "GetExitCodeThread", .code = 6});
  run.StartAndWaitForRunning();
  sim::Run(1000);
  EXPECT_EQ(sim::LogCount("ServiceMain: worker exited. exitCode="), 1u);
  EXPECT_EQ(sim::CountCalls("GetExitCodeThread"), 1u);
}

TEST(ServiceSupervision, AWorkerThatEndsAsTheStopComesIsNotRestarted) {
  ServiceRun run;
  fake::OnCall("UninstallTunnelService", 2, [] { throw 1; });
  sim::Before("GetExitCodeThread", [] { platform::SetEvent(gStopEvent); });
  run.StartAndWaitForRunning();
  run.WaitForEnd();
  EXPECT_EQ(LinesBehindRunning(), (Lines{"ServiceMain: worker exited. exitCode=0", "Service STOPPED."}));
  EXPECT_EQ(Reports().back(), kStoppedReport);
}

TEST(ServiceSupervision, TheStopEventComesFirstWhenBothAreSignalled) {
  ServiceRun run;
  sim::Before("WaitForMultipleObjects", [] {
    platform::SetEvent(gStopEvent);
    platform::Sleep(1000);
  });
  run.StartAndWaitForRunning();
  run.WaitForEnd();
  EXPECT_EQ(LinesBehindRunning(),
            (Lines{"ServiceMain: stop event signaled; shutting down.", "Service STOPPED."}));
}

TEST(ServiceSupervision, EndsInOrderWhenTheRestartFails) {
  ServiceRun run;
  fake::OnCall("UninstallTunnelService", 2, [] { throw 1; });
  sim::Fail({.operation = "CreateThread", .code = 8, .skip = 2});
  run.StartAndWaitForRunning();
  run.WaitForEnd();
  EXPECT_EQ(LinesBehindRunning(), (Lines{
                                      "ServiceMain: worker exited. exitCode=0",
                                      "ServiceMain: restarting worker (stop not requested).",
                                      "CreateThread(worker) failed.",
                                      "ServiceMain: failed to restart worker; stopping service.",
                                      "Service STOPPED.",
                                  }));
  EXPECT_EQ(Reports(), (Lines{kStartPendingReport, kRunningReport, kStoppedReport}));
  EXPECT_EQ(sim::CountCalls("SetEvent"), 0u);
  EXPECT_EQ(sim::Now() - fake::Times("UninstallTunnelService").back(), kThreadWait);
  EXPECT_EQ(sim::ProductExitCode(), 0);
}

TEST(ServiceSupervision, EndsInOrderWhenTheWaitFails) {
  ServiceRun run;
  sim::Fail({.operation = "WaitForMultipleObjects", .code = 6});
  const uint64_t started = sim::Now();
  run.StartAndWaitForRunning();
  run.WaitForEnd();
  EXPECT_EQ(LinesBehindRunning(),
            (Lines{"ServiceMain: WaitForMultipleObjects failed. GLE=6", "Service STOPPED."}));
  EXPECT_EQ(Reports().back(), kStoppedReport);
  EXPECT_EQ(sim::CountCalls("SetEvent"), 0u);
  EXPECT_EQ(sim::Now() - started, 2 * kThreadWait);
  EXPECT_EQ(sim::ProductExitCode(), 0);
}

}  // namespace
