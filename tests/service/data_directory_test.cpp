// The data directory: how folders come to be, their rights, and the files sealed for this machine.
#include "service/data_files.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "sim/files.h"
#include "sim/kernel.h"

namespace {

const std::wstring kRoot = L"C:\\ProgramData\\TELVOR";
const std::wstring kAuth = L"C:\\ProgramData\\TELVOR\\auth";
const std::wstring kSealed = L"C:\\ProgramData\\TELVOR\\auth\\session.dat";

std::vector<std::wstring> GrantedPaths() {
  std::vector<std::wstring> paths;
  for (const sim::Grant& grant : sim::Grants()) paths.push_back(grant.path);
  return paths;
}

std::vector<std::string> DirectoriesTried() {
  std::vector<std::string> paths;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == "CreateDirectoryW") paths.push_back(entry.arguments);
  }
  return paths;
}

TEST(EnsureDirectory, MakesTheRootThenTheDirectoryAndGrantsOnTheRoot) {
  sim::Machine machine;
  EXPECT_TRUE(EnsureDirectory(kAuth));
  EXPECT_TRUE(sim::FolderExists(kAuth));
  EXPECT_EQ(GrantedPaths(), std::vector<std::wstring>{kRoot});
  EXPECT_EQ(DirectoriesTried(), (std::vector<std::string>{R"(path="C:\ProgramData\TELVOR\auth")",
                                                          R"(path="C:\ProgramData\TELVOR")",
                                                          R"(path="C:\ProgramData\TELVOR\auth")"}));
}

TEST(EnsureDirectory, GrantsOnTheRootWhenItMadeTheRootItself) {
  sim::Machine machine;
  EXPECT_TRUE(EnsureDirectory(kRoot));
  EXPECT_EQ(GrantedPaths(), std::vector<std::wstring>{kRoot});
}

TEST(EnsureDirectory, ChangesNoRightsOfAnExistingDirectory) {
  sim::Machine machine;
  sim::MakeFolder(kAuth);
  EXPECT_TRUE(EnsureDirectory(kAuth));
  EXPECT_TRUE(sim::Grants().empty());
}

TEST(EnsureDirectory, GrantsNothingElsewhere) {
  sim::Machine machine;
  EXPECT_TRUE(EnsureDirectory(L"C:\\VPN\\other"));
  EXPECT_TRUE(sim::Grants().empty());
}

// The comparison is of the first 21 characters, with regard to case, and not of whole names.
TEST(EnsureDirectory, ComparesThePrefixOnly) {
  sim::Machine machine;
  EXPECT_TRUE(EnsureDirectory(L"C:\\ProgramData\\telvor"));
  EXPECT_TRUE(sim::Grants().empty());
  EXPECT_TRUE(EnsureDirectory(L"C:\\ProgramData\\TELVOR-OTHER"));
  EXPECT_EQ(GrantedPaths(), std::vector<std::wstring>{kRoot});
}

TEST(EnsureDirectory, FallsBackToTheRootAloneAndOnlyOnce) {
  sim::Machine machine;
  EXPECT_FALSE(EnsureDirectory(kRoot + L"\\a\\b"));
  EXPECT_TRUE(sim::FolderExists(kRoot));
  EXPECT_FALSE(sim::FolderExists(kRoot + L"\\a"));
  EXPECT_EQ(DirectoriesTried().size(), 3u);
  EXPECT_TRUE(sim::Grants().empty());
}

TEST(EnsureDirectory, TakesADirectoryThatAppearsMeanwhile) {
  sim::Machine machine;
  sim::Fail({.operation = "CreateDirectoryW", .code = 3});
  sim::Before(
      "CreateDirectoryW", [] { sim::MakeFolder(kAuth); }, R"(path="C:\ProgramData\TELVOR")");
  EXPECT_TRUE(EnsureDirectory(kRoot + L"\\auth"));
  EXPECT_TRUE(sim::Grants().empty());
}

TEST(EnsureDirectory, FailsOnAnyOtherErrorWithoutASecondTry) {
  sim::Machine machine;
  sim::Fail({.operation = "CreateDirectoryW", .code = 5});
  EXPECT_FALSE(EnsureDirectory(kAuth));
  EXPECT_EQ(DirectoriesTried().size(), 1u);
}

TEST(EnsureDirectory, FailsWhenTheSecondTryFails) {
  sim::Machine machine;
  sim::Fail({.operation = "CreateDirectoryW", .code = 5, .skip = 2});
  EXPECT_FALSE(EnsureDirectory(kAuth));
  EXPECT_TRUE(sim::Grants().empty());
}

TEST(EnsureParentDirForFile, MakesThePartBeforeTheLastSeparator) {
  sim::Machine machine;
  EXPECT_TRUE(EnsureParentDirForFile(kSealed));
  EXPECT_TRUE(sim::FolderExists(kAuth));
  EXPECT_FALSE(sim::FolderExists(kSealed));
  EXPECT_FALSE(EnsureParentDirForFile(L"C:\\VPN/new/x\\y/z.txt"));
  EXPECT_TRUE(EnsureParentDirForFile(L"C:\\VPN/mixed/z.txt"));
  EXPECT_TRUE(sim::FolderExists(L"C:\\VPN\\mixed"));
}

TEST(EnsureParentDirForFile, RefusesABareFileName) {
  sim::Machine machine;
  EXPECT_FALSE(EnsureParentDirForFile(L"x.txt"));
  EXPECT_FALSE(EnsureParentDirForFile(L""));
  EXPECT_FALSE(EnsureParentDirForFile(L"\\x.txt"));
  EXPECT_FALSE(EnsureParentDirForFile(L"/x.txt"));
  EXPECT_EQ(sim::CountCalls("CreateDirectoryW"), 0u);
}

TEST(ApplyDataDirAcl, GrantsModifyToTheGroupUsers) {
  sim::Machine machine;
  sim::MakeFolder(kRoot);
  ApplyDataDirAcl(kRoot);
  ASSERT_EQ(sim::Grants().size(), 1u);
  const sim::Grant& grant = sim::Grants()[0];
  EXPECT_EQ(grant.permissions, 0x001301BFu);
  EXPECT_EQ(grant.mode, 1u);
  EXPECT_EQ(grant.inheritance, 3u);
  EXPECT_EQ(grant.trusteeForm, 1u);
  EXPECT_EQ(grant.trusteeType, 2u);
  EXPECT_EQ(grant.trustee, L"Users");
  EXPECT_EQ(sim::CountCalls("GetNamedSecurityInfoW", "objectType=1 information=4"), 1u);
  EXPECT_EQ(sim::CountCalls("SetNamedSecurityInfoW", "objectType=1 information=4"), 1u);
  EXPECT_EQ(sim::CountCalls("LocalFree"), 2u);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ApplyDataDirAcl, IsSilentAboutFailures) {
  for (const char* operation : {"GetNamedSecurityInfoW", "SetEntriesInAclW", "SetNamedSecurityInfoW"}) {
    SCOPED_TRACE(operation);
    sim::Machine machine;
    sim::MakeFolder(kRoot);
    sim::Fail({.operation = operation, .code = 5});
    ApplyDataDirAcl(kRoot);
    EXPECT_TRUE(sim::Grants().empty());
    EXPECT_EQ(sim::OpenHandles(), 0u);
    EXPECT_EQ(sim::LogBytes(), "");
  }
}

TEST(ApplyDataDirAcl, DoesNotFailEnsureDirectory) {
  sim::Machine machine;
  sim::Fail({.operation = "SetNamedSecurityInfoW", .code = 5});
  EXPECT_TRUE(EnsureDirectory(kRoot));
}

// A folder below is granted twice: as an entry, and as the start of its own enumeration.
TEST(ApplyDataDirAclRecursive, ReachesEveryFileAndFolderBelow) {
  sim::Machine machine;
  sim::PutFile(kRoot + L"\\auth\\wg_client_privatekey.txt", "k");
  sim::PutFile(kRoot + L"\\auth\\deep\\x.txt", "x");
  sim::PutFile(kRoot + L"\\runtime.dat", "r");
  sim::PutFile(L"C:\\ProgramData\\other.txt", "o");
  ApplyDataDirAclRecursive(kRoot);
  std::vector<std::wstring> paths = GrantedPaths();
  ASSERT_FALSE(paths.empty());
  EXPECT_EQ(paths.front(), kRoot);
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths, (std::vector<std::wstring>{
                       kRoot,
                       kRoot + L"\\auth",
                       kRoot + L"\\auth",
                       kRoot + L"\\auth\\deep",
                       kRoot + L"\\auth\\deep",
                       kRoot + L"\\auth\\deep\\x.txt",
                       kRoot + L"\\auth\\wg_client_privatekey.txt",
                       kRoot + L"\\runtime.dat",
                   }));
  EXPECT_EQ(sim::CountCalls("FindFirstFileW", R"(pattern="C:\ProgramData\TELVOR\*")"), 1u);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ApplyDataDirAclRecursive, GoesOnWhereOneEntryFails) {
  sim::Machine machine;
  sim::PutFile(kRoot + L"\\a.txt", "a");
  sim::PutFile(kRoot + L"\\b.txt", "b");
  sim::Fail({.operation = "SetNamedSecurityInfoW", .code = 5, .argumentsContain = "a.txt"});
  ApplyDataDirAclRecursive(kRoot);
  EXPECT_EQ(GrantedPaths(), (std::vector<std::wstring>{kRoot, kRoot + L"\\b.txt"}));
}

TEST(ApplyDataDirAclRecursive, TakesAMissingFolder) {
  sim::Machine machine;
  ApplyDataDirAclRecursive(kRoot);
  EXPECT_TRUE(sim::Grants().empty());
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ProtectToFile, SealsForThisMachineWithoutDescription) {
  sim::Machine machine;
  const std::string plain("secret\0\xFF", 8);
  EXPECT_TRUE(ProtectToFile(kSealed, plain));
  const std::string blob = sim::FileBytes(kSealed).value_or("");
  EXPECT_NE(blob, plain);
  EXPECT_EQ(sim::Unseal(blob), plain);
  EXPECT_EQ(sim::SealDescription(blob).value_or(L""), L"");
  EXPECT_EQ(sim::CountCalls("CryptProtectData", "flags=4"), 1u);
  EXPECT_EQ(sim::CountCalls("CryptProtectData", "description=null"), 1u);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(ProtectToFile, MakesTheParentFolder) {
  sim::Machine machine;
  EXPECT_TRUE(ProtectToFile(kSealed, "x"));
  EXPECT_TRUE(sim::FolderExists(kAuth));
  EXPECT_EQ(GrantedPaths(), std::vector<std::wstring>{kRoot});
}

TEST(ProtectToFile, TruncatesTheOldFile) {
  sim::Machine machine;
  sim::PutFile(kSealed, std::string(5000, 'x'));
  EXPECT_TRUE(ProtectToFile(kSealed, "short"));
  EXPECT_EQ(sim::Unseal(sim::FileBytes(kSealed).value_or("")), "short");
}

TEST(ProtectToFile, IsFalseWhenAStepFails) {
  for (const char* operation : {"CryptProtectData", "CreateDirectoryW", "CreateFileW", "WriteFile"}) {
    SCOPED_TRACE(operation);
    sim::Machine machine;
    sim::Fail({.operation = operation, .code = 5});
    EXPECT_FALSE(ProtectToFile(kSealed, "x"));
    EXPECT_EQ(sim::OpenHandles(), 0u);
  }
}

TEST(ProtectToFile, SealsBeforeItTouchesTheDisk) {
  sim::Machine machine;
  sim::Fail({.operation = "CryptProtectData", .code = 5});
  EXPECT_FALSE(ProtectToFile(kSealed, "x"));
  EXPECT_FALSE(sim::FolderExists(kRoot));
}

TEST(UnprotectFromFile, OpensWhatThisMachineSealed) {
  sim::Machine machine;
  const std::string plain("secret\0\xFF", 8);
  ProtectToFile(kSealed, plain);
  std::string opened = "?";
  EXPECT_TRUE(UnprotectFromFile(kSealed, opened));
  EXPECT_EQ(opened, plain);
  EXPECT_EQ(sim::CountCalls("CryptUnprotectData", "flags=0"), 1u);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(UnprotectFromFile, RefusesABlobOfAnotherMachineAndKeepsTheFile) {
  sim::Machine machine;
  const std::string blob = sim::SealElsewhere("secret");
  sim::PutFile(kSealed, blob);
  std::string opened = "?";
  EXPECT_FALSE(UnprotectFromFile(kSealed, opened));
  EXPECT_EQ(opened, "");
  EXPECT_EQ(sim::FileBytes(kSealed), blob);
}

TEST(UnprotectFromFile, RefusesAMissingAnEmptyAndADamagedFile) {
  sim::Machine machine;
  std::string opened = "?";
  EXPECT_FALSE(UnprotectFromFile(kSealed, opened));
  EXPECT_EQ(opened, "");
  for (const std::string& content : {std::string(), std::string("not a blob"), sim::Seal("x") + "y"}) {
    sim::PutFile(kSealed, content);
    opened = "?";
    EXPECT_FALSE(UnprotectFromFile(kSealed, opened));
    EXPECT_EQ(opened, "");
  }
  EXPECT_EQ(sim::CountCalls("CryptUnprotectData"), 2u);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

}  // namespace
