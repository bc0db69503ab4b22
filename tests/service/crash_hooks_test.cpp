// The crash hooks: whatever ends the process abnormally, the firewall is opened first.
#include "tests/service/service_fixture.h"

#include <stdexcept>

namespace {

TEST(CrashHooks, AreInstalledByTheService) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  EXPECT_NE(sim::InstalledCrashHooks().unhandledExceptionFilter, nullptr);
  EXPECT_NE(sim::InstalledCrashHooks().terminate, nullptr);
  EXPECT_EQ(sim::InstalledCrashHooks().atExit.size(), 1u);
}

TEST(CrashHooks, AreInstalledBeforeTheStopEventAndBehindTheFirstLine) {
  ServiceRun run;
  bool logged = false;
  bool installed = false;
  sim::Before("SetUnhandledExceptionFilter", [&] { logged = sim::LogHas("Service starting."); });
  sim::Before("CreateEventW", [&] { installed = !sim::InstalledCrashHooks().atExit.empty(); });
  run.StartAndWaitForRunning();
  EXPECT_TRUE(logged);
  EXPECT_TRUE(installed);
}

TEST(CrashHooks, TheExceptionFilterOpensTheFirewallAndEndsTheProcess) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  const size_t before = fake::gState.calls.size();
  EXPECT_EQ(sim::InstalledCrashHooks().unhandledExceptionFilter(), 1);
  ASSERT_EQ(fake::gState.calls.size(), before + 1);
  EXPECT_EQ(fake::gState.calls.back().operation, "RollbackToOpen");
  EXPECT_FALSE(sim::ProcessAborted());
}

TEST(CrashHooks, TheTerminateHandlerOpensTheFirewallAndAborts) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  sim::Run(100);
  const size_t before = fake::gState.calls.size();
  EXPECT_THROW(sim::InstalledCrashHooks().terminate(), sim::ProcessEnded);
  ASSERT_EQ(fake::gState.calls.size(), before + 1);
  EXPECT_EQ(fake::gState.calls.back().operation, "RollbackToOpen");
  EXPECT_TRUE(sim::ProcessAborted());
}

TEST(CrashHooks, TheExitHookOpensTheFirewall) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  sim::Run(100);
  const size_t before = fake::gState.calls.size();
  sim::InstalledCrashHooks().atExit.at(0)();
  ASSERT_EQ(fake::gState.calls.size(), before + 1);
  EXPECT_EQ(fake::gState.calls.back().operation, "RollbackToOpen");
}

// The tunnel service and the routes stay as they are.
TEST(CrashHooks, AnExceptionInTheWorkersStartUpOpensTheFirewallAndAborts) {
  ServiceRun run;
  fake::OnCall("LoadRuntimePolicy", 1, [] { throw std::runtime_error("policy"); });
  run.Start();
  ASSERT_TRUE(sim::RunUntil(sim::ProcessAborted, 1000));
  ASSERT_EQ(fake::gState.calls.size(), 2u);
  EXPECT_EQ(fake::gState.calls.at(0).operation, "LoadRuntimePolicy");
  EXPECT_EQ(fake::gState.calls.at(1).operation, "RollbackToOpen");
  EXPECT_FALSE(sim::ProductRunning());
}

// After a kill no hook runs; the next start opens the firewall first thing behind its set-up.
TEST(CrashHooks, AKillRunsNoneAndTheNextStartClears) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  gTunnelDesired = 1;
  ASSERT_TRUE(sim::RunUntil([] { return gTunnelStatus == 2; }, 1000));
  const size_t before = fake::gState.calls.size();
  sim::KillProcess();
  EXPECT_EQ(fake::gState.calls.size(), before);
  run.Start();
  ASSERT_TRUE(sim::RunUntil([&] { return fake::gState.calls.size() >= before + 2; }, 1000));
  EXPECT_EQ(fake::gState.calls.at(before).operation, "LoadRuntimePolicy");
  EXPECT_EQ(fake::gState.calls.at(before + 1).operation, "RollbackToOpen");
}

}  // namespace
