// Bootstrap's reading of the tunnel profile, the choice of the peer, and the writing of telvor.conf.
#include "tests/engine/bootstrap_fixture.h"

namespace {

constexpr char kNoPeer[] = "Bootstrap: could not select server_public_key/endpoint from wg-profile response";
constexpr char kNoAllowedIps[] =
    "Bootstrap: allowed_ips missing; defaulting to 10.8.0.0/24 (bootstrap-safe).";
constexpr char kNoDns[] = "Bootstrap: DNS missing; skipping (bootstrap-safe).";

constexpr char kServers[] =
    R"("servers":[{"server_id":"a","endpoint":"a.test:1","server_public_key":"KEYA="},)"
    R"({"server_id":"b","endpoint":"b.test:2","server_public_key":"KEYB="}])";

// A profile with an address, these fields, and the servers behind them.
std::string Profile(const std::string& fields, const std::string& servers = kServers) {
  return R"({"client_address":"10.8.0.2/32",)" + fields + servers + "}";
}

std::string ConfigLine(const std::string& name) {
  const std::string text = Config().value_or("");
  const size_t begin = text.find(name + " = ");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find("\r\n", begin) - begin);
}

// The endpoint that a profile of this body leads to; empty if the run fails.
std::string EndpointOf(const std::string& body) {
  BootstrapRun run;
  run.GiveProfile(body);
  if (!Bootstrap()) {
    EXPECT_EQ(LastLine(), kNoPeer) << body;
    return "";
  }
  const std::string key = ConfigLine("PublicKey");
  return ConfigLine("Endpoint").substr(11) + " " + key.substr(12);
}

// ---- Answers that are no profile ----

TEST(BootstrapProfile, TakesOnly200) {
  for (const uint32_t status : {201u, 204u, 400u, 403u, 404u, 500u}) {
    SCOPED_TRACE(status);
    BootstrapRun run;
    run.AnswerTo(kProfile, {Answer(status, kFullProfile)});
    EXPECT_FALSE(Bootstrap());
    EXPECT_EQ(Sent().size(), 5u);
    EXPECT_EQ(LastLine(), "Bootstrap: wg-profile HTTP " + std::to_string(status) +
                              " head=" + std::string(kFullProfile).substr(0, 200));
    EXPECT_FALSE(gAuthRequired);
  }
}

TEST(BootstrapProfile, AnEmptyAnswerHasAnEmptyHead) {
  BootstrapRun run;
  run.AnswerTo(kProfile, {Answer(204)});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(LastLine(), "Bootstrap: wg-profile HTTP 204 head=");
}

TEST(BootstrapProfile, NoAnswerHasStatusZero) {
  BootstrapRun run;
  run.AnswerTo(kProfile, {NoAnswer()});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(LastLine(), "Bootstrap: wg-profile HTTP 0 head=");
  EXPECT_EQ(Sent().size(), 5u);
}

TEST(BootstrapProfile, AHeadThatSplitsACharacterIsBlank) {
  BootstrapRun run;
  run.AnswerTo(kProfile, {Answer(500, std::string(199, 'x') + "\xC3\xA9")});
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(LastLine(), "Bootstrap: wg-profile HTTP 500 head=");
}

TEST(BootstrapProfile, NeedsAClientAddress) {
  for (const char* body : {"", "not json", R"({"client_address":)",
                           R"({"servers":[{"endpoint":"a","server_public_key":"b"}]})"}) {
    SCOPED_TRACE(body);
    BootstrapRun run;
    run.GiveProfile(body);
    EXPECT_FALSE(Bootstrap());
    EXPECT_EQ(LastLine(), "Bootstrap: missing client_address in wg-profile response");
    EXPECT_FALSE(Config().has_value());
  }
}

// The reader finds an empty text too.
TEST(BootstrapProfile, TakesAnEmptyClientAddress) {
  BootstrapRun run;
  run.GiveProfile("{\"client_address\":\"\"," + std::string(kServers) + "}");
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(ConfigLine("Address"), "Address = ");
}

// ---- The peer ----

TEST(BootstrapPeer, IsTheAssignedEntry) {
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"b",)")), "b.test:2 KEYB=");
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"a",)")), "a.test:1 KEYA=");
}

TEST(BootstrapPeer, IsTheFirstEntryWithoutAnAssignment) {
  EXPECT_EQ(EndpointOf(Profile("")), "a.test:1 KEYA=");
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"",)")), "a.test:1 KEYA=");
}

TEST(BootstrapPeer, IsTheFirstEntryWhenTheAssignedOneIsMissing) {
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"c",)")), "a.test:1 KEYA=");
}

// The id is searched for byte for byte: a blank behind the colon or a number hides the entry.
TEST(BootstrapPeer, MissesAnEntryThatIsWrittenOtherwise) {
  const std::string blank =
      R"("servers":[{"server_id":"a","endpoint":"a.test:1","server_public_key":"KEYA="},)"
      R"({"server_id": "b","endpoint":"b.test:2","server_public_key":"KEYB="}])";
  const std::string number =
      R"("servers":[{"server_id":1,"endpoint":"a.test:1","server_public_key":"KEYA="},)"
      R"({"server_id":2,"endpoint":"b.test:2","server_public_key":"KEYB="}])";
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"b",)", blank)), "a.test:1 KEYA=");
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"2",)", number)), "a.test:1 KEYA=");
}

// The readers are flat: a field that the assigned entry lacks comes from the next one.
TEST(BootstrapPeer, TakesAMissingFieldFromALaterEntry) {
  const std::string servers = R"("servers":[{"server_id":"a","endpoint":"a.test:1"},)"
                              R"({"server_id":"b","endpoint":"b.test:2","server_public_key":"KEYB="}])";
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"a",)", servers)), "a.test:1 KEYB=");
}

// When the assigned entry leaves a field open, both are read afresh from the first entry.
TEST(BootstrapPeer, ReplacesBothFieldsByTheFirstEntrys) {
  const std::string servers =
      R"("servers":[{"server_id":"a","endpoint":"a.test:1","server_public_key":"KEYA="},)"
      R"({"server_id":"b","endpoint":"b.test:2"}])";
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"b",)", servers)), "a.test:1 KEYA=");
}

TEST(BootstrapPeer, DoesNotTakeTopLevelFieldsInFrontOfTheServers) {
  const std::string top = R"("endpoint":"top.test:9","server_public_key":"TOP=",)";
  EXPECT_EQ(EndpointOf(Profile(top)), "a.test:1 KEYA=");
  EXPECT_EQ(EndpointOf(Profile(R"("endpoint":"top.test:9","server_public_key":"TOP=")", "")), "");
}

// The assigned id may be found anywhere, so a profile needs no array for it.
TEST(BootstrapPeer, NeedsNoServersWhenTheAssignedIdIsFound) {
  EXPECT_EQ(EndpointOf(Profile(R"("assigned_server_id":"a",)",
                               R"("peer":{"server_id":"a","endpoint":"p.test:3","server_public_key":"P="})")),
            "p.test:3 P=");
}

TEST(BootstrapPeer, MustHaveBothFields) {
  EXPECT_EQ(EndpointOf(Profile("", R"("servers":[])")), "");
  EXPECT_EQ(EndpointOf(Profile("", R"("servers":[{"endpoint":"a.test:1"}])")), "");
  EXPECT_EQ(EndpointOf(Profile("", R"("servers":[{"endpoint":"","server_public_key":"KEYA="}])")), "");
  EXPECT_EQ(EndpointOf(Profile("", R"("servers":[{"server_public_key":"KEYA="}])")), "");
}

// ---- Lists and keepalive ----

TEST(BootstrapProfile, WithoutAllowedIpsGetsTheDefault) {
  for (const char* fields : {"", R"("allowed_ips":[],)", R"("allowed_ips":[1],)"}) {
    SCOPED_TRACE(fields);
    BootstrapRun run;
    run.GiveProfile(Profile(std::string(fields) + R"("dns":["1.1.1.1"],)"));
    EXPECT_TRUE(Bootstrap());
    EXPECT_EQ(ConfigLine("AllowedIPs"), "AllowedIPs = 10.8.0.0/24");
    EXPECT_TRUE(sim::LogHas(kNoAllowedIps));
    EXPECT_FALSE(sim::LogHas(kNoDns));
  }
}

TEST(BootstrapProfile, WithoutDnsGetsNoDnsLine) {
  for (const char* fields : {"", R"("dns":[],)"}) {
    SCOPED_TRACE(fields);
    BootstrapRun run;
    run.GiveProfile(Profile(std::string(fields) + R"("allowed_ips":["0.0.0.0/0"],)"));
    EXPECT_TRUE(Bootstrap());
    EXPECT_EQ(ConfigLine("DNS"), "");
    EXPECT_TRUE(sim::LogHas(kNoDns));
    EXPECT_FALSE(sim::LogHas(kNoAllowedIps));
  }
}

TEST(BootstrapProfile, SaysWhatIsMissingInThisOrder) {
  BootstrapRun run;
  run.GiveProfile(Profile(""));
  EXPECT_TRUE(Bootstrap());
  const Lines lines = sim::LogLines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
            (Lines{kNoAllowedIps, kNoDns, "Bootstrap: writing wg conf to ProgramData...",
                   "Bootstrap: wg conf created/updated."}));
}

// The reader clears its output before it looks, so a profile without the field gives 0.
TEST(BootstrapProfile, TheKeepaliveIsTheProfilesOrZero) {
  const std::pair<const char*, const char*> cases[] = {{R"("persistent_keepalive":25,)", "25"},
                                                       {R"("persistent_keepalive": 15,)", "15"},
                                                       {"", "0"},
                                                       {R"("persistent_keepalive":null,)", "0"},
                                                       {R"("persistent_keepalive":-1,)", "4294967295"}};
  for (const auto& [field, value] : cases) {
    SCOPED_TRACE(field);
    BootstrapRun run;
    run.GiveProfile(Profile(field));
    EXPECT_TRUE(Bootstrap());
    EXPECT_TRUE(Config()->ends_with("\r\nPersistentKeepalive = " + std::string(value) + "\r\n"));
  }
}

// ---- The file ----

TEST(BootstrapConfig, AFailedWriteKeepsTheOldFile) {
  for (const char* operation : {"CreateFileW", "WriteFile", "MoveFileExW"}) {
    SCOPED_TRACE(operation);
    BootstrapRun run;
    sim::PutFile(kTunnelConfigFile, "old");
    const bool byHandle = std::string(operation) == "WriteFile";
    sim::Fail(
        {.operation = operation, .code = 112, .argumentsContain = byHandle ? "[Interface]" : "telvor.conf"});
    EXPECT_FALSE(Bootstrap());
    EXPECT_EQ(Config(), "old");
    EXPECT_FALSE(sim::FileExists(std::wstring(kTunnelConfigFile) + L".tmp"));
    const Lines lines = sim::LogLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
              (Lines{"Bootstrap: writing wg conf to ProgramData...", "Bootstrap: failed writing wg conf"}));
    EXPECT_FALSE(gAuthRequired);
  }
}

// Every way out but the last one, on a machine that has had a connection.
const struct {
  const char* name;
  void (*spoil)(BootstrapRun& run);
  const char* lastError = "HANDSHAKE_TIMEOUT";  // behind the run; before it, this one
  bool authRequired = false;                    // behind the run; before it, true
} kWaysOut[] = {
    {"folder",
     [](BootstrapRun&) {
       sim::Fail({.operation = "CreateDirectoryW", .code = 5, .argumentsContain = "TELVOR\\wg"});
     },
     "HANDSHAKE_TIMEOUT", true},
    {"token", [](BootstrapRun&) { sim::RemoveFile(kSessionFile); }, "AUTH_REQUIRED", true},
    {"private key",
     [](BootstrapRun&) {
       sim::RemoveFile(kPrivateKeyFile);
       sim::Fail({.operation = "BCryptGenRandom", .code = 5});
     }},
    {"public key",
     [](BootstrapRun&) {
       sim::PutFile(kPrivateKeyFile, "AAAA");
       sim::RemoveFile(kPublicKeyFile);
     }},
    {"device id", [](BootstrapRun&) { sim::Fail({.operation = "GetComputerNameW", .code = 5}); }},
    {"registration", [](BootstrapRun& run) { run.AnswerTo(kRegister, {Answer(409)}); }},
    {"key upload", [](BootstrapRun& run) { run.AnswerTo(kUploadKey, {Answer(500)}); }},
    {"profile", [](BootstrapRun& run) { run.AnswerTo(kProfile, {Answer(500)}); }},
    {"address", [](BootstrapRun& run) { run.GiveProfile("{}"); }},
    {"peer", [](BootstrapRun& run) { run.GiveProfile(R"({"client_address":"10.8.0.2/32"})"); }},
};

TEST(BootstrapConfig, StaysAsItWasWhereverTheRunEnds) {
  for (const auto& way : kWaysOut) {
    SCOPED_TRACE(way.name);
    BootstrapRun run;
    sim::PutFile(kTunnelConfigFile, "old");
    gLastError = L"HANDSHAKE_TIMEOUT";
    gAuthRequired = true;
    way.spoil(run);
    EXPECT_FALSE(Bootstrap());
    EXPECT_EQ(Config(), "old");
    EXPECT_EQ(LastErrorText(), way.lastError);
    EXPECT_EQ(gAuthRequired, way.authRequired);
  }
}

TEST(BootstrapConfig, AFileThatIsHeldOpenFailsTheRun) {
  BootstrapRun run;
  sim::PutFile(kTunnelConfigFile, "old");
  sim::HoldFile(std::wstring(kTunnelConfigFile) + L".tmp");
  EXPECT_FALSE(Bootstrap());
  EXPECT_EQ(LastLine(), "Bootstrap: failed writing wg conf");
  EXPECT_EQ(Config(), "old");
  sim::ReleaseFile(std::wstring(kTunnelConfigFile) + L".tmp");
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Config(), kFullConfig);
}

TEST(BootstrapConfig, AStaleTemporaryFileIsOverwritten) {
  BootstrapRun run;
  sim::PutFile(std::wstring(kTunnelConfigFile) + L".tmp", std::string(5000, 'x'));
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(Config(), kFullConfig);
}

// Nothing serialises two runs: they meet at the temporary file, where one and in bad luck both fail. The file
// is whole or not there all the same.
TEST(BootstrapConfig, TwoRunsAtOnceLeaveAWholeFile) {
  size_t bothWell = 0;
  for (uint64_t seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    BootstrapRun run({.seed = seed});
    sim::PutFile(kDeviceIdFile, "desktop-ab12\r\n");
    sim::PutFile(std::wstring(kDeviceIdFile) + L".protected", sim::Seal("desktop-ab12"));
    std::vector<bool> results;
    for (const char* name : {"one", "two"}) {
      sim::StartThread(name, [&results] { results.push_back(Bootstrap()); });
    }
    ASSERT_TRUE(sim::RunUntil([&results] { return results.size() == 2; }, 60'000));
    const size_t well = static_cast<size_t>(results[0]) + static_cast<size_t>(results[1]);
    EXPECT_EQ(sim::LogCount("Bootstrap: failed writing wg conf"), 2 - well);
    EXPECT_EQ(Config().value_or(kFullConfig), kFullConfig);
    EXPECT_EQ(Config().has_value(), well > 0);
    if (well == 2) ++bothWell;
  }
  EXPECT_GT(bothWell, 0u);
}

}  // namespace
