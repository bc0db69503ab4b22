// Names and addresses, and the times of the control plane, by the platform's rules.
#include <vector>

#include "controlplane/base_url.h"
#include "ipc/platform.h"
#include "platform/platform_fixture.h"
#include "service/platform.h"
#include "splittunnel/bypass_refresh.h"

namespace {

using AddressTest = PlatformTest;
using TimeTest = PlatformTest;

int Parse(const std::wstring& text) {
  uint32_t address = 0;
  return platform::InetPtonW(platform::kAfInet, text, address);
}

// `month` as people count it.
int64_t Seconds(int year, int month, int day, int hour, int minute, int second) {
  return platform::MkGmTime64({year - 1900, month - 1, day, hour, minute, second});
}

}  // namespace

TEST_F(AddressTest, AddressesLieInNetworkByteOrder) {
  uint32_t address = 0;
  ASSERT_EQ(platform::InetPtonW(platform::kAfInet, L"1.2.3.4", address), 1);
  EXPECT_EQ(address, 0x04030201u);
  std::wstring text;
  ASSERT_TRUE(platform::InetNtopW(platform::kAfInet, 0xFEFFA8C0, 64, text));
  EXPECT_EQ(text, L"192.168.255.254");
}

TEST_F(AddressTest, OnlyWholeDottedQuadsAreAddresses) {
  EXPECT_EQ(Parse(L"0.0.0.0"), 1);
  EXPECT_EQ(Parse(L"255.255.255.255"), 1);
  for (const wchar_t* text : {L"", L"1.2.3", L"1.2.3.256", L"1.2.3.4.5", L"1.2.3.4/32", L"1.2.3.4 ",
                              L" 1.2.3.4", L"a.b.c.d", L"1..2.3", L"::1", L"telvor"}) {
    EXPECT_EQ(Parse(text), 0) << testing::PrintToString(std::wstring(text));
  }
}

TEST_F(AddressTest, TheTextNeedsRoomForItsTerminator) {
  std::wstring text = L"stale";
  EXPECT_TRUE(platform::InetNtopW(platform::kAfInet, 0x04030201, 8, text));
  EXPECT_EQ(text, L"1.2.3.4");
  EXPECT_FALSE(platform::InetNtopW(platform::kAfInet, 0x04030201, 7, text));
}

TEST_F(AddressTest, LocalhostResolves) {
  EXPECT_EQ(ResolveHostIpV4(L"localhost"), std::vector<std::wstring>{L"127.0.0.1"});
  EXPECT_EQ(ResolveDomainIPv4(L"localhost"), std::vector<std::wstring>{L"127.0.0.1"});
}

TEST_F(AddressTest, AnAddressResolvesToItself) {
  EXPECT_EQ(ResolveHostIpV4(L"192.0.2.7"), std::vector<std::wstring>{L"192.0.2.7"});
}

TEST_F(AddressTest, AnUnknownNameResolvesToNothing) {
  EXPECT_EQ(ResolveHostIpV4(L"unknown.telvor.test"), std::vector<std::wstring>{});
  EXPECT_EQ(ResolveDomainIPv4(L"unknown.telvor.test"), std::vector<std::wstring>{});
}

TEST_F(AddressTest, ResolvedAddressesAreSortedAsText) {
  const std::vector<std::wstring> expected = {L"10.0.0.10", L"10.0.0.9", L"9.255.0.1"};
  EXPECT_EQ(ResolveHostIpV4(kHostOfThree), expected);
  EXPECT_EQ(ResolveDomainIPv4(kHostOfThree), expected);
}

TEST_F(TimeTest, CountsSecondsFrom1970) {
  EXPECT_EQ(Seconds(1970, 1, 1, 0, 0, 0), 0);
  EXPECT_EQ(Seconds(1970, 1, 2, 0, 0, 1), 86401);
  EXPECT_EQ(Seconds(2000, 2, 29, 12, 0, 0), 951825600);
  EXPECT_EQ(Seconds(2026, 3, 20, 17, 7, 59), 1774026479);
  EXPECT_EQ(Seconds(2038, 1, 19, 3, 14, 8), 2147483648);
}

TEST_F(TimeTest, NormalisesFieldsOutOfRange) {
  EXPECT_EQ(Seconds(2025, 13, 1, 0, 0, 0), Seconds(2026, 1, 1, 0, 0, 0));
  EXPECT_EQ(Seconds(2026, 1, 45, 0, 0, 0), Seconds(2026, 2, 14, 0, 0, 0));
  EXPECT_EQ(Seconds(2026, 1, 1, 99, 0, 0), Seconds(2026, 1, 5, 3, 0, 0));
  EXPECT_EQ(Seconds(2026, 0, 1, 0, 0, 0), Seconds(2025, 12, 1, 0, 0, 0));
  EXPECT_EQ(Seconds(2026, 3, 0, 0, 0, 0), Seconds(2026, 2, 28, 0, 0, 0));
  EXPECT_EQ(Seconds(2026, 1, 1, 0, 0, 61), Seconds(2026, 1, 1, 0, 1, 1));
}

TEST_F(TimeTest, KnowsNothingBefore1970) {
  EXPECT_EQ(Seconds(1969, 12, 31, 23, 59, 59), -1);
  EXPECT_EQ(Seconds(1969, 6, 1, 0, 0, 0), -1);
  EXPECT_EQ(Seconds(0, 1, 1, 0, 0, 0), -1);
}
