// The account calls over a transport whose GET is true for any status and a device id of blanks, as neither
// exists in the real system: this program has its own of both, which stand before the library's. What the
// calls say then is kept, out of reach as it is.
#include "controlplane/account.h"
#include "controlplane/catalogue.h"
#include "controlplane/device.h"
#include "controlplane/http_transport.h"
#include "sim/files.h"
#include "tests/controlplane/controlplane_fixture.h"
#include "tests/support/sim_failures.h"

namespace {

uint32_t gStatus = 200;
std::string gBody;
size_t gRequests = 0;

bool Exchange(uint32_t& status, std::string& body) {
  ++gRequests;
  status = gStatus;
  body = gBody;
  return true;
}

}  // namespace

bool HttpGet(const std::wstring&, const std::wstring&, uint32_t& status, std::string& body) {
  return Exchange(status, body);
}
bool HttpPostUtf8(const std::wstring&, const std::wstring&, const std::string&, const std::wstring&,
                  uint32_t& status, std::string& body) {
  return Exchange(status, body);
}
bool HttpPut(const std::wstring&, const std::wstring&, const std::string&, const std::wstring&,
             uint32_t& status, std::string& body) {
  return Exchange(status, body);
}
std::wstring BodyHead(const std::string&, size_t) {
  return L"";
}

bool LoadOrCreateDeviceId(const std::wstring& path, std::wstring& deviceId) {
  EXPECT_EQ(path, kDeviceIdFile);
  deviceId = L" \t\r\n";
  return true;
}
bool EnsureDeviceRegistered(const std::wstring&, std::wstring&, const std::wstring&) {
  return false;
}
bool EnsureWgKeyUploaded(const std::wstring&, const std::wstring&, const std::wstring&, const std::string&) {
  return false;
}

namespace {

std::wstring IsRegisteredError() {
  bool registered = false;
  std::wstring error = L"stale";
  EXPECT_FALSE(CpIsRegistered(L"e", registered, error));
  return error;
}

std::wstring QuotaError() {
  bool current = false;
  std::wstring error = L"stale";
  EXPECT_FALSE(CpGetQuota(L"t", current, error));
  return error;
}

std::wstring EntitlementError() {
  bool paid = false;
  std::string status, periodEnd;
  std::wstring error = L"stale";
  EXPECT_FALSE(CpGetEntitlement(L"t", paid, status, periodEnd, error));
  return error;
}

TEST(AccountGets, TellOtherStatusesOnceTheTransportLetsThemThrough) {
  sim::Machine machine;
  gBody = R"({"registered":true,"quota_current":true,"payment_current":true})";
  for (const uint32_t status : {0U, 199U, 300U, 401U, 409U, 500U}) {
    gStatus = status;
    const std::wstring number = std::to_wstring(status);
    EXPECT_EQ(IsRegisteredError(), L"is-registered non-2xx: " + number);
    EXPECT_EQ(QuotaError(), status == 401 ? L"unauthorized" : L"quota non-2xx: " + number);
    EXPECT_EQ(EntitlementError(), status == 401 ? L"unauthorized" : L"entitlement non-2xx: " + number);
  }
}

TEST(AccountGets, TakeEvery2xxThatTheTransportLetsThrough) {
  sim::Machine machine;
  gBody = R"({"registered":true,"quota_current":true})";
  for (const uint32_t status : {200U, 204U, 299U}) {
    gStatus = status;
    bool registered = false, current = false;
    std::wstring error = L"stale";
    EXPECT_TRUE(CpIsRegistered(L"e", registered, error));
    EXPECT_TRUE(registered);
    EXPECT_TRUE(CpGetQuota(L"t", current, error));
    EXPECT_TRUE(current);
    EXPECT_EQ(error, L"");
  }
}

TEST(CpRegister, SendsNothingWithADeviceIdOfBlanks) {
  sim::Machine machine;
  gRequests = 0;
  std::wstring error = L"stale";
  EXPECT_FALSE(CpRegister(L"e", L"p", error));
  EXPECT_EQ(error, L"device id is empty");
  EXPECT_EQ(gRequests, 0U);
  EXPECT_EQ(sim::LogLines(), Lines{"/v1/auth/register: device_id empty"});
}

TEST(CpGetServerLocations, RefusesOtherStatusesOnceTheTransportLetsThemThrough) {
  gBody = R"({"servers":[{"server_id":"srv-a"}]})";
  for (const uint32_t status : {199U, 300U, 401U}) {
    sim::Machine machine;
    gCachedAccessToken = L"access-1";
    gStatus = status;
    std::vector<ServerRecord> servers(1);
    EXPECT_FALSE(CpGetServerLocations(L"https://cp.telvor.test", servers));
    EXPECT_EQ(servers.size(), 0U);
    EXPECT_EQ(sim::LogLines(),
              Lines{"CpGetServerLocations: non-2xx HTTP " + std::to_string(status) + " head="});
  }
}

}  // namespace
