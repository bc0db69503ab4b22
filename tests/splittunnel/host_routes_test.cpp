#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "splittunnel/routes.h"
#include "tests/splittunnel/routes_fixture.h"

namespace {

void AddHostRoute(const std::string& address, const std::string& nextHop, uint32_t ifIndex,
                  uint32_t metric = 5) {
  sim::AddRoute(sim::Route(address, 32, nextHop, ifIndex, metric));
}

TEST(AddRouteV4_32, MakesAHostRouteThroughTheGatewayWithAllItsFields) {
  sim::Machine machine;
  KnowGateway();
  ASSERT_TRUE(AddRouteV4_32(L"1.2.3.4", 7));
  ASSERT_EQ(sim::HostRouteTexts(), (Lines{"1.2.3.4/32 via 192.168.1.1 if 7 metric 5"}));
  platform::MibIpForwardRow2 defaults;
  platform::InitializeIpForwardEntry(defaults);
  const platform::MibIpForwardRow2 row = sim::Routes().back();
  EXPECT_EQ(row.destinationPrefix.family, 2);
  EXPECT_EQ(row.nextHop.family, 2);
  EXPECT_EQ(row.protocol, 3U);
  EXPECT_EQ(row.origin, 0U);
  EXPECT_EQ(row.validLifetime, defaults.validLifetime);
  EXPECT_EQ(row.preferredLifetime, defaults.preferredLifetime);
  EXPECT_EQ(row.sitePrefixLength, defaults.sitePrefixLength);
  EXPECT_EQ(row.immortal, defaults.immortal);
  EXPECT_EQ(row.publish, defaults.publish);
  EXPECT_EQ(row.loopback, defaults.loopback);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(AddRouteV4_32, RefusesWhatIsNoAddressAndAGatewayThatIsNone) {
  sim::Machine machine;
  KnowGateway();
  for (const wchar_t* address : {L"not-an-ip", L"1.2.3.4/32", L" 1.2.3.4", L"::1", L""}) {
    sim::ClearLog();
    EXPECT_FALSE(AddRouteV4_32(address, 7));
    EXPECT_EQ(sim::LogLines(), (Lines{"AddRouteV4_32: invalid ip=" + sim::Narrow(address)}));
  }
  sim::ClearLog();
  KnowGateway(L"no gateway");
  EXPECT_FALSE(AddRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::LogLines(), (Lines{"AddRouteV4_32: invalid gw=no gateway"}));
  EXPECT_EQ(sim::CountCalls("CreateIpForwardEntry2"), 0U);
}

TEST(AddRouteV4_32, UpdatesTheRouteThatExistsWhenItIsAddedAgain) {
  sim::Machine machine;
  KnowGateway();
  EXPECT_TRUE(AddRouteV4_32(L"1.2.3.4", 7));
  EXPECT_TRUE(AddRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::CountCalls("CreateIpForwardEntry2"), 2U);
  EXPECT_EQ(sim::CountCalls("SetIpForwardEntry2"), 1U);
  EXPECT_EQ(sim::HostRouteTexts(), (Lines{"1.2.3.4/32 via 192.168.1.1 if 7 metric 5"}));
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(AddRouteV4_32, MovesAnExistingRouteOntoTheGateway) {
  sim::Machine machine;
  KnowGateway();
  platform::MibIpForwardRow2 other = sim::Route("1.2.3.4", 32, "10.66.0.1", 7, 200);
  other.protocol = 2;
  other.origin = 1;
  other.age = 77;
  sim::AddRoute(other);
  EXPECT_TRUE(AddRouteV4_32(L"1.2.3.4", 7));
  ASSERT_EQ(sim::HostRouteTexts(), (Lines{"1.2.3.4/32 via 192.168.1.1 if 7 metric 5"}));
  EXPECT_EQ(sim::Routes().back().protocol, 3U);
  EXPECT_EQ(sim::Routes().back().origin, 0U);
  EXPECT_EQ(sim::Routes().back().age, 77U);  // the rest stays as it was
}

TEST(AddRouteV4_32, UpdatesEveryHostRouteToTheAddressOnWhateverInterface) {
  sim::Machine machine;
  KnowGateway();
  sim::AddAdapter(L"telvor", 42);
  AddHostRoute("1.2.3.4", "10.66.0.1", 42);
  AddHostRoute("1.2.3.5", "10.66.0.1", 42);
  sim::AddRoute(sim::Route("1.2.3.4", 31, "10.66.0.1", 42, 5));
  AddHostRoute("1.2.3.4", "192.168.1.9", 7);
  sim::Fail({.operation = "CreateIpForwardEntry2", .code = 5010});
  EXPECT_TRUE(AddRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::CountCalls("SetIpForwardEntry2"), 2U);
  const Lines others = sim::RouteTexts();
  EXPECT_EQ(others[2], "1.2.3.5/32 via 10.66.0.1 if 42 metric 5");
  EXPECT_EQ(others[3], "1.2.3.4/31 via 10.66.0.1 if 42 metric 5");
}

TEST(AddRouteV4_32, FailsQuietlyOnAnyOtherErrorOfTheCreation) {
  sim::Machine machine;
  KnowGateway();
  sim::Fail({.operation = "CreateIpForwardEntry2", .code = 5});
  EXPECT_FALSE(AddRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::CountCalls("GetIpForwardTable2"), 0U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(AddRouteV4_32, LogsAnExistingRouteThatItCannotUpdate) {
  const std::string none =
      "AddRouteV4_32: existed but no matching row updated for ip=1.2.3.4 gw=192.168.1.1 ifIndex=7";
  const struct {
    const char* call;
    Lines lines;
  } cases[] = {
      {"GetIpForwardTable2", {AccessDenied("AddRouteV4_32: GetIpForwardTable2 failed")}},
      {"SetIpForwardEntry2", {AccessDenied("AddRouteV4_32: SetIpForwardEntry2 failed"), none}},
  };
  for (const auto& step : cases) {
    SCOPED_TRACE(step.call);
    sim::Machine machine;
    KnowGateway();
    AddHostRoute("1.2.3.4", "10.66.0.1", 7);
    sim::Fail({.operation = step.call, .code = 5});
    EXPECT_FALSE(AddRouteV4_32(L"1.2.3.4", 7));
    EXPECT_EQ(sim::LogLines(), step.lines);
  }
  sim::Machine machine;
  KnowGateway();
  sim::Fail({.operation = "CreateIpForwardEntry2", .code = 5010});
  EXPECT_FALSE(AddRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::LogLines(), (Lines{none}));
}

TEST(AddRouteV4_32, GoesOnBehindARowThatCannotBeUpdated) {
  sim::Machine machine;
  KnowGateway();
  AddHostRoute("1.2.3.4", "10.66.0.1", 7);
  AddHostRoute("1.2.3.4", "10.66.0.2", 7);
  sim::Fail({.operation = "SetIpForwardEntry2", .code = 5});
  EXPECT_TRUE(AddRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::CountCalls("SetIpForwardEntry2"), 2U);
  EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied("AddRouteV4_32: SetIpForwardEntry2 failed")}));
}

TEST(DeleteRouteV4_32, DeletesOnlyTheHostRouteThroughTheGatewayOnTheInterface) {
  sim::Machine machine;
  KnowGateway();
  sim::AddAdapter(L"telvor", 42);
  sim::ClearRoutes();
  AddHostRoute("1.2.3.4", "192.168.1.1", 42);
  AddHostRoute("1.2.3.4", "192.168.1.2", 7);
  AddHostRoute("1.2.3.5", "192.168.1.1", 7);
  sim::AddRoute(sim::Route("1.2.3.4", 24, "192.168.1.1", 7, 5));
  const Lines others = sim::RouteTexts();
  AddHostRoute("1.2.3.4", "192.168.1.1", 7, 99);
  EXPECT_TRUE(DeleteRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::RouteTexts(), others);
  EXPECT_EQ(sim::CountCalls("DeleteIpForwardEntry2"), 1U);
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(DeleteRouteV4_32, SucceedsForAnAddressWithoutARoute) {
  sim::Machine machine;
  KnowGateway();
  EXPECT_TRUE(DeleteRouteV4_32(L"1.2.3.4", 7));
  AddHostRoute("1.2.3.4", "192.168.1.1", 7);
  sim::Fail({.operation = "DeleteIpForwardEntry2", .code = 1168});
  EXPECT_TRUE(DeleteRouteV4_32(L"1.2.3.4", 7));
  EXPECT_TRUE(sim::LogLines().empty());
}

TEST(DeleteRouteV4_32, LogsARouteThatCannotBeDeletedAndGoesOn) {
  sim::Machine machine;
  KnowGateway();
  AddHostRoute("1.2.3.4", "192.168.1.1", 7, 5);
  AddHostRoute("1.2.3.4", "192.168.1.1", 7, 6);
  sim::Fail({.operation = "DeleteIpForwardEntry2", .code = 5});
  EXPECT_FALSE(DeleteRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied("DeleteIpForwardEntry2 failed")}));
  EXPECT_EQ(sim::CountCalls("DeleteIpForwardEntry2"), 2U);
}

TEST(DeleteRouteV4_32, FailsWithoutALineForTextsThatAreNoAddresses) {
  sim::Machine machine;
  KnowGateway();
  EXPECT_FALSE(DeleteRouteV4_32(L"not-an-ip", 7));
  KnowGateway(L"no gateway");
  EXPECT_FALSE(DeleteRouteV4_32(L"1.2.3.4", 7));
  EXPECT_TRUE(sim::LogLines().empty());
  EXPECT_EQ(sim::CountCalls("FreeMibTable"), 2U);
}

TEST(DeleteRouteV4_32, LogsATableThatCannotBeRead) {
  sim::Machine machine;
  KnowGateway();
  sim::Fail({.operation = "GetIpForwardTable2", .code = 5});
  EXPECT_FALSE(DeleteRouteV4_32(L"1.2.3.4", 7));
  EXPECT_EQ(sim::LogLines(), (Lines{AccessDenied("GetIpForwardTable2 failed")}));
}

}  // namespace
