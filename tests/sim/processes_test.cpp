#include "sim/processes.h"

#include "sim/files.h"
#include "sim/network.h"
#include "sim/services.h"
#include "sim_fixture.h"
#include "wireguard/platform.h"

namespace {

using platform::Handle;

constexpr wchar_t kConf[] = L"C:\\ProgramData\\telvor.conf";

// A child whose standard output is read through a pipe.
struct Child {
  explicit Child(const std::wstring& commandLine) {
    Handle writeEnd = nullptr;
    EXPECT_TRUE(platform::CreatePipe(readEnd, writeEnd));
    EXPECT_TRUE(platform::SetHandleInformation(readEnd, platform::kHandleFlagInherit, 0));
    started = platform::CreateProcessW(commandLine, platform::kCreateNoWindow, {nullptr, writeEnd, nullptr},
                                       handles);
    platform::CloseHandle(writeEnd);
  }
  ~Child() {
    platform::CloseHandle(readEnd);
    if (!started) return;
    platform::CloseHandle(handles.process);
    platform::CloseHandle(handles.thread);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  std::string ReadAll() const {
    std::string bytes;
    char chunk[1000];
    uint32_t read = 0;
    while (platform::ReadFile(readEnd, chunk, sizeof chunk, read)) bytes.append(chunk, read);
    EXPECT_EQ(platform::GetLastError(), 109u);
    return bytes;
  }
  uint32_t ExitCode() const {
    uint32_t exitCode = 0;
    EXPECT_TRUE(platform::GetExitCodeProcess(handles.process, exitCode));
    return exitCode;
  }

  Handle readEnd = nullptr;
  platform::ProcessHandles handles;
  bool started = false;
};

void AnswerWith(const sim::ProcessResult& result) {
  sim::SetProcessHandler([result](const std::wstring&) { return result; });
}

TEST(Processes, AChildWritesAtItsEndAndIsSignaledThen) {
  sim::Machine machine;
  AnswerWith({.exitCode = 7, .standardOutput = "out", .milliseconds = 100});
  Child child(L"\"program.exe\" arguments");
  EXPECT_EQ(child.ExitCode(), 259u);
  EXPECT_EQ(child.ReadAll(), "out");
  EXPECT_EQ(sim::Now(), 1'000'100u);
  EXPECT_EQ(platform::WaitForSingleObject(child.handles.process, 0), platform::kWaitObject0);
  EXPECT_EQ(child.ExitCode(), 7u);
  ASSERT_EQ(sim::StartedProcesses().size(), 1u);
  EXPECT_EQ(sim::StartedProcesses()[0].commandLine, L"\"program.exe\" arguments");
}

TEST(Processes, MoreOutputThanThePipeHoldsWaitsForTheReader) {
  sim::Machine machine;
  AnswerWith({.standardOutput = std::string(10'000, 'x')});
  Child child(L"program");
  EXPECT_EQ(platform::WaitForSingleObject(child.handles.process, 60'000), platform::kWaitTimeout);
  EXPECT_EQ(child.ReadAll().size(), 10'000u);
  EXPECT_EQ(platform::WaitForSingleObject(child.handles.process, 0), platform::kWaitObject0);
}

TEST(Processes, AProgramThatDoesNotStartIsMissing) {
  sim::Machine machine;
  AnswerWith({.starts = false});
  Child child(L"program");
  EXPECT_FALSE(child.started);
  EXPECT_EQ(platform::GetLastError(), 2u);
  EXPECT_TRUE(sim::StartedProcesses().empty());
}

TEST(Processes, AnInheritedWriteEndKeepsThePipeOpen) {
  sim::Machine machine;
  sim::SetProcessHandler([](const std::wstring& commandLine) {
    sim::ProcessResult result;
    result.milliseconds = commandLine == L"slow" ? 5000 : 50;
    return result;
  });
  Handle readEnd = nullptr;
  Handle writeEnd = nullptr;
  platform::CreatePipe(readEnd, writeEnd);
  {
    Child slow(L"slow");
    platform::CloseHandle(writeEnd);
    char byte = 0;
    uint32_t read = 0;
    EXPECT_FALSE(platform::ReadFile(readEnd, &byte, 1, read));
    EXPECT_EQ(sim::Now(), 1'005'000u);
  }
  platform::CloseHandle(readEnd);
}

uint32_t RunWireGuard(const std::wstring& arguments, std::string* output = nullptr,
                      const std::wstring& program = L"wireguard.exe") {
  Child child(L"\"C:\\Program Files\\WireGuard\\" + program + L"\" " + arguments);
  if (!child.started) return 9999;
  const std::string text = child.ReadAll();
  if (output) *output = text;
  platform::WaitForSingleObject(child.handles.process, platform::kInfinite);
  return child.ExitCode();
}

TEST(WireGuard, InstallsAndRemovesItsTunnelService) {
  sim::Machine machine;
  const std::wstring install = std::wstring(L"/installtunnelservice \"") + kConf + L'"';
  EXPECT_EQ(RunWireGuard(install), 1u);
  sim::PutFile(kConf, "[Interface]");
  EXPECT_EQ(RunWireGuard(install), 0u);
  sim::Run(20);
  EXPECT_EQ(sim::ServiceState(L"WireGuardTunnel$telvor"), platform::kServiceRunning);
  EXPECT_TRUE(sim::HasAdapter(L"telvor"));
  EXPECT_EQ(RunWireGuard(install), 1u);
  EXPECT_EQ(RunWireGuard(L"/uninstalltunnelservice telvor"), 0u);
  EXPECT_FALSE(sim::ServiceInstalled(L"WireGuardTunnel$telvor"));
  EXPECT_FALSE(sim::HasAdapter(L"telvor"));
  EXPECT_EQ(RunWireGuard(L"/uninstalltunnelservice telvor"), 1u);
}

TEST(WireGuard, WgShowsHandshakeAndCounters) {
  sim::Machine machine;
  std::string output;
  EXPECT_EQ(RunWireGuard(L"show \"telvor\" latest-handshakes", &output, L"wg.exe"), 1u);
  sim::AddAdapter(L"telvor", 42);
  EXPECT_EQ(RunWireGuard(L"show \"telvor\" latest-handshakes", &output, L"wg.exe"), 0u);
  EXPECT_EQ(output.substr(output.find('\t')), "\t1767225600\n");
  sim::HandshakeAnswers(false);
  RunWireGuard(L"show \"telvor\" latest-handshakes", &output, L"wg.exe");
  EXPECT_EQ(output.substr(output.find('\t')), "\t0\n");
  sim::SetTransfer(12, 34);
  RunWireGuard(L"show telvor transfer", &output, L"wg.exe");
  EXPECT_EQ(output.substr(output.find('\t')), "\t12\t34\n");
}

TEST(WireGuard, WithoutItsFileAProgramDoesNotStart) {
  sim::Machine machine;
  sim::RemoveFile(L"C:\\Program Files\\WireGuard\\wireguard.exe");
  EXPECT_EQ(RunWireGuard(L"/uninstalltunnelservice telvor"), 9999u);
}

}  // namespace
