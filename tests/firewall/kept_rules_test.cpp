// What is in force behind an operation that did not get through, on a machine where rules stood before it.
#include <gtest/gtest.h>

#include "firewall/baseline.h"
#include "firewall/bypass_allowlist.h"
#include "tests/firewall/firewall_fixture.h"

namespace {

using namespace firewall_test;

constexpr uint32_t kTunnelIndex = 42;

TEST(KeptRules, OutliveABaselineForAnInterfaceIndexOf0) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
  EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  const Lines before = InForce();
  EXPECT_FALSE(EnableFailClosedBaseline(L"", 0));
  EXPECT_EQ(InForce(), before);
}

TEST(KeptRules, PinsOutliveAnUpdateForWhichTheHostResolvesToNothing) {
  sim::Machine machine;
  sim::SetHost(kControlPlaneHost, {"10.99.0.1"});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.3"}));
  sim::SetHost(kControlPlaneHost, {});
  EXPECT_TRUE(UpdateSplitTunnelBypassAllowlistV4({L"10.1.2.4"}));
  EXPECT_EQ(InForce(), Join({Lines(2, "TELVOR:ALLOW cp-pinned v4:10.99.0.1"),
                             Lines(2, "TELVOR:ALLOW split-bypass v4:10.1.2.4")}));
}

// The callouts go and the transaction is committed all the same.
TEST(KeptRules, OutliveARollbackWhoseSweepCannotWalk) {
  for (const std::string operation : {"FwpmFilterCreateEnumHandle0", "FwpmFilterEnum0"}) {
    SCOPED_TRACE(operation);
    sim::Machine machine;
    EXPECT_TRUE(EnableFailClosedBaseline(L"", kTunnelIndex));
    sim::PutCallout({1, 2, 3, {}}, &kProviderKey);
    const Lines before = InForce();
    const size_t committed = sim::TransactionsCommitted();
    sim::ClearLog();
    sim::Fail({.operation = operation, .code = kAccessDenied});
    EXPECT_FALSE(RollbackToOpen());
    EXPECT_EQ(sim::LogLines().at(0), ErrorLine("WFP: " + operation + " failed", kAccessDenied));
    EXPECT_EQ(InForce(), before);
    EXPECT_EQ(sim::CalloutCount(), 0u);
    EXPECT_EQ(sim::TransactionsCommitted(), committed + 1);
  }
}

}  // namespace
