// The state object of GetState and the status object of GET /ui/status.
#include <gtest/gtest.h>

#include "controlplane/base_url.h"
#include "ipc/views.h"
#include "sim/processes.h"
#include "tests/ipc/ipc_fixture.h"

namespace {

using namespace ipc_test;

constexpr wchar_t kOther[] = L"https://elsewhere.test";

// wg.exe shows two peers that received 300 and sent 4000 bytes together.
void ShowTraffic(uint32_t exitCode = 0) {
  sim::SetProcessHandler([exitCode](const std::wstring&) {
    sim::ProcessResult result;
    result.exitCode = exitCode;
    result.standardOutput = "peer-1\t100\t1000\npeer-2\t200\t3000\n";
    return result;
  });
}

// ---- GetState ----

std::string StateText(const std::string& state, const std::string& device = "null",
                      const std::string& key = "null",
                      const std::string& bytes = R"("rxBytes":0,"txBytes":0)",
                      const std::string& error = "null") {
  return R"({"deviceId":)" + device + R"(,"wgPublicKey":)" + key + R"(,"state":")" + state +
         R"(","protocol":"WireGuard",)" + bytes + R"(,"lastError":)" + error + "}";
}

TEST(BuildStateJson, ShowsAFreshMachine) {
  sim::Machine machine;
  WireSubsystems();
  EXPECT_EQ(BuildStateJson(),
            R"({"deviceId":null,"wgPublicKey":null,"state":"disconnected","protocol":"WireGuard",)"
            R"("rxBytes":0,"txBytes":0,"lastError":null})");
  EXPECT_EQ(Call("GetState"), ResultText(StateText("disconnected")));
}

TEST(BuildStateJson, ShowsDeviceAndKey) {
  sim::Machine machine;
  WireSubsystems();
  sim::PutFile(kDeviceIdFile, " DESKTOP-\xC3\xA9\"1\" \t\r\n");
  sim::PutFile(kPublicKeyFile, "\r\n a+b/c= \t\r\n");
  EXPECT_EQ(BuildStateJson(), StateText("disconnected", "\"DESKTOP-\xC3\xA9\\\"1\\\"\"", R"("a+b/c=")"));
}

TEST(BuildStateJson, ShowsNullForFilesThatAreEmptyOrCannotBeRead) {
  sim::Machine machine;
  WireSubsystems();
  sim::PutFile(kDeviceIdFile, " \r\n");
  sim::PutFile(kPublicKeyFile, "");
  EXPECT_EQ(BuildStateJson(), StateText("disconnected"));
  sim::PutFile(kDeviceIdFile, "device\r\n");
  sim::PutFile(kPublicKeyFile, "key\r\n");
  sim::HoldFile(kDeviceIdFile);
  sim::HoldFile(kPublicKeyFile);
  EXPECT_EQ(BuildStateJson(), StateText("disconnected"));
}

TEST(BuildStateJson, AsksForTheKeyUnderADoubledPath) {
  sim::Machine machine;
  WireSubsystems();
  BuildStateJson();
  EXPECT_EQ(sim::CountCalls("CreateFileW", R"(C:\\ProgramData\\TELVOR\\auth\\wg_client_publickey.txt)"), 1u);
}

TEST(BuildStateJson, HasAWordForEachStatus) {
  const struct {
    int32_t status;
    std::string word;
  } rows[] = {{0, "disconnected"},  {1, "connecting"},   {3, "error"},
              {-1, "disconnected"}, {4, "disconnected"}, {INT32_MAX, "disconnected"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.status);
    sim::Machine machine;
    WireSubsystems();
    ShowTraffic();
    gTunnelStatus = row.status;
    EXPECT_EQ(BuildStateJson(), StateText(row.word));
    EXPECT_EQ(sim::StartedProcesses().size(), 0u);
  }
}

TEST(BuildStateJson, CountsBytesWhileConnected) {
  sim::Machine machine;
  WireSubsystems();
  ShowTraffic();
  gTunnelStatus = kStatusConnected;
  EXPECT_EQ(BuildStateJson(), StateText("connected", "null", "null", R"("rxBytes":300,"txBytes":4000)"));
  ASSERT_EQ(sim::StartedProcesses().size(), 1u);
  EXPECT_EQ(sim::StartedProcesses()[0].commandLine,
            L"\"C:\\Program Files\\WireGuard\\wg.exe\" show telvor transfer");
}

TEST(BuildStateJson, ReadsTheStatusOnce) {
  sim::Machine machine;
  WireSubsystems();
  ShowTraffic();
  gTunnelStatus = kStatusConnected;
  sim::Before("CreateProcessW", [] { gTunnelStatus = kStatusError; });
  EXPECT_EQ(BuildStateJson(), StateText("connected", "null", "null", R"("rxBytes":300,"txBytes":4000)"));
}

TEST(BuildStateJson, ShowsLargeCountersUnsigned) {
  sim::Machine machine;
  WireSubsystems();
  sim::SetProcessHandler([](const std::wstring&) {
    sim::ProcessResult result;
    result.standardOutput = "peer\t18446744073709551615\t9223372036854775808\n";
    return result;
  });
  gTunnelStatus = kStatusConnected;
  EXPECT_EQ(BuildStateJson(), StateText("connected", "null", "null",
                                        R"("rxBytes":18446744073709551615,"txBytes":9223372036854775808)"));
}

TEST(BuildStateJson, ShowsZeroesWhenWgFails) {
  sim::Machine machine;
  WireSubsystems();
  gTunnelStatus = kStatusConnected;
  ShowTraffic(1);
  EXPECT_EQ(BuildStateJson(), StateText("connected"));
  sim::SetProcessHandler([](const std::wstring&) {
    sim::ProcessResult result;
    result.starts = false;
    return result;
  });
  EXPECT_EQ(BuildStateJson(), StateText("connected"));
}

TEST(BuildStateJson, ShowsTheLastErrorTrimmed) {
  const struct {
    std::wstring text;
    std::string shown;
  } rows[] = {{L" HANDSHAKE_TIMEOUT\r\n", R"("HANDSHAKE_TIMEOUT")"},
              {L" \t\r\n", "null"},
              {L"a\"b\u00e9", "\"a\\\"b\xC3\xA9\""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.shown);
    sim::Machine machine;
    WireSubsystems();
    gLastError = row.text;
    EXPECT_EQ(BuildStateJson(),
              StateText("disconnected", "null", "null", R"("rxBytes":0,"txBytes":0)", row.shown));
  }
}

TEST(BuildStateJson, LooksAtNeitherSessionNorControlPlane) {
  sim::Machine machine;
  WireSubsystems();
  sim::UseControlPlane();
  PutSession("access-1", 10);
  BuildStateJson();
  EXPECT_EQ(sim::HttpRequests().size(), 0u);
  EXPECT_EQ(sim::CountCalls("CreateFileW", "session.dat"), 0u);
}

// ---- GET /ui/status ----

struct Status {
  std::string auth = "AUTH_OK";
  std::string error = "null";
  std::string tunnel = "DISCONNECTED";
  std::string bytes = R"("rx_bytes":0,"tx_bytes":0)";
  std::string ip = "null";
  std::string id = "null";
  std::string server = "null";
};
std::string StatusText(const Status& status) {
  return R"({"auth_state":")" + status.auth + R"(","last_error":)" + status.error + R"(,"tunnel_status":")" +
         status.tunnel + R"(","protocol":"WireGuard",)" + status.bytes + R"(,"public_ip":)" + status.ip +
         R"(,"selected_server_id":)" + status.id + R"(,"selected_server":)" + status.server + "}";
}

std::string NoSession() {
  return std::string("\"") + kNoSession + "\"";
}

TEST(BuildStatusJson, ShowsAFreshMachine) {
  sim::Machine machine;
  WireSubsystems();
  EXPECT_EQ(BuildStatusJson(),
            R"({"auth_state":"AUTH_REQUIRED","last_error":"no session: )"
            R"(C:\\ProgramData\\TELVOR\\auth\\session.dat","tunnel_status":"DISCONNECTED",)"
            R"("protocol":"WireGuard","rx_bytes":0,"tx_bytes":0,"public_ip":null,)"
            R"("selected_server_id":null,"selected_server":null})");
}

TEST(BuildStatusJson, IsTheResultOfTheMethod) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-1", 3600);
  EXPECT_EQ(Call("GET /ui/status"), ResultText(StatusText({})));
  EXPECT_EQ(sim::HttpRequests().size(), 0u);
}

TEST(BuildStatusJson, HasAWordForEachStatus) {
  const struct {
    int32_t status;
    std::string word;
  } rows[] = {{0, "DISCONNECTED"},  {1, "CONNECTING"},   {3, "ERROR"},
              {-1, "DISCONNECTED"}, {4, "DISCONNECTED"}, {INT32_MIN, "DISCONNECTED"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.status);
    sim::Machine machine;
    WireSubsystems();
    ShowTraffic();
    PutSession("access-1", 3600);
    gTunnelStatus = row.status;
    EXPECT_EQ(BuildStatusJson(), StatusText({.tunnel = row.word}));
    EXPECT_EQ(sim::StartedProcesses().size(), 0u);
  }
}

TEST(BuildStatusJson, CountsBytesWhileConnected) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-1", 3600);
  gTunnelStatus = kStatusConnected;
  ShowTraffic();
  EXPECT_EQ(BuildStatusJson(),
            StatusText({.tunnel = "CONNECTED", .bytes = R"("rx_bytes":300,"tx_bytes":4000)"}));
  ShowTraffic(1);
  EXPECT_EQ(BuildStatusJson(), StatusText({.tunnel = "CONNECTED"}));
}

TEST(BuildStatusJson, ReadsTheStatusOnceBehindTheTokenStep) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-1", 3600);
  gTunnelStatus = kStatusConnected;
  ShowTraffic();
  sim::Before("CreateProcessW", [] { gTunnelStatus = kStatusError; });
  EXPECT_EQ(BuildStatusJson(),
            StatusText({.tunnel = "CONNECTED", .bytes = R"("rx_bytes":300,"tx_bytes":4000)"}));
}

// ---- Authentication ----

TEST(BuildStatusJson, RefreshesAtTheBuiltInUrl) {
  sim::Machine machine;
  WireSubsystems();
  sim::UseControlPlane();
  gCpBaseUrl = kOther;
  PutSession("access-0", 10);
  EXPECT_EQ(BuildStatusJson(), StatusText({}));
  ASSERT_EQ(sim::HttpRequests().size(), 1u);
  EXPECT_EQ(sim::HttpRequests()[0].host, L"cp.telvor.test");
  EXPECT_EQ(sim::HttpRequests()[0].port, 8443);
  EXPECT_EQ(sim::HttpRequests()[0].path8, "/v1/auth/refresh");
}

TEST(BuildStatusJson, CountsACachedTokenThatCannotBeRefreshedAsAuthOk) {
  sim::Machine machine;
  WireSubsystems();
  gCachedAccessToken = L"access-0";
  EXPECT_EQ(BuildStatusJson(), StatusText({.error = NoSession()}));
  sim::SetHttpHandler([](const sim::HttpRequest&) {
    return sim::HttpResponse{.status = 400, .body = R"({"error":"refresh_expired"})"};
  });
  PutSession("access-0", 10);
  EXPECT_EQ(BuildStatusJson(), StatusText({.error = R"("SESSION_EXPIRED")"}));
}

TEST(BuildStatusJson, RequiresAuthenticationAfterAFailedRefreshWithoutAToken) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-0", 10);
  EXPECT_EQ(BuildStatusJson(),
            StatusText({.auth = "AUTH_REQUIRED", .error = R"("refresh transport failure")"}));
}

TEST(BuildStatusJson, PrefersTheLastErrorToTheTokenSteps) {
  sim::Machine machine;
  WireSubsystems();
  gLastError = L" AUTH_REQUIRED ";
  EXPECT_EQ(BuildStatusJson(), StatusText({.auth = "AUTH_REQUIRED", .error = R"("AUTH_REQUIRED")"}));
  gLastError = L" \t ";
  EXPECT_EQ(BuildStatusJson(), StatusText({.auth = "AUTH_REQUIRED", .error = NoSession()}));
  PutSession("access-1", 3600);
  EXPECT_EQ(BuildStatusJson(), StatusText({}));
}

// ---- The selected server ----

ServerRecord Server(const std::string& id, const std::string& ip) {
  ServerRecord server;
  server.id = id;
  server.public_egress_ip = ip;
  return server;
}

std::string ServerText(const std::string& id) {
  return R"({"id":")" + id +
         R"(","name":"","country":"","city":"","lat":0.000000,"lon":0.000000,"online":false,)"
         R"("last_seen_at":null})";
}

TEST(BuildStatusJson, ShowsTheSelectedServerOfTheCatalogueWhateverTheTunnelDoes) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-1", 3600);
  gUiServers = {Server("a", "192.0.2.1"), Server("b", "192.0.2.2"), Server("b", "192.0.2.3")};
  gSelectedServerId = "b";
  EXPECT_EQ(BuildStatusJson(),
            StatusText({.ip = R"("192.0.2.2")", .id = R"("b")", .server = ServerText("b")}));
}

TEST(BuildStatusJson, ShowsTheAddressOfAnAssignedServerThatIsNotInTheCatalogue) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-1", 3600);
  gUiServers = {Server("a", "192.0.2.1")};
  gSelectedServerId = "x";
  gSelectedServer = Server("x", "192.0.2.9");
  gSelectedServerValid = true;
  EXPECT_EQ(BuildStatusJson(), StatusText({.ip = R"("192.0.2.9")", .id = R"("x")"}));
}

TEST(BuildStatusJson, LooksTheTwoServersUpDifferently) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-1", 3600);
  gUiServers = {Server("a", "192.0.2.1")};
  gSelectedServerId = "a";
  gSelectedServer = Server("a", "192.0.2.9");
  gSelectedServerValid = true;
  EXPECT_EQ(BuildStatusJson(),
            StatusText({.ip = R"("192.0.2.9")", .id = R"("a")", .server = ServerText("a")}));
  gSelectedServerValid = false;
  EXPECT_EQ(BuildStatusJson(),
            StatusText({.ip = R"("192.0.2.1")", .id = R"("a")", .server = ServerText("a")}));
}

TEST(BuildStatusJson, ShowsAnUnknownSelectionById) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-1", 3600);
  gUiServers = {Server("a", "192.0.2.1")};
  gSelectedServerId = "gone\"";
  EXPECT_EQ(BuildStatusJson(), StatusText({.id = R"("gone\"")"}));
}

TEST(BuildStatusJson, ShowsNoServerWithoutASelection) {
  sim::Machine machine;
  WireSubsystems();
  PutSession("access-1", 3600);
  gUiServers = {Server("a", "192.0.2.1")};
  EXPECT_EQ(BuildStatusJson(), StatusText({}));
  // A valid record counts even then.
  gSelectedServer = Server("x", "192.0.2.9");
  gSelectedServerValid = true;
  EXPECT_EQ(BuildStatusJson(), StatusText({.ip = R"("192.0.2.9")"}));
}

}  // namespace
