#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "splittunnel/routes.h"
#include "tests/splittunnel/routes_fixture.h"

namespace {

constexpr uint16_t kAfInet6 = 23;

TEST(GetAdapterIfIndexByName, FindsAnAdapterByItsFriendlyNameWithoutRegardToCase) {
  sim::Machine machine;
  sim::AddAdapter(L"telvor", 42);
  uint32_t ifIndex = 99;
  EXPECT_TRUE(GetAdapterIfIndexByName(L"TelVor", ifIndex));
  EXPECT_EQ(ifIndex, 42U);
  EXPECT_TRUE(GetAdapterIfIndexByName(L"ethernet", ifIndex));
  EXPECT_EQ(ifIndex, 7U);
  EXPECT_EQ(sim::CountCalls("GetAdaptersAddresses", "family=2 flags=14"), 4U);
}

TEST(GetAdapterIfIndexByName, GivesZeroForAnUnknownName) {
  sim::Machine machine;
  uint32_t ifIndex = 99;
  EXPECT_FALSE(GetAdapterIfIndexByName(L"telvor", ifIndex));
  EXPECT_EQ(ifIndex, 0U);
  ifIndex = 99;
  EXPECT_FALSE(GetAdapterIfIndexByName(L"Ether", ifIndex));
  EXPECT_EQ(ifIndex, 0U);
  sim::ClearAdapters();
  EXPECT_FALSE(GetAdapterIfIndexByName(L"Ethernet", ifIndex));
}

TEST(GetAdapterIfIndexByName, LetsTheFirstMatchDecideEvenWithoutAnIndex) {
  sim::Machine machine;
  sim::AddAdapter(L"TELVOR", 0);
  sim::AddAdapter(L"telvor", 42);
  uint32_t ifIndex = 99;
  EXPECT_FALSE(GetAdapterIfIndexByName(L"telvor", ifIndex));
  EXPECT_EQ(ifIndex, 0U);
}

TEST(GetAdapterIfIndexByName, FailsQuietlyWhenEitherCallFails) {
  for (const uint32_t passed : {0U, 1U}) {
    sim::Machine machine;
    sim::Fail({.operation = "GetAdaptersAddresses", .code = 5, .skip = passed});
    uint32_t ifIndex = 99;
    EXPECT_FALSE(GetAdapterIfIndexByName(L"Ethernet", ifIndex));
    EXPECT_EQ(ifIndex, 0U);
    EXPECT_TRUE(sim::LogLines().empty());
  }
}

TEST(FindDefaultRouteExcluding, TakesTheLowestMetric) {
  sim::Machine machine;
  AddDefaultRoute("10.0.0.1", 8, 5);
  AddDefaultRoute("10.0.0.2", 9, 30);
  EXPECT_TRUE(FindDefaultRouteExcluding(0));
  EXPECT_EQ(Gateway(), "10.0.0.1 if 8");
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(FindDefaultRouteExcluding, TakesTheFirstInTheTableAmongEqualMetrics) {
  sim::Machine machine;
  AddDefaultRoute("10.0.0.1", 8, 5);
  AddDefaultRoute("10.0.0.2", 9, 5);
  EXPECT_TRUE(FindDefaultRouteExcluding(0));
  EXPECT_EQ(Gateway(), "10.0.0.1 if 8");
}

TEST(FindDefaultRouteExcluding, SkipsTheExcludedInterface) {
  sim::Machine machine;
  AddDefaultRoute("10.66.0.1", 42, 0);
  EXPECT_TRUE(FindDefaultRouteExcluding(42));
  EXPECT_EQ(Gateway(), "192.168.1.1 if 7");
  EXPECT_TRUE(FindDefaultRouteExcluding(0));
  EXPECT_EQ(Gateway(), "10.66.0.1 if 42");
}

TEST(FindDefaultRouteExcluding, TakesOnlyIPv4DefaultRoutesWithAGateway) {
  sim::Machine machine;
  sim::ClearRoutes();
  AddDefaultRoute("10.0.0.1", 0, 1);
  AddDefaultRoute("0.0.0.0", 8, 1);
  sim::AddRoute(sim::Route("0.0.0.0", 1, "10.0.0.2", 8, 1));
  sim::AddRoute(sim::Route("128.0.0.0", 0, "10.0.0.3", 8, 1));
  platform::MibIpForwardRow2 row = sim::Route("0.0.0.0", 0, "10.0.0.4", 8, 1);
  row.destinationPrefix.family = kAfInet6;
  sim::AddRoute(row);
  row = sim::Route("0.0.0.0", 0, "10.0.0.5", 8, 1);
  row.nextHop.family = kAfInet6;
  sim::AddRoute(row);
  AddDefaultRoute("10.0.0.6", 8, 0xFFFFFFFF);
  EXPECT_FALSE(FindDefaultRouteExcluding(0));
  EXPECT_FALSE(FindDefaultRouteExcluding(42));
  AddDefaultRoute("10.0.0.7", 8, 0xFFFFFFFE);
  EXPECT_TRUE(FindDefaultRouteExcluding(42));
  EXPECT_EQ(Gateway(), "10.0.0.7 if 8");
}

TEST(FindDefaultRouteExcluding, ForgetsWhatWasKnownWhenItFindsNone) {
  sim::Machine machine;
  KnowGateway(L"1.2.3.4", 5);
  EXPECT_FALSE(FindDefaultRouteExcluding(7));
  EXPECT_EQ(Gateway(), " if 0");
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(FindDefaultRouteExcluding, LogsAFailedCallUnderANameThatSaysSoAlready) {
  for (const char* call : {"GetIpForwardTable2", "InetNtopW"}) {
    SCOPED_TRACE(call);
    sim::Machine machine;
    KnowGateway(L"1.2.3.4", 5);
    sim::Fail({.operation = call, .code = 5});
    EXPECT_FALSE(FindDefaultRouteExcluding(0));
    EXPECT_EQ(Gateway(), " if 0");
    EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied(call + std::string(" failed"))}));
  }
}

TEST(GetDefaultGateway, ExcludesTheTunnelAdapterAndLogsWhatItFound) {
  sim::Machine machine;
  sim::AddAdapter(L"telvor", 42);
  AddDefaultRoute("10.66.0.1", 42, 0);
  EXPECT_TRUE(GetDefaultGatewayIPv4_WinApi());
  EXPECT_EQ(Gateway(), "192.168.1.1 if 7");
  EXPECT_EQ(sim::LogLines(), (Lines{"GetDefaultGatewayIPv4_WinApi: LAN gw=192.168.1.1 ifIndex=7 "
                                    "(excluded wg ifIndex=42)"}));
  EXPECT_EQ(sim::CountCalls("GetBestRoute2"), 0U);
}

TEST(GetDefaultGateway, TakesTheBestRouteAsLongAsThereIsNoTunnelAdapter) {
  sim::Machine machine;
  sim::SetBestRoute(sim::Route("0.0.0.0", 0, "172.16.0.1", 9, 50));
  EXPECT_TRUE(GetDefaultGatewayIPv4_WinApi());
  EXPECT_EQ(Gateway(), "172.16.0.1 if 9");
  EXPECT_EQ(sim::LogLines(), (Lines{"GetDefaultGatewayIPv4_WinApi: gw=172.16.0.1 ifIndex=9 (fallback)"}));
  EXPECT_EQ(sim::CountCalls("GetIpForwardTable2"), 0U);
}

TEST(GetDefaultGateway, MayFallBackToTheTunnelsOwnRoute) {
  sim::Machine machine;
  sim::ClearRoutes();
  sim::AddAdapter(L"telvor", 42);
  sim::SetBestRoute(sim::Route("0.0.0.0", 0, "10.66.0.1", 42, 0));
  EXPECT_TRUE(GetDefaultGatewayIPv4_WinApi());
  EXPECT_EQ(Gateway(), "10.66.0.1 if 42");
  EXPECT_EQ(
      sim::LogLines(),
      (Lines{"GetDefaultGatewayIPv4_WinApi: failed excluding wg ifIndex=42; falling back to GetBestRoute2",
             "GetDefaultGatewayIPv4_WinApi: gw=10.66.0.1 ifIndex=42 (fallback)"}));
}

TEST(GetDefaultGateway, TakesAnOnLinkBestRouteForAGateway) {
  sim::Machine machine;
  sim::SetBestRoute(sim::Route("0.0.0.0", 0, "0.0.0.0", 9, 50));
  EXPECT_TRUE(GetDefaultGatewayIPv4_WinApi());
  EXPECT_EQ(Gateway(), "0.0.0.0 if 9");
}

TEST(GetDefaultGateway, FailsForABestRouteWithoutAnInterface) {
  sim::Machine machine;
  sim::SetBestRoute(sim::Route("0.0.0.0", 0, "172.16.0.1", 0, 50));
  EXPECT_FALSE(GetDefaultGatewayIPv4_WinApi());
  EXPECT_EQ(sim::LogLines(), (Lines{"GetDefaultGatewayIPv4_WinApi: gw=172.16.0.1 ifIndex=0 (fallback)"}));
}

TEST(GetDefaultGateway, LeavesTheIndexSetForABestRouteThatIsNotIPv4) {
  sim::Machine machine;
  KnowGateway(L"1.2.3.4", 5);
  platform::MibIpForwardRow2 row = sim::Route("0.0.0.0", 0, "172.16.0.1", 9, 50);
  row.nextHop.family = kAfInet6;
  sim::SetBestRoute(row);
  EXPECT_FALSE(GetDefaultGatewayIPv4_WinApi());
  EXPECT_EQ(Gateway(), " if 9");
  EXPECT_EQ(sim::LogLines(), (Lines{"GetDefaultGatewayIPv4_WinApi: best.NextHop is not AF_INET"}));
}

TEST(GetDefaultGateway, LogsTheCallOfTheFallbackThatFailed) {
  const struct {
    const char* call;
    std::string line;
    const char* gateway;
  } cases[] = {
      {"InetPtonW", "GetDefaultGatewayIPv4_WinApi: InetPtonW failed for 1.1.1.1", " if 0"},
      {"GetBestRoute2", AccessDenied("GetBestRoute2 failed"), " if 0"},
      {"InetNtopW", AccessDenied("InetNtopW failed"), " if 7"},
  };
  for (const auto& step : cases) {
    SCOPED_TRACE(step.call);
    sim::Machine machine;
    KnowGateway(L"1.2.3.4", 5);
    sim::Fail({.operation = step.call, .code = 5});
    EXPECT_FALSE(GetDefaultGatewayIPv4_WinApi());
    EXPECT_EQ(Gateway(), step.gateway);
    EXPECT_EQ(sim::LogLines(), (Lines{step.line}));
  }
}

TEST(GetDefaultGateway, AsksForTheBestRouteToOneFixedAddress) {
  sim::Machine machine;
  GetDefaultGatewayIPv4_WinApi();
  EXPECT_EQ(sim::CountCalls("InetPtonW", "1.1.1.1"), 1U);
  EXPECT_EQ(sim::CountCalls("GetBestRoute2", "1.1.1.1"), 1U);
  EXPECT_EQ(sim::CountCalls("GetBestRoute2", "interfaceIndex=0"), 1U);
  EXPECT_EQ(sim::CountCalls("GetBestRoute2", "sortOptions=0"), 1U);
}

}  // namespace
