// Bootstrap as a whole: what a run asks, writes, logs and leaves behind; its folders; its look at the
// network.
#include "controlplane/base_url.h"
#include "tests/engine/bootstrap_fixture.h"

namespace {

Lines CallsOf(const std::string& operation, const std::string& argumentsContain = "") {
  Lines arguments;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    const bool fits = entry.arguments.find(argumentsContain) != std::string::npos;
    if (entry.operation == operation && fits) arguments.push_back(entry.arguments);
  }
  return arguments;
}

// No mutex of the process may be held across a request: each can be taken while one is served.
void TakeEveryLock() {
  for (platform::Mutex* mutex : {&gLastErrorMutex, &gBypassMutex, &gUiLock, &gSessionMutex}) {
    const std::lock_guard lock(*mutex);
  }
}

TEST(Bootstrap, AsksForEverythingInOrder) {
  BootstrapRun run;
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Sent(), (Lines{kLocations, kRegister, kUploadKey, kSelect, kProfile}));
  EXPECT_EQ(SentBearers(), Lines(5, "access-1"));
  EXPECT_EQ(SentBody(kRegister),
            R"({"device_id":"desktop-ab12","name":"desktop-ab12","platform":"windows"})");
  EXPECT_EQ(SentBody(kUploadKey), R"({"wg_public_key":"PUBLIC="})");
  EXPECT_EQ(SentBody(kSelect), R"({"wg_server_id":"srv-a"})");
  for (const sim::HttpRequest& request : sim::HttpRequests()) {
    EXPECT_EQ(request.host, kControlPlaneHost);
    EXPECT_EQ(request.port, 8443);
    EXPECT_TRUE(request.secure);
  }
}

TEST(Bootstrap, LogsItsSteps) {
  BootstrapRun run;
  EXPECT_TRUE(Bootstrap());
  const Lines expected = {
      "Bootstrap: CP base URL = https://cp.telvor.test:8443",
      std::string("HTTP GET status=200 body-head=") + kTwoServers,
      "[CP] server_id=srv-a city=Oslo public_egress_ip=192.0.2.10",
      "[CP] server_id=srv-b city=Paris public_egress_ip=192.0.2.20",
      "[CP] /v1/servers/locations parsed servers=2",
      "EnsureDeviceRegistered: ok (201)",
      "[CP REQUEST] access_len=8",
      "EnsureWgKeyUploaded: ok (200)",
      "Bootstrap: device_id = desktop-ab12",
      "Bootstrap: selecting server_id=srv-a (persisting to CP)",
      "[CP REQUEST] access_len=8",
      "HTTP GET status=200 body-head=" + std::string(kFullProfile).substr(0, 400),
      "Bootstrap: writing wg conf to ProgramData...",
      "Bootstrap: wg conf created/updated.",
  };
  EXPECT_EQ(sim::LogLines(), expected);
}

TEST(Bootstrap, WritesTheConfiguration) {
  BootstrapRun run;
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Config(), kFullConfig);
  EXPECT_FALSE(sim::FileExists(std::wstring(kTunnelConfigFile) + L".tmp"));
}

TEST(Bootstrap, ReplacesTheConfigurationAtEachRunByTheSameBytes) {
  BootstrapRun run;
  EXPECT_TRUE(Bootstrap());
  const auto first = Config();
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Config(), first);
  EXPECT_EQ(CallsOf("MoveFileExW", "telvor.conf.tmp"),
            Lines(2, R"(from="C:\ProgramData\TELVOR\wg\telvor.conf.tmp" )"
                     R"(to="C:\ProgramData\TELVOR\wg\telvor.conf" flags=9)"));
  EXPECT_EQ(Sent().size(), 10u);
}

TEST(Bootstrap, LeavesTheSharedStateOfASuccess) {
  BootstrapRun run;
  gAuthRequired = true;
  gLastError = L"HANDSHAKE_TIMEOUT";
  gTunnelDesired = 1;
  gTunnelStatus = 1;
  gTunnelEpoch = 7;
  EXPECT_TRUE(Bootstrap());
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(LastErrorText(), "HANDSHAKE_TIMEOUT");
  EXPECT_EQ(gTunnelDesired, 1);
  EXPECT_EQ(gTunnelStatus, 1);
  EXPECT_EQ(gTunnelEpoch, 7u);
  ASSERT_EQ(gUiServers.size(), 2u);
  EXPECT_EQ(gUiServers[1].id, "srv-b");
  EXPECT_EQ(SelectedServer(), "srv-a");
  EXPECT_FALSE(gSelectedServerValid);
}

TEST(Bootstrap, MakesKeysAndDeviceIdWhereThereAreNone) {
  BootstrapRun run;
  sim::RemoveFile(kPrivateKeyFile);
  sim::RemoveFile(kPublicKeyFile);
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(sim::FileBytes(kDeviceIdFile), "desktop-ab12\r\n");
  const std::string privateKey = sim::FileBytes(kPrivateKeyFile).value_or("");
  const std::string publicKey = sim::FileBytes(kPublicKeyFile).value_or("");
  ASSERT_EQ(privateKey.size(), 46u);
  ASSERT_EQ(publicKey.size(), 46u);
  EXPECT_EQ(SentBody(kUploadKey), "{\"wg_public_key\":\"" + publicKey.substr(0, 44) + "\"}");
  EXPECT_TRUE(Config()->starts_with("[Interface]\r\nPrivateKey = " + privateKey));
}

TEST(Bootstrap, HoldsNoLockAcrossARequest) {
  BootstrapRun run;
  size_t served = 0;
  for (const char* request : {kLocations, kRegister, kUploadKey, kSelect, kProfile, kRefresh}) {
    run.OnRequest(request, [&served] {
      TakeEveryLock();
      ++served;
    });
  }
  StoreSession("access-1", 299);
  run.AnswerTo(kRefresh, {Answer(200, R"({"access_token":"access-2","expires_at":1767229200})")});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(served, 6u);
}

// ---- Folders and rights ----

TEST(BootstrapFolders, AreMadeInOrder) {
  BootstrapRun run;
  sim::RemoveFolder(kDataRoot);
  EXPECT_FALSE(Bootstrap());
  const Lines made = CallsOf("CreateDirectoryW", "TELVOR");
  ASSERT_GE(made.size(), 3u);
  EXPECT_EQ(made[0], R"(path="C:\ProgramData\TELVOR")");
  EXPECT_EQ(made[1], R"(path="C:\ProgramData\TELVOR\wg")");
  EXPECT_EQ(made[2], R"(path="C:\ProgramData\TELVOR\auth")");
}

TEST(BootstrapFolders, GetTheirRightsAtEachRun) {
  BootstrapRun run;
  sim::RemoveFolder(kDataRoot);
  StoreSession("access-1");
  EXPECT_TRUE(Bootstrap());
  Lines granted;
  for (const sim::Grant& grant : sim::Grants()) granted.push_back(sim::Narrow(grant.path));
  // The root for the new folder wg, then the whole tree as it stands: each folder as an entry of the one
  // above, and again as the top of its own walk.
  EXPECT_EQ(granted,
            (Lines{R"(C:\ProgramData\TELVOR)", R"(C:\ProgramData\TELVOR)", R"(C:\ProgramData\TELVOR\auth)",
                   R"(C:\ProgramData\TELVOR\auth)", R"(C:\ProgramData\TELVOR\auth\session.dat)",
                   R"(C:\ProgramData\TELVOR\wg)", R"(C:\ProgramData\TELVOR\wg)"}));
  const size_t before = granted.size();
  EXPECT_TRUE(Bootstrap());
  // Now with the key files, the device id and its copy, and the configuration.
  EXPECT_EQ(sim::Grants().size() - before, 11u);
}

TEST(BootstrapFolders, AFailureEndsTheRunWithoutAWord) {
  for (const std::string name : {R"(TELVOR")", R"(TELVOR\wg")", R"(TELVOR\auth")"}) {
    for (const bool required : {false, true}) {
      SCOPED_TRACE(name);
      BootstrapRun run;
      sim::RemoveFolder(kDataRoot);
      gAuthRequired = required;
      gLastError = L"AUTH_REQUIRED";
      sim::Fail({.operation = "CreateDirectoryW", .code = 5, .times = UINT32_MAX, .argumentsContain = name});
      EXPECT_FALSE(Bootstrap());
      EXPECT_EQ(sim::LogBytes(), "");
      EXPECT_EQ(gAuthRequired, required);
      EXPECT_EQ(LastErrorText(), "AUTH_REQUIRED");
      EXPECT_TRUE(Sent().empty());
    }
  }
}

// ---- The network ----

TEST(BootstrapNetwork, NormalisesTheBaseUrlWhenTheHostResolves) {
  BootstrapRun run;
  gCpBaseUrl = L"https://other.test/path";
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(gCpBaseUrl, L"https://cp.telvor.test:8443");
  EXPECT_EQ(sim::LookupCount(kControlPlaneHost), 1u);
  EXPECT_EQ(sim::CountCalls("Sleep"), 0u);
}

TEST(BootstrapNetwork, LooksTheHostUpAgainAfterGrowingPauses) {
  BootstrapRun run;
  sim::SetHostSequence(kControlPlaneHost, {{}, {}, {}, {}, {"10.99.0.1"}});
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(CallsOf("Sleep"),
            (Lines{"milliseconds=250", "milliseconds=500", "milliseconds=750", "milliseconds=1000"}));
  EXPECT_EQ(sim::LookupCount(kControlPlaneHost), 5u);
}

TEST(BootstrapNetwork, GoesOnWithoutANetworkUntilTheRegistrationFails) {
  BootstrapRun run;
  sim::SetHost(kControlPlaneHost, {});
  sim::SetHttpHandler(nullptr);
  gCpBaseUrl = L"https://other.test/path";
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(CallsOf("Sleep"), (Lines{"milliseconds=250", "milliseconds=500", "milliseconds=750",
                                     "milliseconds=1000", "milliseconds=1250"}));
  EXPECT_EQ(sim::LookupCount(kControlPlaneHost), 5u);
  EXPECT_EQ(gCpBaseUrl, L"https://other.test/path");
  EXPECT_FALSE(gAuthRequired);
  EXPECT_TRUE(
      sim::LogHas("WinHttpSendRequest FAILED gle=12029 host=cp.telvor.test port=8443 "
                  "path=/v1/servers/locations headers=Accept: application/json\r"));
  Lines lines = sim::LogLines();
  // The failed calls of the transport tell their headers, each on a line of its own.
  std::erase_if(lines, [](const std::string& line) {
    return line.empty() || line.find("12029") != std::string::npos || line.starts_with("Authorization: ");
  });
  EXPECT_EQ(
      lines,
      (Lines{"Bootstrap: CP base URL = https://cp.telvor.test:8443",
             "CpGetServerLocations: HTTP 0 head=", "Bootstrap: CpGetServerLocations failed (non-fatal).",
             "EnsureDeviceRegistered: failed (transport)", "Bootstrap: EnsureDeviceRegistered failed"}));
}

TEST(BootstrapNetwork, TalksToTheBuiltInUrlWhateverTheAccountCallsUse) {
  BootstrapRun run;
  sim::SetHost(kControlPlaneHost, {});
  gCpBaseUrl = L"https://other.test";
  EXPECT_TRUE(Bootstrap());
  for (const sim::HttpRequest& request : sim::HttpRequests()) EXPECT_EQ(request.host, kControlPlaneHost);
}

}  // namespace
