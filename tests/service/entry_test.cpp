// The two ways in which the program starts, and the markers of each.
#include "service/entry.h"

#include "service/wide_text.h"
#include "tests/service/service_fixture.h"

namespace {

void StopConsole() {
  ASSERT_TRUE(sim::RunUntil([] { return fake::Count("UninstallTunnelService") > 0; }, 10'000));
  EXPECT_TRUE(sim::SendConsoleEvent(0));
}

TEST(Wmain, RunsTheConsoleHostForItsOption) {
  ServiceRun run;
  run.StartInTerminal({L"--console"});
  StopConsole();
  run.WaitForEnd();
  EXPECT_EQ(sim::ProductExitCode(), 0);
  EXPECT_EQ(Markers(), (Lines{"01-wmain-enter.txt", "02-wmain-console.txt"}));
  EXPECT_EQ(MarkerText(L"01-wmain-enter.txt"), Utf16LittleEndian(L"entered wmain\r\n"));
  EXPECT_EQ(MarkerText(L"02-wmain-console.txt"), Utf16LittleEndian(L"--console path\r\n"));
  EXPECT_EQ(sim::CountCalls("StartServiceCtrlDispatcherW"), 0u);
}

TEST(Wmain, IgnoresFurtherArguments) {
  ServiceRun run;
  run.StartInTerminal({L"--console", L"--other"});
  StopConsole();
  run.WaitForEnd();
  EXPECT_EQ(Markers(), (Lines{"01-wmain-enter.txt", "02-wmain-console.txt"}));
}

TEST(Wmain, FallsBackToTheConsoleHostInATerminal) {
  ServiceRun run;
  run.StartInTerminal({});
  StopConsole();
  run.WaitForEnd();
  EXPECT_EQ(sim::ProductExitCode(), 0);
  EXPECT_EQ(Markers(), (Lines{"01-wmain-enter.txt", "03-before-runasservice.txt", "10-runasservice-enter.txt",
                              "11-before-dispatch.txt", "12-dispatch-failed.txt", "04-after-runasservice.txt",
                              "05-fallback-console.txt"}));
  EXPECT_EQ(MarkerText(L"12-dispatch-failed.txt"),
            Utf16LittleEndian(L"StartServiceCtrlDispatcherW failed, GLE=1063\r\n"));
  EXPECT_EQ(MarkerText(L"04-after-runasservice.txt"), Utf16LittleEndian(L"RunAsService rc=1063\r\n"));
  EXPECT_EQ(MarkerText(L"05-fallback-console.txt"), Utf16LittleEndian(L"fallback to console\r\n"));
  EXPECT_TRUE(sim::LogHas("Console mode: exited."));
}

// Only the exact option as the first argument counts; from a terminal the others end in the console host as
// well.
TEST(Wmain, TakesTheServicePathForAnyOtherArgument) {
  const std::vector<std::vector<std::wstring>> cases = {{L"--Console"}, {L"--CONSOLE"},       {L"--console "},
                                                        {L"--consol"},  {L"x", L"--console"}, {L""}};
  for (const std::vector<std::wstring>& arguments : cases) {
    SCOPED_TRACE(sim::Narrow(arguments[0]));
    ServiceRun run;
    run.StartInTerminal(arguments);
    StopConsole();
    run.WaitForEnd();
    ASSERT_EQ(Markers().size(), 7u);
    EXPECT_EQ(Markers().at(1), "03-before-runasservice.txt");
  }
}

TEST(Wmain, RunsTheServiceUnderItsManager) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  EXPECT_EQ(Markers(), (Lines{"01-wmain-enter.txt", "03-before-runasservice.txt", "10-runasservice-enter.txt",
                              "11-before-dispatch.txt", "20-servicemain-enter.txt"}));
  EXPECT_EQ(MarkerText(L"03-before-runasservice.txt"), Utf16LittleEndian(L"before RunAsService\r\n"));
  EXPECT_EQ(MarkerText(L"10-runasservice-enter.txt"), Utf16LittleEndian(L"entered RunAsService\r\n"));
  EXPECT_EQ(MarkerText(L"11-before-dispatch.txt"),
            Utf16LittleEndian(L"before StartServiceCtrlDispatcherW\r\n"));
  EXPECT_EQ(MarkerText(L"20-servicemain-enter.txt"), Utf16LittleEndian(L"entered ServiceMain\r\n"));
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(sim::ProductExitCode(), 0);
  ASSERT_EQ(Markers().size(), 7u);
  EXPECT_EQ(Markers().at(5), "13-dispatch-returned.txt");
  EXPECT_EQ(Markers().at(6), "04-after-runasservice.txt");
  EXPECT_EQ(MarkerText(L"13-dispatch-returned.txt"), Utf16LittleEndian(L"dispatcher returned\r\n"));
  EXPECT_EQ(MarkerText(L"04-after-runasservice.txt"), Utf16LittleEndian(L"RunAsService rc=0\r\n"));
}

TEST(Wmain, NamesItsServiceToTheDispatcher) {
  ServiceRun run;
  run.StartAndWaitForRunning();
  EXPECT_EQ(sim::CountCalls("StartServiceCtrlDispatcherW", "\"TELVOR\""), 1u);
}

TEST(Wmain, ReturnsAnyOtherDispatcherErrorAsItsExitCode) {
  ServiceRun run;
  sim::Fail({.operation = "StartServiceCtrlDispatcherW", .code = 1056});
  run.Start();
  run.WaitForEnd();
  EXPECT_EQ(sim::ProductExitCode(), 1056);
  EXPECT_EQ(Markers(),
            (Lines{"01-wmain-enter.txt", "03-before-runasservice.txt", "10-runasservice-enter.txt",
                   "11-before-dispatch.txt", "12-dispatch-failed.txt", "04-after-runasservice.txt"}));
  EXPECT_EQ(MarkerText(L"12-dispatch-failed.txt"),
            Utf16LittleEndian(L"StartServiceCtrlDispatcherW failed, GLE=1056\r\n"));
  EXPECT_EQ(MarkerText(L"04-after-runasservice.txt"), Utf16LittleEndian(L"RunAsService rc=1056\r\n"));
  EXPECT_EQ(sim::LogBytes(), "");
}

TEST(Wmain, WorksWithoutTheMarkerFolder) {
  ServiceRun run;
  sim::RemoveFolder(L"C:\\VPN\\stage");
  run.StartAndWaitForRunning();
  EXPECT_TRUE(sim::SendControl(1));
  run.WaitForEnd();
  EXPECT_EQ(sim::ProductExitCode(), 0);
  EXPECT_FALSE(sim::FolderExists(L"C:\\VPN\\stage"));
}

TEST(Wmain, LeavesTheMarkersOfAnOlderStart) {
  ServiceRun run;
  sim::PutFile(L"C:\\VPN\\stage\\05-fallback-console.txt", "older");
  run.StartAndWaitForRunning();
  EXPECT_EQ(MarkerText(L"05-fallback-console.txt"), "older");
}

// Direct, so that the dispatcher's own code is seen.
TEST(RunAsService, GivesTheDispatchersErrorCode) {
  sim::Machine machine;
  EXPECT_EQ(RunAsService(), 1063u);
  sim::Fail({.operation = "StartServiceCtrlDispatcherW", .code = 87});
  EXPECT_EQ(RunAsService(), 87u);
}

}  // namespace
