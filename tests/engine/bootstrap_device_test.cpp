// Bootstrap's keys and device: each step that fails ends the run with its own line, and nothing after it is
// asked.
#include "tests/engine/bootstrap_fixture.h"

namespace {

void ExpectEnd(const std::string& line, const Lines& sent) {
  EXPECT_EQ(LastLine(), line);
  EXPECT_EQ(Sent(), sent);
  EXPECT_FALSE(gAuthRequired);
  EXPECT_EQ(LastErrorText(), "");
  EXPECT_FALSE(Config().has_value());
}

TEST(BootstrapKeys, APrivateKeyThatCannotBeMadeEndsTheRun) {
  BootstrapRun run;
  sim::RemoveFile(kPrivateKeyFile);
  sim::Fail({.operation = "BCryptGenRandom", .code = 5});
  EXPECT_FALSE(Bootstrap());
  ExpectEnd("Bootstrap: wg private key failed", {kLocations});
}

TEST(BootstrapKeys, APublicKeyThatCannotBeDerivedEndsTheRun) {
  BootstrapRun run;
  sim::PutFile(kPrivateKeyFile, "AAAA");
  sim::RemoveFile(kPublicKeyFile);
  EXPECT_FALSE(Bootstrap());
  EXPECT_TRUE(sim::LogHas("DeriveWgPublicKeyB64FromPrivateB64 failed: Private key decoded length != 32"));
  ExpectEnd("Bootstrap: wg public key failed", {kLocations});
}

// The two files are not compared: a pair that does not belong together is used as it stands.
TEST(BootstrapKeys, AreTakenAsTheyStand) {
  BootstrapRun run;
  sim::PutFile(kPrivateKeyFile, " \t one \r\n");
  sim::PutFile(kPublicKeyFile, "two");
  EXPECT_TRUE(Bootstrap());
  EXPECT_EQ(SentBody(kUploadKey), R"({"wg_public_key":"two"})");
  EXPECT_TRUE(Config()->starts_with("[Interface]\r\nPrivateKey = one\r\n"));
}

TEST(BootstrapDevice, AnIdThatCannotBeMadeEndsTheRun) {
  BootstrapRun run;
  sim::Fail({.operation = "GetComputerNameW", .code = 5});
  EXPECT_FALSE(Bootstrap());
  EXPECT_TRUE(sim::LogHas("LoadOrCreateDeviceId: GetComputerNameW failed"));
  ExpectEnd("Bootstrap: failed to load/create device_id.txt", {kLocations});
}

TEST(BootstrapDevice, AnIdSealedElsewhereEndsTheRun) {
  BootstrapRun run;
  sim::PutFile(kDeviceIdFile, "desktop-ab12\r\n");
  sim::PutFile(std::wstring(kDeviceIdFile) + L".protected", sim::SealElsewhere("desktop-ab12"));
  EXPECT_FALSE(Bootstrap());
  ExpectEnd("Bootstrap: failed to load/create device_id.txt", {kLocations});
}

TEST(BootstrapDevice, ARefusedRegistrationEndsTheRun) {
  BootstrapRun run;
  run.AnswerTo(kRegister, {Answer(409, "taken")});
  EXPECT_FALSE(Bootstrap());
  EXPECT_TRUE(sim::LogHas("EnsureDeviceRegistered: HTTP 409 head=taken"));
  ExpectEnd("Bootstrap: EnsureDeviceRegistered failed", {kLocations, kRegister});
}

TEST(BootstrapDevice, ARefusedKeyEndsTheRun) {
  for (const uint32_t status : {201u, 204u, 500u}) {
    SCOPED_TRACE(status);
    BootstrapRun run;
    run.AnswerTo(kUploadKey, {Answer(status)});
    EXPECT_FALSE(Bootstrap());
    ExpectEnd("Bootstrap: EnsureWgKeyUploaded failed", {kLocations, kRegister, kUploadKey});
  }
}

// The name of the machine is only asked for when no id is stored.
TEST(BootstrapDevice, AStoredIdOutlivesARenaming) {
  BootstrapRun run;
  EXPECT_TRUE(Bootstrap());
  sim::SetComputerName(L"OTHER");
  EXPECT_TRUE(Bootstrap());
  EXPECT_TRUE(sim::LogHas("Bootstrap: device_id = desktop-ab12"));
  EXPECT_EQ(sim::LogCount("other"), 0u);
}

TEST(BootstrapDevice, UsesTheIdInLowerCaseFromTheSelectionOn) {
  BootstrapRun run;
  sim::PutFile(kDeviceIdFile, " My-PC\r\n");
  run.AnswerTo("PUT /v1/devices/My-PC/wg-key", {Answer(200)});
  run.AnswerTo("PUT /v1/devices/my-pc/wg-server", {Answer(200)});
  run.AnswerTo("GET /v1/devices/my-pc/wg-profile", {Answer(200, kFullProfile)});
  EXPECT_TRUE(Bootstrap());
  EXPECT_TRUE(sim::LogHas("Bootstrap: device_id = my-pc"));
  const Lines sent = Sent();
  ASSERT_EQ(sent.size(), 5u);
  EXPECT_EQ(sent[2], "PUT /v1/devices/My-PC/wg-key");
  EXPECT_EQ(sent[3], "PUT /v1/devices/my-pc/wg-server");
  EXPECT_EQ(sent[4], "GET /v1/devices/my-pc/wg-profile");
}

}  // namespace
