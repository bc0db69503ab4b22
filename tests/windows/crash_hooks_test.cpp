// Which of the crash hooks a process ends in, by the way it ends.
#include "platform/platform_fixture.h"
#include "windows/program_folder.h"
#include "wireguard/process_runner.h"

namespace {

struct Ending {
  const wchar_t* way;  // the program's argument
  const wchar_t* hooks;
  uint32_t exitCode;
};

class CrashHooksTest : public PlatformTest, public testing::WithParamInterface<Ending> {};

constexpr uint32_t kAborted = 3;
constexpr uint32_t kAccessViolation = 0xC0000005;

}  // namespace

TEST_P(CrashHooksTest, OneHookRunsOnce) {
  uint32_t exitCode = 0;
  std::wstring hooks;
  std::wstring errors;
  const std::wstring program = (ProgramFolder() / "telvor_crash.exe").wstring();
  ASSERT_TRUE(RunProcessCapture(program, GetParam().way, exitCode, hooks, errors));
  EXPECT_EQ(hooks, GetParam().hooks);
  EXPECT_EQ(exitCode, GetParam().exitCode);
}

INSTANTIATE_TEST_SUITE_P(EveryEnd, CrashHooksTest,
                         testing::Values(Ending{L"exception", L"terminate\r\n", kAborted},
                                         Ending{L"thread-exception", L"terminate\r\n", kAborted},
                                         Ending{L"access-violation", L"filter\r\n", kAccessViolation},
                                         Ending{L"return", L"exit\r\n", 0}));
