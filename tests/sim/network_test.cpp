#include "sim/network.h"

#include "sim_fixture.h"

namespace {

using platform::kAfInet;
using Texts = std::vector<std::string>;

TEST(Routes, TheMachineStartsWithADefaultRoute) {
  sim::Machine machine;
  EXPECT_EQ(sim::RouteTexts(), Texts{"0.0.0.0/0 via 192.168.1.1 if 7 metric 25"});
}

TEST(Routes, CreatingSettingAndDeletingFollowTheTable) {
  sim::Machine machine;
  platform::MibIpForwardRow2 row = sim::Route("10.0.0.1", 32, "192.168.1.1", 7, 5);
  EXPECT_EQ(platform::SetIpForwardEntry2(row), platform::kErrorNotFound);
  EXPECT_EQ(platform::CreateIpForwardEntry2(row), 0u);
  EXPECT_EQ(platform::CreateIpForwardEntry2(row), platform::kErrorObjectAlreadyExists);
  row.metric = 9;
  EXPECT_EQ(platform::SetIpForwardEntry2(row), 0u);
  EXPECT_EQ(sim::HostRouteTexts(), Texts{"10.0.0.1/32 via 192.168.1.1 if 7 metric 9"});
  row.nextHop = sim::Route("0.0.0.0", 0, "192.168.1.2", 7, 5).nextHop;
  EXPECT_EQ(platform::DeleteIpForwardEntry2(row), platform::kErrorNotFound);
  row.nextHop = sim::Route("0.0.0.0", 0, "192.168.1.1", 7, 5).nextHop;
  EXPECT_EQ(platform::DeleteIpForwardEntry2(row), 0u);
  EXPECT_TRUE(sim::HostRouteTexts().empty());
}

TEST(Routes, ARowNeedsAnInterfaceThatExists) {
  sim::Machine machine;
  EXPECT_EQ(platform::CreateIpForwardEntry2(sim::Route("10.0.0.1", 32, "192.168.1.1", 8, 5)), 87u);
}

TEST(Routes, TheBestRouteHasTheLongestPrefixThenTheLowestMetric) {
  sim::Machine machine;
  sim::AddAdapter(L"Second", 8);
  sim::AddRoute(sim::Route("0.0.0.0", 0, "10.1.1.1", 8, 5));
  sim::AddRoute(sim::Route("10.0.0.0", 9, "10.2.2.2", 8, 50));
  const auto bestFor = [](const std::string& address) {
    platform::MibIpForwardRow2 best;
    const uint32_t status =
        platform::GetBestRoute2(0, sim::Route(address, 32, "0.0.0.0", 0, 0).destinationPrefix, 0, best);
    return status ? status : best.metric;
  };
  EXPECT_EQ(bestFor("1.1.1.1"), 5u);
  EXPECT_EQ(bestFor("10.127.0.1"), 50u);
  EXPECT_EQ(bestFor("10.128.0.1"), 5u);
  sim::ClearRoutes();
  EXPECT_EQ(bestFor("1.1.1.1"), 1231u);
}

TEST(Routes, TheTableIsACopyWhoseMemoryIsCounted) {
  sim::Machine machine;
  platform::MibIpForwardTable2 table;
  EXPECT_EQ(platform::GetIpForwardTable2(kAfInet, table), 0u);
  sim::ClearRoutes();
  EXPECT_EQ(table.rows.size(), 1u);
  EXPECT_EQ(sim::OpenHandles("memory"), 1u);
  platform::FreeMibTable(table);
}

TEST(Adapters, AreAskedForTheirSizeFirstAndTakeTheirRoutesAlong) {
  sim::Machine machine;
  sim::AddAdapter(L"telvor", 42);
  sim::AddRoute(sim::Route("10.9.0.0", 16, "0.0.0.0", 42, 0));
  uint32_t size = 0;
  std::vector<platform::AdapterAddresses> adapters;
  EXPECT_EQ(platform::GetAdaptersAddresses(kAfInet, 14, size, nullptr), platform::kErrorBufferOverflow);
  EXPECT_EQ(platform::GetAdaptersAddresses(kAfInet, 14, size, &adapters), 0u);
  ASSERT_EQ(adapters.size(), 2u);
  EXPECT_EQ(adapters[1].friendlyName, L"telvor");
  EXPECT_EQ(adapters[1].ifIndex, 42u);
  sim::RemoveAdapter(L"TELVOR");
  EXPECT_EQ(sim::RouteTexts().size(), 1u);
  sim::ClearAdapters();
  EXPECT_EQ(platform::GetAdaptersAddresses(kAfInet, 14, size, nullptr), 232u);
}

TEST(Resolver, GivesItsAnswersInOrderAndTheLastOneStays) {
  sim::Machine machine;
  sim::SetHostSequence(L"Host.Example", {{"1.2.3.4"}, {}, {"1.2.3.5", "1.2.3.6"}});
  std::vector<uint32_t> addresses;
  EXPECT_EQ(platform::GetAddrInfoW(L"host.example", kAfInet, 1, addresses), 0);
  EXPECT_EQ(addresses, std::vector<uint32_t>{0x04030201});
  EXPECT_EQ(platform::GetAddrInfoW(L"host.example", kAfInet, 1, addresses), 11001);
  EXPECT_TRUE(addresses.empty());
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(platform::GetAddrInfoW(L"host.example", kAfInet, 1, addresses), 0);
    EXPECT_EQ(addresses.size(), 2u);
  }
  EXPECT_EQ(sim::LookupCount(L"HOST.example"), 4u);
  EXPECT_EQ(platform::GetAddrInfoW(L"unknown.example", kAfInet, 1, addresses), 11001);
}

TEST(Resolver, ASlowLookUpTakesItsTime) {
  sim::Machine machine;
  sim::SetHost(L"slow.example", {"1.2.3.4"}, 3000);
  std::vector<uint32_t> addresses;
  EXPECT_EQ(platform::GetAddrInfoW(L"slow.example", kAfInet, 1, addresses), 0);
  EXPECT_EQ(sim::Now(), 1'003'000u);
}

TEST(Addresses, AreFourDecimalNumbersInNetworkOrder) {
  sim::Machine machine;
  uint32_t address = 0;
  EXPECT_EQ(platform::InetPtonW(kAfInet, L"127.0.0.1", address), 1);
  EXPECT_EQ(address, 0x0100007Fu);
  for (const wchar_t* bad :
       {L"", L"1.2.3", L"1.2.3.4.5", L"1.2.3.256", L"1.2.3.04", L" 1.2.3.4", L"a.b.c.d"}) {
    EXPECT_EQ(platform::InetPtonW(kAfInet, bad, address), 0) << sim::Narrow(bad);
  }
  std::wstring text;
  EXPECT_TRUE(platform::InetNtopW(kAfInet, 0x0100007F, 10, text));
  EXPECT_EQ(text, L"127.0.0.1");
  EXPECT_FALSE(platform::InetNtopW(kAfInet, 0x0100007F, 9, text));
  EXPECT_FALSE(platform::InetNtopW(23, 0x0100007F, 64, text));
}

}  // namespace
