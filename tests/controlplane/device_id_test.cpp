// The device id: a clear file, guarded by a sealed copy of its first value.
#include "controlplane/device.h"

#include "controlplane_fixture.h"

namespace {

const std::wstring kVerifierFile = std::wstring(kDeviceIdFile) + L".protected";

struct Outcome {
  bool ok = false;
  std::wstring id = L"stale";
};

Outcome Load(const std::wstring& path = kDeviceIdFile) {
  Outcome outcome;
  outcome.ok = LoadOrCreateDeviceId(path, outcome.id);
  return outcome;
}

void ExpectId(const wchar_t* id) {
  const Outcome outcome = Load();
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.id, id);
}

void ExpectFailure(const Outcome& outcome, const char* line) {
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(sim::LogLines(), Lines({line}));
}

void PutVerifier(const std::string& plain) {
  sim::PutFile(kVerifierFile, sim::Seal(plain));
}

std::string Verifier() {
  return sim::Unseal(sim::FileBytes(kVerifierFile).value_or("")).value_or("(none)");
}

std::string ClearFile() {
  return sim::FileBytes(kDeviceIdFile).value_or("(none)");
}

TEST(LoadOrCreateDeviceId, MakesTheIdFromTheComputersName) {
  sim::Machine machine;
  ExpectId(L"desktop-ab12");
  EXPECT_EQ(ClearFile(), "desktop-ab12\r\n");
  EXPECT_EQ(Verifier(), "desktop-ab12");
  EXPECT_EQ(sim::CountCalls("GetComputerNameW", "size=16"), 1U);
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(LoadOrCreateDeviceId, TrimsTheComputersName) {
  sim::Machine machine;
  sim::SetComputerName(L" My PC\t");
  ExpectId(L"my pc");
  EXPECT_EQ(ClearFile(), "my pc\r\n");
}

TEST(LoadOrCreateDeviceId, TakesANameOf15Characters) {
  sim::Machine machine;
  sim::SetComputerName(L"ABCDEFGHIJKLMNO");
  ExpectId(L"abcdefghijklmno");
}

TEST(LoadOrCreateDeviceId, TheStoredValueOutlivesARenaming) {
  sim::Machine machine;
  ExpectId(L"desktop-ab12");
  sim::SetComputerName(L"OTHER");
  ExpectId(L"desktop-ab12");
}

TEST(LoadOrCreateDeviceId, WritesNothingWhenFileAndVerifierAgree) {
  sim::Machine machine;
  sim::PutFile(kDeviceIdFile, "  Some-Id \r\n");
  PutVerifier("Some-Id");
  ExpectId(L"Some-Id");
  EXPECT_EQ(sim::CountCalls("WriteFile"), 0U);
  EXPECT_EQ(ClearFile(), "  Some-Id \r\n");
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(LoadOrCreateDeviceId, RestoresAnEditedFile) {
  for (const char* edited : {"other\r\n", "SOME-ID\r\n"}) {
    sim::Machine machine;
    sim::PutFile(kDeviceIdFile, edited);
    PutVerifier("Some-Id");
    ExpectId(L"Some-Id");
    EXPECT_EQ(ClearFile(), "Some-Id\r\n");
    EXPECT_EQ(sim::LogLines(),
              Lines({"LoadOrCreateDeviceId: device_id.txt mismatch detected; restoring original "
                     "value from protected verifier"}));
  }
}

TEST(LoadOrCreateDeviceId, RestoresAMissingFileSilently) {
  sim::Machine machine;
  PutVerifier(" Some-Id\r\n");
  ExpectId(L"Some-Id");
  EXPECT_EQ(ClearFile(), "Some-Id\r\n");
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(LoadOrCreateDeviceId, TakesAnUnreadableFileForAMissingOne) {
  for (const std::string& bytes :
       {std::string("\xC3"), std::string(" \r\n"), std::string(), std::string(10 * 1024 * 1024 + 1, 'a')}) {
    SCOPED_TRACE(bytes.size());
    sim::Machine machine;
    sim::PutFile(kDeviceIdFile, bytes);
    PutVerifier("some-id");
    ExpectId(L"some-id");
    EXPECT_TRUE(ClearFile() == "some-id\r\n");
    sim::RemoveFile(kVerifierFile);
    sim::PutFile(kDeviceIdFile, bytes);
    ExpectId(L"desktop-ab12");
    EXPECT_TRUE(ClearFile() == "desktop-ab12\r\n");
    EXPECT_EQ(Verifier(), "desktop-ab12");
  }
}

TEST(LoadOrCreateDeviceId, RecreatesADeletedVerifierFromTheFile) {
  sim::Machine machine;
  ExpectId(L"desktop-ab12");
  sim::RemoveFile(kVerifierFile);
  sim::PutFile(kDeviceIdFile, "Edited\r\n");
  ExpectId(L"Edited");
  EXPECT_EQ(Verifier(), "Edited");
  EXPECT_EQ(ClearFile(), "Edited\r\n");
  EXPECT_EQ(sim::LogLines(), Lines());
}

TEST(LoadOrCreateDeviceId, MakesTheSameIdAgainWhenBothAreDeleted) {
  sim::Machine machine;
  ExpectId(L"desktop-ab12");
  sim::RemoveFile(kDeviceIdFile);
  sim::RemoveFile(kVerifierFile);
  ExpectId(L"desktop-ab12");
}

TEST(LoadOrCreateDeviceId, FailsWithoutAParentFolder) {
  sim::Machine machine;
  const Outcome outcome = Load(L"device_id.txt");
  ExpectFailure(outcome, "LoadOrCreateDeviceId: EnsureParentDirForFile failed");
  EXPECT_EQ(outcome.id, L"");
}

TEST(LoadOrCreateDeviceId, FailsWhenTheVerifierCannotBeMade) {
  sim::Machine machine;
  sim::PutFile(kDeviceIdFile, "some-id\r\n");
  sim::Fail({.operation = "CryptProtectData"});
  ExpectFailure(
      Load(),
      "LoadOrCreateDeviceId: failed to create protected verifier from existing cleartext device_id.txt");
}

// The clear file is not consulted then.
TEST(LoadOrCreateDeviceId, FailsOnAVerifierOfAnotherMachine) {
  for (const bool withClearFile : {true, false}) {
    sim::Machine machine;
    if (withClearFile) sim::PutFile(kDeviceIdFile, "some-id\r\n");
    sim::PutFile(kVerifierFile, sim::SealElsewhere("some-id"));
    ExpectFailure(Load(), "LoadOrCreateDeviceId: protected verifier present but could not be decrypted");
    EXPECT_EQ(ClearFile(), withClearFile ? "some-id\r\n" : "(none)");
  }
}

TEST(LoadOrCreateDeviceId, FailsOnAVerifierWithoutAnId) {
  for (const char* plain : {"", " \r\n", "\xC3"}) {
    sim::Machine machine;
    sim::PutFile(kDeviceIdFile, "some-id\r\n");
    PutVerifier(plain);
    ExpectFailure(Load(), "LoadOrCreateDeviceId: protected verifier decrypted to empty device id");
  }
}

TEST(LoadOrCreateDeviceId, FailsWhenTheFileCannotBeRestored) {
  {
    sim::Machine machine;
    sim::PutFile(kDeviceIdFile, "other\r\n");
    PutVerifier("some-id");
    sim::Fail({.operation = "CreateFileW", .code = 5, .argumentsContain = "access=0x40000000"});
    EXPECT_FALSE(Load().ok);
    EXPECT_EQ(sim::LogLines(),
              Lines({"LoadOrCreateDeviceId: device_id.txt mismatch detected; restoring original "
                     "value from protected verifier",
                     "LoadOrCreateDeviceId: failed to restore tampered device_id.txt from "
                     "protected verifier"}));
  }
  sim::Machine machine;
  PutVerifier("some-id");
  sim::Fail({.operation = "CreateFileW", .code = 5, .argumentsContain = "access=0x40000000"});
  ExpectFailure(Load(),
                "LoadOrCreateDeviceId: failed to restore missing device_id.txt from protected verifier");
}

TEST(LoadOrCreateDeviceId, FailsWithoutAComputerName) {
  {
    sim::Machine machine;
    sim::Fail({.operation = "GetComputerNameW"});
    ExpectFailure(Load(), "LoadOrCreateDeviceId: GetComputerNameW failed");
  }
  {
    sim::Machine machine;
    sim::SetComputerName(L"");
    ExpectFailure(Load(), "LoadOrCreateDeviceId: GetComputerNameW failed");
  }
  sim::Machine machine;
  sim::SetComputerName(L" \t ");
  ExpectFailure(Load(), "LoadOrCreateDeviceId: generated empty device id");
  EXPECT_EQ(ClearFile(), "(none)");
}

TEST(LoadOrCreateDeviceId, FailsWhenTheNewIdCannotBeWritten) {
  sim::Machine machine;
  sim::Fail({.operation = "CreateFileW", .code = 5, .argumentsContain = "access=0x40000000"});
  ExpectFailure(Load(), "LoadOrCreateDeviceId: failed writing device_id.txt");
  EXPECT_FALSE(sim::FileExists(kVerifierFile));
}

TEST(LoadOrCreateDeviceId, KeepsTheClearFileWhenTheNewVerifierFails) {
  sim::Machine machine;
  sim::Fail({.operation = "CryptProtectData"});
  ExpectFailure(Load(), "LoadOrCreateDeviceId: failed writing protected verifier");
  EXPECT_EQ(ClearFile(), "desktop-ab12\r\n");
  ExpectId(L"desktop-ab12");
  EXPECT_EQ(sim::CountCalls("GetComputerNameW"), 1U);
  EXPECT_EQ(Verifier(), "desktop-ab12");
}

}  // namespace
