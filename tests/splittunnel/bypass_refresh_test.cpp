#include "splittunnel/bypass_refresh.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "engine/operations.h"
#include "firewall/bypass_allowlist.h"
#include "sim/filtering.h"
#include "tests/splittunnel/policy_fixture.h"
#include "tests/splittunnel/routes_fixture.h"

namespace {

using Texts = std::vector<std::wstring>;

constexpr char kEnter[] = "SplitTunnelV1: RefreshSplitTunnelRoutes ENTER";
constexpr char kPermit[] = "SplitTunnelV1: Update WFP bypass IP = ";
constexpr char kNoPermits[] = "WFP: split-bypass allowlist update FAILED (routes still updated)";

std::string HostRoute(const std::string& address) {
  return address + "/32 via 192.168.1.1 if 7 metric 5";
}

// The addresses of the split-bypass permits in force; two filters each.
Texts Permits() {
  const std::wstring prefix = L"TELVOR:ALLOW split-bypass v4:";
  Texts addresses;
  for (const std::wstring& name : sim::FilterNames()) {
    if (name.starts_with(prefix)) addresses.push_back(name.substr(prefix.size()));
  }
  return addresses;
}

// The log lines that the firewall did not write.
Lines RefreshLines() {
  Lines lines;
  for (const std::string& line : sim::LogLines()) {
    if (line.starts_with("SplitTunnelV1: ") || line == kNoPermits) lines.push_back(line);
  }
  return lines;
}

void UseTheFirewall() {
  gWorkerOperations.UpdateSplitTunnelBypassAllowlistV4 = UpdateSplitTunnelBypassAllowlistV4;
}

// A refresh that starts with an empty trace and log, the gateway known.
void Refresh() {
  UseTheFirewall();
  KnowGateway();
  sim::ClearLog();
  sim::ClearTrace();
  RefreshSplitTunnelRoutes();
}

TEST(ResolveDomainIPv4, SortsAsTextAndDropsDuplicates) {
  sim::Machine machine;
  sim::SetHost(L"host.example", {"9.0.0.1", "10.0.0.1", "9.0.0.1", "0.0.0.0", "10.0.0.1"});
  EXPECT_EQ(ResolveDomainIPv4(L"host.example"), (Texts{L"0.0.0.0", L"10.0.0.1", L"9.0.0.1"}));
  EXPECT_EQ(sim::CountCalls("GetAddrInfoW", "family=2 socketType=1"), 1U);
}

TEST(ResolveDomainIPv4, GivesNothingForANameThatDoesNotResolve) {
  sim::Machine machine;
  EXPECT_EQ(ResolveDomainIPv4(L"missing.example"), Texts{});
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(ResolveDomainIPv4, SkipsAnAddressThatCannotBeConverted) {
  sim::Machine machine;
  sim::SetHost(L"host.example", {"1.1.1.1", "2.2.2.2", "3.3.3.3"});
  sim::Fail({.operation = "InetNtopW", .code = 5, .skip = 1});
  EXPECT_EQ(ResolveDomainIPv4(L"host.example"), (Texts{L"1.1.1.1", L"3.3.3.3"}));
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(ResolveDomainIPv4, HasNoLimitOfAddresses) {
  sim::Machine machine;
  std::vector<std::string> addresses(1000);
  for (size_t i = 0; i < addresses.size(); ++i) {
    addresses[i] = "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250);
  }
  sim::SetHost(L"host.example", addresses);
  EXPECT_EQ(ResolveDomainIPv4(L"host.example").size(), 1000U);
}

TEST(RecomputeBypassIps, MergesThePolicysAddressesAndTheResolvedOnes) {
  sim::Machine machine;
  gBypassIpsEffective = {L"stale"};
  PutPolicy(L"[domains]\na.example\nb.example\nmissing.example\n[ips]\n1.2.3.4\n 1.2.3.4/32\n9.9.9.9");
  sim::SetHost(L"a.example", {"9.9.9.9", "10.0.0.1"});
  sim::SetHost(L"b.example", {"10.0.0.1", "1.2.3.4"});
  RecomputeBypassIps();
  EXPECT_EQ(gBypassIpsEffective, (Texts{L"1.2.3.4", L"1.2.3.4/32", L"10.0.0.1", L"9.9.9.9"}));
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(RecomputeBypassIps, DropsTheZeroAddressOfADomainButKeepsThePolicysOwn) {
  sim::Machine machine;
  PutPolicy(L"[domains]\na.example");
  sim::SetHost(L"a.example", {"0.0.0.0", "1.2.3.4"});
  RecomputeBypassIps();
  EXPECT_EQ(gBypassIpsEffective, (Texts{L"1.2.3.4"}));
  PutPolicy(L"[domains]\na.example\n[ips]\n0.0.0.0");
  RecomputeBypassIps();
  EXPECT_EQ(gBypassIpsEffective, (Texts{L"0.0.0.0", L"1.2.3.4"}));
}

TEST(RecomputeBypassIps, EmptiesTheListForAnEmptyPolicy) {
  sim::Machine machine;
  gBypassIpsEffective = {L"1.2.3.4"};
  RecomputeBypassIps();
  EXPECT_TRUE(gBypassIpsEffective.empty());
}

TEST(RecomputeBypassIps, HoldsNoLockWhileNamesAreLookedUp) {
  sim::Machine machine;
  PutPolicy(L"[domains]\na.example");
  sim::SetHost(L"a.example", {"1.2.3.4"});
  bool locked = false;
  sim::Before("GetAddrInfoW", [&locked] {
    const std::lock_guard<platform::Mutex> lock(gBypassMutex);
    locked = true;
  });
  RecomputeBypassIps();
  EXPECT_TRUE(locked);
  EXPECT_EQ(gBypassIpsEffective, (Texts{L"1.2.3.4"}));
}

TEST(RefreshSplitTunnelRoutes, InstallsRoutesAndPermitsOfANewList) {
  sim::Machine machine;
  PutPolicy(L"[domains]\na.example\n[ips]\n9.9.9.9");
  sim::SetHost(L"a.example", {"1.2.3.4"});
  Refresh();
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute("1.2.3.4"), HostRoute("9.9.9.9")}));
  EXPECT_EQ(Permits(), (Texts{L"1.2.3.4", L"1.2.3.4", L"9.9.9.9", L"9.9.9.9"}));
  EXPECT_EQ(gBypassIpsApplied, (Texts{L"1.2.3.4", L"9.9.9.9"}));
  EXPECT_EQ(gBypassIpsEffective, (Texts{L"1.2.3.4", L"9.9.9.9"}));
  EXPECT_EQ(RefreshLines(),
            (Lines{kEnter, kPermit + std::string("1.2.3.4"), kPermit + std::string("9.9.9.9")}));
}

TEST(RefreshSplitTunnelRoutes, TouchesNoRouteWhenNothingChangedButRenewsThePermits) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4\n9.9.9.9");
  Refresh();
  const size_t committed = sim::TransactionsCommitted();
  Refresh();
  EXPECT_EQ(sim::CountCalls("CreateIpForwardEntry2") + sim::CountCalls("SetIpForwardEntry2") +
                sim::CountCalls("DeleteIpForwardEntry2"),
            0U);
  EXPECT_EQ(sim::TransactionsCommitted(), committed + 1);
  EXPECT_EQ(Permits(), (Texts{L"1.2.3.4", L"1.2.3.4", L"9.9.9.9", L"9.9.9.9"}));
  EXPECT_EQ(RefreshLines(),
            (Lines{kEnter, kPermit + std::string("1.2.3.4"), kPermit + std::string("9.9.9.9")}));
}

TEST(RefreshSplitTunnelRoutes, DeletesTheOldRouteBeforeItAddsTheNewAndThenReplacesTheFilters) {
  sim::Machine machine;
  PutPolicy(L"[domains]\na.example\n[ips]\n9.9.9.9");
  sim::SetHostSequence(L"a.example", {{"1.2.3.4"}, {"1.2.3.5"}});
  Refresh();
  Refresh();
  EXPECT_EQ(sim::CountCalls("DeleteIpForwardEntry2"), 1U);
  EXPECT_EQ(sim::CountCalls("CreateIpForwardEntry2"), 1U);
  EXPECT_LT(PlaceOf("DeleteIpForwardEntry2"), PlaceOf("CreateIpForwardEntry2"));
  EXPECT_LT(PlaceOf("CreateIpForwardEntry2"), PlaceOf("FwpmEngineOpen0"));
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute("9.9.9.9"), HostRoute("1.2.3.5")}));
  EXPECT_EQ(Permits(), (Texts{L"1.2.3.5", L"1.2.3.5", L"9.9.9.9", L"9.9.9.9"}));
}

TEST(RefreshSplitTunnelRoutes, LetsADomainDropOutThatDoesNotResolveAndTakesItBackLater) {
  sim::Machine machine;
  PutPolicy(L"[domains]\na.example");
  sim::SetHostSequence(L"a.example", {{"1.2.3.4"}, {}, {"1.2.3.4"}});
  Refresh();
  Refresh();
  EXPECT_TRUE(sim::HostRouteTexts().empty());
  EXPECT_TRUE(Permits().empty());
  EXPECT_TRUE(gBypassIpsApplied.empty());
  EXPECT_EQ(RefreshLines(), (Lines{kEnter}));
  Refresh();
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute("1.2.3.4")}));
  EXPECT_EQ(Permits(), (Texts{L"1.2.3.4", L"1.2.3.4"}));
}

TEST(RefreshSplitTunnelRoutes, RemovesEverythingForAnEmptyPolicyAndStillRenewsThePermits) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4\n9.9.9.9");
  Refresh();
  sim::RemoveFile(kRuntimePolicyFile);
  Refresh();
  EXPECT_TRUE(sim::HostRouteTexts().empty());
  EXPECT_TRUE(gBypassIpsApplied.empty());
  EXPECT_TRUE(Permits().empty());
  EXPECT_TRUE(sim::LogHas("WFP: UpdateSplitTunnelBypassAllowlistV4 ENTER count=0"));
}

TEST(RefreshSplitTunnelRoutes, KeepsBothFormsOfAnAddressThatMapToOneRoute) {
  sim::Machine machine;
  PutPolicy(L"[domains]\na.example\n[ips]\n1.2.3.4/32\n0.0.0.0");
  sim::SetHost(L"a.example", {"1.2.3.4"});
  Refresh();
  EXPECT_EQ(gBypassIpsApplied, (Texts{L"0.0.0.0", L"1.2.3.4", L"1.2.3.4/32"}));
  EXPECT_EQ(sim::CountCalls("CreateIpForwardEntry2"), 2U);
  EXPECT_EQ(sim::CountCalls("SetIpForwardEntry2"), 1U);
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute("1.2.3.4")}));
  EXPECT_EQ(Permits(), (Texts{4, L"1.2.3.4"}));
}

TEST(RefreshSplitTunnelRoutes, TakesARouteThatCannotBeDeletedAsGone) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4");
  Refresh();
  PutPolicy(L"[ips]\n9.9.9.9");
  sim::Fail({.operation = "DeleteIpForwardEntry2", .code = 5});
  Refresh();
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute("1.2.3.4"), HostRoute("9.9.9.9")}));
  EXPECT_EQ(Permits(), (Texts{L"9.9.9.9", L"9.9.9.9"}));
  EXPECT_EQ(gBypassIpsApplied, (Texts{L"9.9.9.9"}));
}

TEST(RefreshSplitTunnelRoutes, TakesARouteThatCannotBeAddedAsInstalledAndDoesNotTryAgain) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4");
  sim::Fail({.operation = "CreateIpForwardEntry2", .code = 5});
  Refresh();
  EXPECT_TRUE(sim::HostRouteTexts().empty());
  EXPECT_EQ(Permits(), (Texts{L"1.2.3.4", L"1.2.3.4"}));
  EXPECT_EQ(gBypassIpsApplied, (Texts{L"1.2.3.4"}));
  Refresh();
  EXPECT_TRUE(sim::HostRouteTexts().empty());
}

TEST(RefreshSplitTunnelRoutes, GoesOnWithThePermitsWithoutAGateway) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n9.9.9.9");
  gBypassIpsApplied = {L"1.2.3.4"};
  sim::AddRoute(sim::Route("1.2.3.4", 32, "192.168.1.1", 7, 5));
  sim::Fail({.operation = "GetBestRoute2", .code = 1231});
  UseTheFirewall();
  RefreshSplitTunnelRoutes();
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute("1.2.3.4")}));
  EXPECT_EQ(gBypassIpsApplied, (Texts{L"9.9.9.9"}));
  EXPECT_EQ(Permits(), (Texts{L"9.9.9.9", L"9.9.9.9"}));
  EXPECT_EQ(RefreshLines(), (Lines{kEnter, "SplitTunnelV1: failed to determine default gateway (WinAPI)",
                                   kPermit + std::string("9.9.9.9")}));
}

TEST(RefreshSplitTunnelRoutes, LogsFailedPermitsWhichTheNextRefreshRepairs) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4");
  Refresh();
  PutPolicy(L"[ips]\n9.9.9.9");
  sim::Fail({.operation = "FwpmTransactionCommit0", .code = 5});
  Refresh();
  EXPECT_EQ(RefreshLines(), (Lines{kEnter, kPermit + std::string("9.9.9.9"), kNoPermits}));
  EXPECT_EQ(sim::LogLines().back(), kNoPermits);
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute("9.9.9.9")}));
  EXPECT_EQ(Permits(), (Texts{L"1.2.3.4", L"1.2.3.4"}));
  EXPECT_EQ(gBypassIpsApplied, (Texts{L"9.9.9.9"}));
  Refresh();
  EXPECT_EQ(Permits(), (Texts{L"9.9.9.9", L"9.9.9.9"}));
}

TEST(RefreshSplitTunnelRoutes, HoldsNoLockWhileItChangesRoutesAndPermits) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4");
  Refresh();
  PutPolicy(L"[ips]\n9.9.9.9");
  size_t looks = 0;
  for (const char* operation : {"DeleteIpForwardEntry2", "CreateIpForwardEntry2", "FwpmTransactionCommit0"}) {
    sim::Before(operation, [&looks] {
      const std::lock_guard<platform::Mutex> lock(gBypassMutex);
      ++looks;
    });
  }
  Refresh();
  EXPECT_EQ(looks, 3U);
}

TEST(RefreshSplitTunnelRoutes, KeepsItsMemoryOfWhatIsAppliedWithoutTheLock) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4");
  sim::Before("CreateIpForwardEntry2", [] { sim::FailLock(gBypassMutex); });
  Refresh();
  EXPECT_EQ(gBypassIpsApplied, (Texts{L"1.2.3.4"}));
  // The failure still waits for whoever takes the lock next.
  EXPECT_THROW(gBypassMutex.lock(), std::system_error);
}

TEST(RefreshSplitTunnelRoutes, MayRunOnTwoThreadsAtOnce) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    sim::Machine machine({.seed = seed});
    UseTheFirewall();
    PutPolicy(L"[domains]\na.example\n[ips]\n9.9.9.9");
    sim::SetHost(L"a.example", {"1.2.3.4"}, 40);
    bool ended = false;
    sim::StartThread("pipe", [&ended] {
      RefreshSplitTunnelRoutes();
      ended = true;
    });
    RefreshSplitTunnelRoutes();
    EXPECT_TRUE(sim::RunUntil([&ended] { return ended; }, 60000));
    EXPECT_EQ(sim::HostRouteTexts(), (Lines{HostRoute("1.2.3.4"), HostRoute("9.9.9.9")}));
    EXPECT_EQ(Permits(), (Texts{L"1.2.3.4", L"1.2.3.4", L"9.9.9.9", L"9.9.9.9"}));
  }
}

}  // namespace
