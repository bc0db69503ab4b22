// What the worker does once on each start of its thread.
#include "tests/engine/worker_fixture.h"

#include <stdexcept>

namespace {

const std::wstring kAfterEntered = L"C:\\ProgramData\\TELVOR\\after_entered.txt";
const std::wstring kStep1 = L"C:\\ProgramData\\TELVOR\\step1.txt";

Journal BeforeFirstPass() {
  const Journal& all = fake::Journal();
  const auto opened = std::find(all.begin(), all.end(), "call RollbackToOpen");
  return Journal(all.begin(), opened == all.end() ? opened : opened + 1);
}

TEST(WorkerStartUp, LogsAnEmptyPolicyAndOpensTheFirewall) {
  WorkerRun run;
  SignalStop();
  run.Start();
  run.Wait();
  EXPECT_EQ(fake::Journal(), (Journal{
                                 "call LoadRuntimePolicy",
                                 "log SplitTunnelV1: runtime source=seed",
                                 "log   domains count=0",
                                 "log   ips count=0",
                                 "log SplitTunnelV1: effective bypass IPv4 count=0",
                                 "log Worker thread started.",
                                 "log Worker: top.",
                                 "log BuildID: BOOTSTRAPFIX-2026-03-20-05:07pm-Z",
                                 "log SplitTunnelV1: enabled=true, dry_run=false",
                                 "call RollbackToOpen",
                             }));
  EXPECT_TRUE(gBypassIpsEffective.empty());
}

TEST(WorkerStartUp, LogsThePolicyAndResolvesItsDomains) {
  WorkerRun run;
  fake::gState.policySource = L"dat";
  fake::gState.policy = {{L"a.example", L"b.example", L"c.example"}, {L"10.0.0.1", L"9.0.0.1"}};
  fake::gState.domains[L"a.example"] = {L"8.8.4.4", L"10.0.0.1"};
  fake::gState.domains[L"c.example"] = {L"100.1.1.1"};
  SignalStop();
  run.Start();
  run.Wait();
  EXPECT_EQ(BeforeFirstPass(), (Journal{
                                   "call LoadRuntimePolicy",
                                   "log SplitTunnelV1: runtime source=dat",
                                   "log   domains count=3",
                                   "log     domain: a.example",
                                   "log     domain: b.example",
                                   "log     domain: c.example",
                                   "log   ips count=2",
                                   "log     ip: 10.0.0.1",
                                   "log     ip: 9.0.0.1",
                                   "call ResolveDomainIPv4 a.example",
                                   "log SplitTunnelV1: resolve a.example -> 2 IPs",
                                   "call ResolveDomainIPv4 b.example",
                                   "log SplitTunnelV1: resolve b.example -> 0 IPs",
                                   "call ResolveDomainIPv4 c.example",
                                   "log SplitTunnelV1: resolve c.example -> 1 IPs",
                                   "log SplitTunnelV1: effective bypass IPv4 count=4",
                                   "log   bypass4: 10.0.0.1",
                                   "log   bypass4: 100.1.1.1",
                                   "log   bypass4: 8.8.4.4",
                                   "log   bypass4: 9.0.0.1",
                                   "log Worker thread started.",
                                   "log Worker: top.",
                                   "log BuildID: BOOTSTRAPFIX-2026-03-20-05:07pm-Z",
                                   "log SplitTunnelV1: enabled=true, dry_run=false",
                                   "call RollbackToOpen",
                               }));
  EXPECT_EQ(gBypassIpsEffective, (AddressList{L"10.0.0.1", L"100.1.1.1", L"8.8.4.4", L"9.0.0.1"}));
}

// Sorted as text, not as numbers: 10.0.0.1 stands before 9.0.0.1.
TEST(WorkerStartUp, SortsTheEffectiveListAsTextAndDropsDuplicates) {
  WorkerRun run;
  fake::gState.policy.ips = {L"9.0.0.1", L"10.0.0.1", L"9.0.0.1"};
  SignalStop();
  run.Start();
  run.Wait();
  EXPECT_EQ(gBypassIpsEffective, (AddressList{L"10.0.0.1", L"9.0.0.1"}));
}

TEST(WorkerStartUp, GoesOnWithAPolicyThatFailedToLoad) {
  WorkerRun run;
  fake::gState.refusing = {"LoadRuntimePolicy"};
  fake::gState.policySource = L"none";
  SignalStop();
  run.Start();
  run.Wait();
  EXPECT_EQ(fake::Journal()[1], "log SplitTunnelV1: runtime source=none");
  EXPECT_EQ(fake::Count("RollbackToOpen"), 1u);
}

TEST(WorkerStartUp, AsksForWinsockTwoPointTwo) {
  WorkerRun run;
  SignalStop();
  run.Start();
  run.Wait();
  EXPECT_EQ(sim::CountCalls("WSAStartup"), 1u);
  EXPECT_EQ(sim::CountCalls("WSAStartup", "version=0x202"), 1u);
}

TEST(WorkerStartUp, GoesOnWithoutWinsock) {
  WorkerRun run;
  sim::Fail({.operation = "WSAStartup", .code = 10091});
  SignalStop();
  run.Start();
  run.Wait();
  const Journal begin(fake::Journal().begin(), fake::Journal().begin() + 3);
  EXPECT_EQ(begin, (Journal{
                       "log WSAStartup failed rc=10091; continuing without Winsock DNS bootstrap support",
                       "call LoadRuntimePolicy",
                       "log SplitTunnelV1: runtime source=seed",
                   }));
}

TEST(WorkerStartUp, WritesItsDropFilesBeforeTheFirewallIsOpened) {
  WorkerRun run;
  std::string afterEntered;
  std::string step1;
  fake::OnCall("RollbackToOpen", 1, [&] {
    afterEntered = sim::FileBytes(kAfterEntered).value_or("missing");
    step1 = sim::FileBytes(kStep1).value_or("missing");
  });
  SignalStop();
  run.Start();
  run.Wait();
  EXPECT_EQ(afterEntered, Utf16Bytes(L"after entered\n"));
  EXPECT_EQ(step1, Utf16Bytes(L"in try\n"));
}

TEST(WorkerStartUp, WritesTheFirstDropFileBehindItsLogLines) {
  WorkerRun run;
  std::vector<std::string> linesAtDropFile;
  sim::Before(
      "CreateFileW", [&] { linesAtDropFile = sim::LogLines(); }, "after_entered.txt");
  bool firstDropFileStood = false;
  sim::Before(
      "CreateFileW", [&] { firstDropFileStood = sim::FileExists(kAfterEntered); }, "step1.txt");
  SignalStop();
  run.Start();
  run.Wait();
  ASSERT_FALSE(linesAtDropFile.empty());
  EXPECT_EQ(linesAtDropFile.back(), "SplitTunnelV1: enabled=true, dry_run=false");
  EXPECT_TRUE(firstDropFileStood);
}

TEST(WorkerStartUp, WorksWithoutTheDataRoot) {
  WorkerRun run;
  sim::RemoveFolder(L"C:\\ProgramData\\TELVOR");
  SignalStop();
  run.Start();
  run.Wait();
  EXPECT_FALSE(sim::FolderExists(L"C:\\ProgramData\\TELVOR"));
  EXPECT_EQ(fake::Count("RollbackToOpen"), 1u);
}

TEST(WorkerStartUp, LeavesTheStatusAsItWas) {
  WorkerRun run;
  gTunnelStatus = 2;
  gTunnelUp = true;
  SignalStop();
  run.Start();
  run.Wait();
  EXPECT_EQ(gTunnelStatus, 2);
  EXPECT_TRUE(gTunnelUp);
}

TEST(WorkerStartUp, TakesTheListsLockForTheEffectiveList) {
  WorkerRun run;
  fake::gState.policy.ips = {L"9.0.0.1"};
  platform::SetTerminate([] { platform::Abort(); });
  sim::FailLock(gBypassMutex);
  run.Start();
  EXPECT_TRUE(sim::RunUntil(sim::ProcessAborted, 1000));
  run.Forget();
}

bool gTerminateRan = false;

TEST(WorkerStartUp, AnExceptionBeforeTheGuardEndsTheProcess) {
  WorkerRun run;
  gTerminateRan = false;
  platform::SetTerminate([] {
    gTerminateRan = true;
    platform::Abort();
  });
  fake::OnCall("LoadRuntimePolicy", 1, [] { throw std::runtime_error("policy"); });
  run.Start();
  EXPECT_TRUE(sim::RunUntil(sim::ProcessAborted, 1000));
  EXPECT_TRUE(gTerminateRan);
  EXPECT_FALSE(sim::FileExists(kStep1));
  EXPECT_FALSE(sim::FileExists(L"C:\\ProgramData\\TELVOR\\cpp_exception.txt"));
  run.Forget();
}

TEST(WorkerStartUp, TheGuardBeginsBehindTheSecondDropFile) {
  WorkerRun run;
  platform::SetTerminate([] { platform::Abort(); });
  sim::Before(
      "CreateFileW", [] { throw std::runtime_error("step1"); }, "step1.txt");
  run.Start();
  EXPECT_TRUE(sim::RunUntil(sim::ProcessAborted, 1000));
  EXPECT_FALSE(sim::FileExists(L"C:\\ProgramData\\TELVOR\\cpp_exception.txt"));
  run.Forget();
}

}  // namespace
