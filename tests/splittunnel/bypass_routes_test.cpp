#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "splittunnel/routes.h"
#include "tests/splittunnel/routes_fixture.h"

namespace {

TEST(ApplyBypassRoutes, DoesNotLookForTheGatewayForAnEmptyList) {
  sim::Machine machine;
  EXPECT_TRUE(ApplyBypassRoutes({}));
  EXPECT_EQ(Gateway(), " if 0");
  EXPECT_TRUE(sim::Trace().empty());
}

TEST(ApplyBypassRoutes, LooksForTheGatewayOnceAndRoutesEachAddressThroughIt) {
  sim::Machine machine;
  EXPECT_TRUE(ApplyBypassRoutes({L"1.2.3.4", L"5.6.7.8"}));
  EXPECT_EQ(Gateway(), "192.168.1.1 if 7");
  EXPECT_EQ(sim::HostRouteTexts(),
            (Lines{"1.2.3.4/32 via 192.168.1.1 if 7 metric 5", "5.6.7.8/32 via 192.168.1.1 if 7 metric 5"}));
  EXPECT_EQ(sim::CountCalls("GetBestRoute2"), 1U);
  EXPECT_EQ(sim::LogLines(), (Lines{"GetDefaultGatewayIPv4_WinApi: gw=192.168.1.1 ifIndex=7 (fallback)"}));
}

// Wanted: the first gateway is kept for the life of the process.
TEST(ApplyBypassRoutes, StaysWithTheGatewayFirstFoundAfterAChangeOfNetwork) {
  sim::Machine machine;
  EXPECT_TRUE(ApplyBypassRoutes({L"1.2.3.4"}));
  sim::ClearRoutes();
  AddDefaultRoute("10.0.0.1", 7, 1);
  EXPECT_TRUE(ApplyBypassRoutes({L"5.6.7.8"}));
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{"5.6.7.8/32 via 192.168.1.1 if 7 metric 5"}));
  EXPECT_TRUE(RemoveBypassRoutes({L"5.6.7.8"}));
  EXPECT_TRUE(sim::HostRouteTexts().empty());
}

TEST(ApplyBypassRoutes, LooksAgainWhenHalfOfTheGatewayIsNotKnown) {
  for (const bool withIndex : {true, false}) {
    sim::Machine machine;
    KnowGateway(withIndex ? L"" : L"10.0.0.9", withIndex ? 9 : 0);
    EXPECT_TRUE(ApplyBypassRoutes({L"1.2.3.4"}));
    EXPECT_EQ(Gateway(), "192.168.1.1 if 7");
  }
}

TEST(ApplyBypassRoutes, LogsThatThereIsNoGateway) {
  sim::Machine machine;
  sim::Fail({.operation = "GetBestRoute2", .code = 1231});
  EXPECT_FALSE(ApplyBypassRoutes({L"1.2.3.4"}));
  EXPECT_EQ(sim::LogLines(),
            (Lines{"GetBestRoute2 failed failed: 1231 (The network location cannot be reached.)",
                   "SplitTunnelV1: failed to determine default gateway (WinAPI)"}));
  EXPECT_TRUE(sim::HostRouteTexts().empty());
}

TEST(ApplyBypassRoutes, SkipsEntriesThatStandForNoAddress) {
  sim::Machine machine;
  KnowGateway();
  EXPECT_TRUE(ApplyBypassRoutes({L"", L"0.0.0.0", L" 0.0.0.0 ", L"0.0.0.0/0", L"/32", L" \t ", L" / "}));
  EXPECT_TRUE(sim::HostRouteTexts().empty());
  EXPECT_EQ(sim::CountCalls("CreateIpForwardEntry2"), 0U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(ApplyBypassRoutes, RoutesTheCleanFormOfAnEntryAsASingleHost) {
  sim::Machine machine;
  KnowGateway();
  EXPECT_TRUE(ApplyBypassRoutes({L"10.0.0.1/24", L" \t10.0.0.2\v", L" 10.0.0.3 /32/7"}));
  EXPECT_EQ(sim::HostRouteTexts(),
            (Lines{"10.0.0.1/32 via 192.168.1.1 if 7 metric 5", "10.0.0.2/32 via 192.168.1.1 if 7 metric 5",
                   "10.0.0.3/32 via 192.168.1.1 if 7 metric 5"}));
}

TEST(ApplyBypassRoutes, ShowsBothFormsOfAnEntryThatFailedAndGoesOn) {
  sim::Machine machine;
  KnowGateway();
  sim::Fail({.operation = "CreateIpForwardEntry2", .code = 5});
  EXPECT_TRUE(ApplyBypassRoutes({L" 10.0.0.1/24 ", L" not an ip ", L"10.0.0.3"}));
  EXPECT_EQ(sim::LogLines(),
            (Lines{"SplitTunnelV1: add route failed for raw=[ 10.0.0.1/24 ] clean=[10.0.0.1]",
                   "AddRouteV4_32: invalid ip=not an ip",
                   "SplitTunnelV1: add route failed for raw=[ not an ip ] clean=[not an ip]"}));
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{"10.0.0.3/32 via 192.168.1.1 if 7 metric 5"}));
}

TEST(RemoveBypassRoutes, DoesNothingWithoutAListOrAGateway) {
  sim::Machine machine;
  AddDefaultRoute("10.0.0.1", 8, 1);
  EXPECT_TRUE(RemoveBypassRoutes({L"1.2.3.4"}));
  KnowGateway(L"", 7);
  EXPECT_TRUE(RemoveBypassRoutes({L"1.2.3.4"}));
  KnowGateway(L"192.168.1.1", 0);
  EXPECT_TRUE(RemoveBypassRoutes({L"1.2.3.4"}));
  KnowGateway();
  EXPECT_TRUE(RemoveBypassRoutes({}));
  EXPECT_TRUE(sim::Trace().empty());
}

TEST(RemoveBypassRoutes, DeletesTheCleanFormsAndSkipsWhatStandsForNoAddress) {
  sim::Machine machine;
  ApplyBypassRoutes({L"10.0.0.1", L"10.0.0.2", L"10.0.0.3"});
  sim::AddRoute(sim::Route("0.0.0.0", 32, "192.168.1.1", 7, 5));
  sim::ClearTrace();
  EXPECT_TRUE(RemoveBypassRoutes({L"", L"0.0.0.0", L" 0.0.0.0/8", L" 10.0.0.1/24", L"10.0.0.3 "}));
  EXPECT_EQ(sim::HostRouteTexts(),
            (Lines{"10.0.0.2/32 via 192.168.1.1 if 7 metric 5", "0.0.0.0/32 via 192.168.1.1 if 7 metric 5"}));
  EXPECT_EQ(sim::CountCalls("DeleteIpForwardEntry2"), 2U);
}

TEST(RemoveBypassRoutes, IsTrueWhateverBecomesOfTheSingleRoutes) {
  sim::Machine machine;
  ApplyBypassRoutes({L"10.0.0.1", L"10.0.0.2"});
  sim::ClearLog();
  sim::Fail({.operation = "DeleteIpForwardEntry2", .code = 5});
  EXPECT_TRUE(RemoveBypassRoutes({L"not an ip", L"10.0.0.1", L"10.0.0.2", L"10.0.0.9"}));
  EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied("DeleteIpForwardEntry2 failed")}));
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{"10.0.0.1/32 via 192.168.1.1 if 7 metric 5"}));
}

}  // namespace
