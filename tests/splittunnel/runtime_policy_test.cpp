#include "splittunnel/runtime_policy.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/splittunnel/policy_fixture.h"

namespace {

using Texts = std::vector<std::wstring>;

constexpr char kSeed[] = "[domains]\r\nb.example\r\na.example\r\n[ips]\r\n10.0.0.1\r\n";

struct Loaded {
  RuntimePolicy policy{{L"stale domain"}, {L"stale ip"}};
  std::wstring source = L"stale";
};
// Every load succeeds and none logs.
Loaded Load() {
  Loaded loaded;
  EXPECT_TRUE(LoadRuntimePolicy(loaded.policy, loaded.source));
  EXPECT_TRUE(sim::LogLines().empty());
  return loaded;
}
void ExpectLoads(const std::wstring& source, const Texts& domains, const Texts& ips) {
  const Loaded loaded = Load();
  EXPECT_EQ(loaded.source, source);
  EXPECT_EQ(loaded.policy.domains, domains);
  EXPECT_EQ(loaded.policy.ips, ips);
}

std::string SealedPlain() {
  return sim::Unseal(sim::FileBytes(kRuntimePolicyFile).value_or("")).value_or("(none)");
}

TEST(LoadRuntimePolicy, GivesAnEmptyPolicyWithoutEitherFile) {
  sim::Machine machine;
  ExpectLoads(L"empty", {}, {});
  EXPECT_FALSE(sim::FileExists(kRuntimePolicyFile));
  EXPECT_FALSE(sim::FolderExists(kDataRoot));
}

TEST(LoadRuntimePolicy, ReadsRuntimeDatAndDoesNotLookAtTheSeed) {
  sim::Machine machine;
  PutPolicy(L"[domains]\nhost.example\n[ips]\n1.2.3.4\n\u4E2D");
  sim::PutFile(kSeedFile, kSeed);
  ExpectLoads(L"encrypted", {L"host.example"}, {L"1.2.3.4", L"\u4E2D"});
  EXPECT_EQ(sim::CountCalls("CreateFileW", "runtime.seed"), 0U);
  EXPECT_EQ(sim::CountCalls("CryptProtectData"), 0U);
}

TEST(LoadRuntimePolicy, UnsealsTheFilesBytesWithFlagsOfZero) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4");
  Load();
  EXPECT_EQ(sim::CountCalls("CryptUnprotectData"), 1U);
  EXPECT_EQ(sim::CountCalls("CryptUnprotectData", "flags=0"), 1U);
}

TEST(LoadRuntimePolicy, DropsAnOddLastByteOfThePlaintext) {
  sim::Machine machine;
  sim::PutFile(kRuntimePolicyFile, sim::Seal(Utf16(L"[ips]\n1.2.3.4") + "5"));
  ExpectLoads(L"encrypted", {}, {L"1.2.3.4"});
}

TEST(LoadRuntimePolicy, TakesAnEmptyRuntimeDatAsAnEmptyPolicyDespiteAGoodSeed) {
  for (const bool sealedNothing : {false, true}) {
    sim::Machine machine;
    sim::PutFile(kRuntimePolicyFile, sealedNothing ? sim::Seal("") : "");
    sim::PutFile(kSeedFile, kSeed);
    ExpectLoads(L"encrypted", {}, {});
    EXPECT_EQ(sim::CountCalls("CryptUnprotectData"), sealedNothing ? 1U : 0U);
  }
}

TEST(LoadRuntimePolicy, SealsTheTrimmedSeedForTheMachine) {
  sim::Machine machine;
  sim::PutFile(kSeedFile, " \r\n" + std::string(kSeed) + "\t");
  ExpectLoads(L"seed", {L"a.example", L"b.example"}, {L"10.0.0.1"});
  EXPECT_EQ(SealedPlain(), Utf16(L"[domains]\r\nb.example\r\na.example\r\n[ips]\r\n10.0.0.1"));
  EXPECT_EQ(sim::SealDescription(*sim::FileBytes(kRuntimePolicyFile)), L"TELVOR runtime");
  EXPECT_EQ(sim::CountCalls("CryptProtectData", "flags=4"), 1U);
  EXPECT_EQ(sim::FileBytes(kSeedFile), " \r\n" + std::string(kSeed) + "\t");
}

TEST(LoadRuntimePolicy, SealsCharactersBeyondTheBasicPlaneAsTheirTwoCodeUnits) {
  sim::Machine machine;
  sim::PutFile(kSeedFile, "[domains]\n\xF0\x9F\x98\x80");
  ExpectLoads(L"seed", {L"\xD83D\xDE00"}, {});
  EXPECT_EQ(SealedPlain(), Utf16(L"[domains]\n\xD83D\xDE00"));
  ExpectLoads(L"encrypted", {L"\xD83D\xDE00"}, {});
}

TEST(LoadRuntimePolicy, MakesTheDataFolderWithItsRightsForASeed) {
  sim::Machine machine;
  sim::PutFile(kSeedFile, kSeed);
  Load();
  EXPECT_TRUE(sim::FolderExists(kDataRoot));
  ASSERT_EQ(sim::Grants().size(), 1U);
  EXPECT_EQ(sim::Grants()[0].path, kDataRoot);
}

TEST(LoadRuntimePolicy, StaysWithWhatTheFirstLoadSealed) {
  sim::Machine machine;
  sim::PutFile(kSeedFile, kSeed);
  ExpectLoads(L"seed", {L"a.example", L"b.example"}, {L"10.0.0.1"});
  sim::RemoveFile(kSeedFile);
  ExpectLoads(L"encrypted", {L"a.example", L"b.example"}, {L"10.0.0.1"});
  sim::PutFile(kSeedFile, "[ips]\n9.9.9.9");
  ExpectLoads(L"encrypted", {L"a.example", L"b.example"}, {L"10.0.0.1"});
  sim::RemoveFile(kRuntimePolicyFile);
  ExpectLoads(L"seed", {}, {L"9.9.9.9"});
}

TEST(LoadRuntimePolicy, OverwritesARuntimeDatOfAnotherMachineFromTheSeedInPlace) {
  sim::Machine machine;
  sim::PutFile(kRuntimePolicyFile, sim::SealElsewhere(Utf16(L"[ips]\n" + std::wstring(5000, L'9'))));
  sim::PutFile(kSeedFile, kSeed);
  ExpectLoads(L"seed", {L"a.example", L"b.example"}, {L"10.0.0.1"});
  EXPECT_EQ(SealedPlain(), Utf16(L"[domains]\r\nb.example\r\na.example\r\n[ips]\r\n10.0.0.1"));
  EXPECT_EQ(sim::CountCalls("MoveFileExW"), 0U);
  EXPECT_EQ(sim::CountCalls("CreateFileW", ".tmp"), 0U);
}

TEST(LoadRuntimePolicy, LeavesARuntimeDatThatDoesNotOpenWhereItIsWithoutASeed) {
  sim::Machine machine;
  const std::string foreign = sim::SealElsewhere(Utf16(L"[ips]\n1.2.3.4"));
  sim::PutFile(kRuntimePolicyFile, foreign);
  ExpectLoads(L"empty", {}, {});
  EXPECT_EQ(sim::FileBytes(kRuntimePolicyFile), foreign);
  sim::PutFile(kRuntimePolicyFile, "garbage");
  ExpectLoads(L"empty", {}, {});
  EXPECT_EQ(sim::FileBytes(kRuntimePolicyFile), "garbage");
}

TEST(LoadRuntimePolicy, FallsBackToTheSeedWhenRuntimeDatCannotBeRead) {
  for (const char* call : {"GetFileSizeEx", "ReadFile"}) {
    sim::Machine machine;
    PutPolicy(L"[ips]\n1.2.3.4");
    sim::PutFile(kSeedFile, kSeed);
    sim::Fail({.operation = call, .code = 23});
    ExpectLoads(L"seed", {L"a.example", L"b.example"}, {L"10.0.0.1"});
  }
}

TEST(LoadRuntimePolicy, FallsBackToTheSeedWhenRuntimeDatEndsBeforeItsSize) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4");
  sim::PutFile(kSeedFile, kSeed);
  sim::Shorten("ReadFile", 3);
  ExpectLoads(L"seed", {L"a.example", L"b.example"}, {L"10.0.0.1"});
}

// The policy is in force all the same; nothing can be written to a file that somebody holds.
TEST(LoadRuntimePolicy, IgnoresThatTheSealedPolicyCannotBeWritten) {
  sim::Machine machine;
  PutPolicy(L"[ips]\n1.2.3.4");
  sim::HoldFile(kRuntimePolicyFile);
  sim::PutFile(kSeedFile, kSeed);
  ExpectLoads(L"seed", {L"a.example", L"b.example"}, {L"10.0.0.1"});
  sim::ReleaseFile(kRuntimePolicyFile);
  EXPECT_EQ(SealedPlain(), Utf16(L"[ips]\n1.2.3.4"));

  sim::RemoveFile(kRuntimePolicyFile);
  sim::Fail({.operation = "WriteFile", .code = 112, .argumentsContain = ""});
  ExpectLoads(L"seed", {L"a.example", L"b.example"}, {L"10.0.0.1"});
}

TEST(LoadRuntimePolicy, WritesNoFileWhenTheSeedCannotBeSealed) {
  sim::Machine machine;
  sim::PutFile(kSeedFile, kSeed);
  sim::Fail({.operation = "CryptProtectData", .code = 5});
  ExpectLoads(L"seed", {L"a.example", L"b.example"}, {L"10.0.0.1"});
  EXPECT_FALSE(sim::FileExists(kRuntimePolicyFile));
  EXPECT_FALSE(sim::FolderExists(kDataRoot));
}

TEST(LoadRuntimePolicy, TakesNoSeedThatIsEmptyBlankOrNotUtf8) {
  for (const std::string& seed :
       {std::string(), std::string(" \r\n\t"), std::string("[ips]\n1.2.3.4 \xFF")}) {
    SCOPED_TRACE(seed);
    sim::Machine machine;
    sim::PutFile(kSeedFile, seed);
    ExpectLoads(L"empty", {}, {});
    EXPECT_FALSE(sim::FileExists(kRuntimePolicyFile));
    EXPECT_EQ(sim::FileBytes(kSeedFile), seed);
  }
}

TEST(LoadRuntimePolicy, TakesNoSeedThatCannotBeOpened) {
  sim::Machine machine;
  sim::PutFile(kSeedFile, kSeed);
  sim::HoldFile(kSeedFile);
  ExpectLoads(L"empty", {}, {});
  sim::ReleaseFile(kSeedFile);
}

TEST(LoadRuntimePolicy, TakesASeedOfTenMebibytesAndNoByteMore) {
  const std::string head = "[ips]\n1.2.3.4\n";
  std::string seed = head + std::string(0xA00000 - head.size(), '\n');
  {
    sim::Machine machine;
    sim::PutFile(kSeedFile, seed);
    ExpectLoads(L"seed", {}, {L"1.2.3.4"});
  }
  seed += '\n';
  sim::Machine machine;
  sim::PutFile(kSeedFile, seed);
  ExpectLoads(L"empty", {}, {});
}

TEST(LoadRuntimePolicy, KeepsTheByteOrderMarkOfASeedAndSoLosesItsFirstSection) {
  sim::Machine machine;
  sim::PutFile(kSeedFile, "\xEF\xBB\xBF[domains]\nlost.example\n[ips]\n1.2.3.4");
  ExpectLoads(L"seed", {}, {L"1.2.3.4"});
  EXPECT_EQ(SealedPlain(), Utf16(L"\xFEFF[domains]\nlost.example\n[ips]\n1.2.3.4"));
}

TEST(LoadRuntimePolicy, LooksForTheSeedBesideTheExecutable) {
  const struct {
    const wchar_t* executable;
    const wchar_t* seed;
  } cases[] = {
      {L"C:\\apps\\telvor.exe", L"C:\\apps\\data\\runtime.seed"},
      {L"C:\\apps/bin/telvor.exe", L"C:\\apps/bin\\data\\runtime.seed"},
      {L"C:/apps\\telvor.exe", L"C:/apps\\data\\runtime.seed"},
      {L"C:\\telvor.exe", L"C:\\data\\runtime.seed"},
  };
  for (const auto& place : cases) {
    SCOPED_TRACE(sim::Narrow(place.executable));
    sim::Machine machine;
    sim::SetExecutablePath(place.executable);
    sim::PutFile(place.seed, "[ips]\n1.2.3.4");
    ExpectLoads(L"seed", {}, {L"1.2.3.4"});
    EXPECT_EQ(sim::CountCalls("CreateFileW", sim::Narrow(place.seed)), 1U);
    EXPECT_EQ(sim::CountCalls("GetModuleFileNameW", "size=260"), 1U);
  }
}

TEST(LoadRuntimePolicy, HasNoSeedWithoutThePathOfTheExecutable) {
  const std::wstring longest = L"C:\\" + std::wstring(245, L'x') + L"\\telvor.exe";  // 259 characters
  const std::wstring tooLong = L"C:\\" + std::wstring(246, L'x') + L"\\telvor.exe";
  const struct {
    std::wstring executable;
    bool fails;
    const wchar_t* source;
  } cases[] = {{longest, false, L"seed"},
               {tooLong, false, L"empty"},
               {L"telvor.exe", false, L"empty"},
               {L"C:\\Program Files\\TELVOR\\telvor.exe", true, L"empty"}};
  for (const auto& place : cases) {
    SCOPED_TRACE(sim::Narrow(place.executable));
    sim::Machine machine;
    sim::SetExecutablePath(place.executable);
    sim::PutFile(kSeedFile, kSeed);
    sim::PutFile(L"C:\\windows\\data\\runtime.seed", kSeed);
    sim::PutFile(place.executable.substr(0, place.executable.rfind(L'\\')) + L"\\data\\runtime.seed", kSeed);
    if (place.fails) sim::Fail({.operation = "GetModuleFileNameW", .code = 31});
    EXPECT_EQ(Load().source, place.source);
  }
}

}  // namespace
