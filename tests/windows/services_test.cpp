// What the portable tests cannot ask for: the real service manager, adapters, routes and rights.
#include <algorithm>
#include <vector>

#include "platform/platform_fixture.h"
#include "service/platform.h"
#include "splittunnel/platform.h"
#include "wireguard/platform.h"

namespace {

using ServicesTest = PlatformTest;
using NetworkTest = PlatformTest;
using RightsTest = PlatformTest;

constexpr uint32_t kServiceDoesNotExist = 1060;

struct Manager {
  platform::Handle handle =
      platform::OpenSCManagerW(platform::kScManagerConnect | platform::kScManagerEnumerateService);
  ~Manager() { platform::CloseServiceHandle(handle); }
};

}  // namespace

TEST_F(ServicesTest, EnumerationTellsTheSizeAndThenTheServices) {
  Manager manager;
  ASSERT_NE(manager.handle, nullptr);
  uint32_t needed = 0;
  std::vector<platform::ServiceEntry> services;
  EXPECT_FALSE(platform::EnumServicesStatusExW(manager.handle, platform::kScEnumProcessInfo,
                                               platform::kServiceWin32, platform::kServiceStateAll, 0, needed,
                                               services));
  EXPECT_EQ(platform::GetLastError(), platform::kErrorMoreData);
  EXPECT_TRUE(services.empty());
  ASSERT_GT(needed, 0u);
  EXPECT_TRUE(platform::EnumServicesStatusExW(manager.handle, platform::kScEnumProcessInfo,
                                              platform::kServiceWin32, platform::kServiceStateAll, needed,
                                              needed, services));
  ASSERT_FALSE(services.empty());
  for (const platform::ServiceEntry& service : services) {
    EXPECT_FALSE(service.name.empty());
    EXPECT_TRUE(service.currentState >= 1 && service.currentState <= 7) << service.currentState;
  }
}

TEST_F(ServicesTest, AServiceOfTheListCanBeOpenedAndAsked) {
  Manager manager;
  uint32_t needed = 0;
  std::vector<platform::ServiceEntry> services;
  ASSERT_TRUE(platform::EnumServicesStatusExW(manager.handle, platform::kScEnumProcessInfo,
                                              platform::kServiceWin32, platform::kServiceStateAll, 65536,
                                              needed, services));
  platform::Handle service =
      platform::OpenServiceW(manager.handle, services.at(0).name, platform::kServiceQueryStatus);
  ASSERT_NE(service, nullptr);
  uint32_t state = 0;
  EXPECT_TRUE(platform::QueryServiceStatusEx(service, state));
  EXPECT_TRUE(state >= 1 && state <= 7) << state;
  EXPECT_TRUE(platform::CloseServiceHandle(service));
}

TEST_F(ServicesTest, AMissingServiceIsToldByItsCode) {
  Manager manager;
  EXPECT_EQ(platform::OpenServiceW(manager.handle, L"WireGuardTunnel$nobody", platform::kServiceQueryStatus),
            nullptr);
  EXPECT_EQ(platform::GetLastError(), kServiceDoesNotExist);
}

TEST_F(ServicesTest, TheDispatcherFailsOutsideTheManager) {
  EXPECT_FALSE(platform::StartServiceCtrlDispatcherW(L"TELVOR", [] {}));
  EXPECT_EQ(platform::GetLastError(), platform::kErrorFailedServiceControllerConnect);
}

TEST_F(NetworkTest, AdaptersTellTheSizeAndThenThemselves) {
  uint32_t size = 0;
  ASSERT_EQ(platform::GetAdaptersAddresses(platform::kAfInet, platform::kGaaSkipAllButUnicast, size, nullptr),
            platform::kErrorBufferOverflow);
  ASSERT_GT(size, 0u);
  std::vector<platform::AdapterAddresses> adapters;
  ASSERT_EQ(
      platform::GetAdaptersAddresses(platform::kAfInet, platform::kGaaSkipAllButUnicast, size, &adapters),
      platform::kErrorSuccess);
  ASSERT_FALSE(adapters.empty());
  EXPECT_TRUE(std::all_of(adapters.begin(), adapters.end(), [](const platform::AdapterAddresses& adapter) {
    return !adapter.friendlyName.empty() && adapter.ifIndex > 0;
  }));
}

TEST_F(NetworkTest, TheRouteTableHoldsRowsOfItsFamilyAndIsReleased) {
  platform::MibIpForwardTable2 table;
  ASSERT_EQ(platform::GetIpForwardTable2(platform::kAfInet, table), platform::kErrorSuccess);
  ASSERT_NE(table.memory, nullptr);
  for (const platform::MibIpForwardRow2& row : table.rows) {
    EXPECT_EQ(row.destinationPrefix.family, platform::kAfInet);
    EXPECT_EQ(row.nextHop.family, platform::kAfInet);
    EXPECT_LE(row.destinationPrefixLength, 32);
    EXPECT_GT(row.interfaceIndex, 0u);
  }
  platform::FreeMibTable(table);
  EXPECT_EQ(table.memory, nullptr);
}

TEST_F(RightsTest, AGrantIsReadMergedAndSet) {
  void* dacl = nullptr;
  void* descriptor = nullptr;
  ASSERT_EQ(platform::GetNamedSecurityInfoW(Folder(), platform::kSeFileObject,
                                            platform::kDaclSecurityInformation, dacl, descriptor),
            platform::kErrorSuccess);
  EXPECT_NE(descriptor, nullptr);
  const platform::ExplicitAccess entry{0x001301BF, 1, 3, 1, 2, L"Users"};
  void* merged = nullptr;
  ASSERT_EQ(platform::SetEntriesInAclW(entry, dacl, merged), platform::kErrorSuccess);
  EXPECT_EQ(platform::SetNamedSecurityInfoW(Folder(), platform::kSeFileObject,
                                            platform::kDaclSecurityInformation, merged),
            platform::kErrorSuccess);
  platform::LocalFree(merged);
  platform::LocalFree(descriptor);
}

TEST_F(RightsTest, AMissingFileHasNoRightsToRead) {
  void* dacl = nullptr;
  void* descriptor = nullptr;
  EXPECT_NE(platform::GetNamedSecurityInfoW(File(L"absent"), platform::kSeFileObject,
                                            platform::kDaclSecurityInformation, dacl, descriptor),
            platform::kErrorSuccess);
}
