// What the users of the built-in base URL do when it cannot be parsed. This program is built with such a URL.
#include <gtest/gtest.h>

#include "controlplane/base_url.h"
#include "engine/bootstrap.h"
#include "firewall/baseline.h"
#include "firewall/bypass_allowlist.h"
#include "tests/firewall/firewall_fixture.h"
#include "tests/ipc/account_fixture.h"

namespace {

using namespace firewall_test;

TEST(BadBaseUrl, CostsTheBaselineItsPinsAlone) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", 42));
  const Lines log = sim::LogLines();
  ASSERT_GE(log.size(), 4u);
  EXPECT_EQ(Lines(log.end() - 4, log.end()),
            (Lines{"WFP: AddAllowAllOutboundOnIfIndexV6 OK",
                   "CP immediate DNS refresh (baseline): base=http://cp.telvor.test:8443/",
                   "CP immediate DNS refresh (baseline): ParseHttpsBaseUrl FAILED for "
                   "base=http://cp.telvor.test:8443/",
                   "WFP: Transaction COMMIT OK"}));
  EXPECT_EQ(InForce().size(), 13u);
  EXPECT_EQ(sim::CountCalls("GetAddrInfoW"), 0u);
}

TEST(BadBaseUrl, IsPassedOverSilentlyByTheBypassUpdate) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_EQ(sim::LogLines(), (Lines{"WFP: UpdateSplitTunnelBypassAllowlistV4 ENTER count=1",
                                    "CP immediate DNS refresh (update): base=http://cp.telvor.test:8443/",
                                    "WFP: UpdateSplitTunnelBypassAllowlistV4 COMMIT OK"}));
  EXPECT_EQ(InForce(), Lines(2, "TELVOR:ALLOW split-bypass v4:10.1.2.3"));
  EXPECT_EQ(sim::CountCalls("GetAddrInfoW"), 0u);
}

TEST(BadBaseUrl, LeavesOldPinsInForceBehindABypassUpdate) {
  sim::Machine machine;
  PutOwnProviderAndSublayer();
  sim::PutFilter(OldFilter(L"TELVOR:ALLOW cp-pinned v4:10.99.0.1"));
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  EXPECT_EQ(InForce(), Join({{"TELVOR:ALLOW cp-pinned v4:10.99.0.1"},
                             Lines(2, "TELVOR:ALLOW split-bypass v4:10.1.2.3")}));
}

TEST(BadBaseUrl, SparesTheBootstrapItsWaitForTheNetwork) {
  sim::Machine machine;
  const uint64_t start = sim::Now();
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(sim::CountCalls("GetAddrInfoW"), 0u);
  EXPECT_EQ(sim::Now(), start);
  const Lines log = sim::LogLines();
  ASSERT_GE(log.size(), 2u);
  EXPECT_EQ(log[0], "Bootstrap: CP base URL = http://cp.telvor.test:8443/");
  EXPECT_TRUE(log[1].starts_with("[BOOTSTRAP] AUTH_REQUIRED (no session: ")) << log[1];
}

TEST(BadBaseUrl, BecomesTheBaseOfTheAccountCallsAsItStands) {
  sim::Machine machine;
  gCpBaseUrl = L"https://other.test";
  InitCpBaseUrl();
  EXPECT_EQ(gCpBaseUrl, L"http://cp.telvor.test:8443/");
}

TEST(BadBaseUrl, LosesItsSlashInTheLinkToTheAccountPage) {
  ipc_test::AccountMachine machine;
  ipc_test::PutSession("access-1", 3600);
  gCpBaseUrl = L"";
  EXPECT_EQ(ipc_test::Call("GET /ui/account-page-url"),
            ipc_test::ResultText(
                R"({"ok":true,"account_url":"http://cp.telvor.test:8443/account?access_token=access-1",)"
                R"("message":"ok"})"));
}

}  // namespace
