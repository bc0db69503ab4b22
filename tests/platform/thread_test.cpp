// Threads, events, locks and the small facts of the process.
#include <mutex>

#include "platform/platform_fixture.h"
#include "service/platform.h"
#include "splittunnel/platform.h"

namespace {

using ThreadTest = PlatformTest;

uint32_t ReturnArgument(void* argument) {
  return *static_cast<uint32_t*>(argument);
}

platform::Handle gGate = nullptr;

uint32_t WaitForGate(void*) {
  return platform::WaitForSingleObject(gGate, platform::kInfinite);
}

}  // namespace

TEST_F(ThreadTest, AThreadGetsItsArgumentAndLeavesItsExitCode) {
  uint32_t argument = 4711;
  platform::Handle thread = platform::CreateThread(ReturnArgument, &argument);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(platform::WaitForSingleObject(thread, 10000), platform::kWaitObject0);
  uint32_t code = 0;
  EXPECT_TRUE(platform::GetExitCodeThread(thread, code));
  EXPECT_EQ(code, 4711u);
  EXPECT_TRUE(platform::CloseHandle(thread));
}

TEST_F(ThreadTest, AWaitForSeveralTellsWhichOne) {
  gGate = platform::CreateEventW(true, false);
  platform::Handle other = platform::CreateEventW(true, true);
  platform::Handle thread = platform::CreateThread(WaitForGate, nullptr);
  const platform::Handle handles[] = {gGate, thread, other};
  EXPECT_EQ(platform::WaitForMultipleObjects(2, handles, false, 20), platform::kWaitTimeout);
  EXPECT_EQ(platform::WaitForMultipleObjects(3, handles, false, platform::kInfinite), 2u);
  EXPECT_TRUE(platform::SetEvent(gGate));
  EXPECT_EQ(platform::WaitForMultipleObjects(2, handles, true, 10000), platform::kWaitObject0);
  for (platform::Handle handle : handles) EXPECT_TRUE(platform::CloseHandle(handle));
}

TEST_F(ThreadTest, AManualEventStaysSetAndAnAutomaticOneDoesNot) {
  platform::Handle manual = platform::CreateEventW(true, true);
  platform::Handle automatic = platform::CreateEventW(false, true);
  EXPECT_EQ(platform::WaitForSingleObject(manual, 0), platform::kWaitObject0);
  EXPECT_EQ(platform::WaitForSingleObject(manual, 0), platform::kWaitObject0);
  EXPECT_EQ(platform::WaitForSingleObject(automatic, 0), platform::kWaitObject0);
  EXPECT_EQ(platform::WaitForSingleObject(automatic, 0), platform::kWaitTimeout);
  EXPECT_TRUE(platform::CloseHandle(manual));
  EXPECT_TRUE(platform::CloseHandle(automatic));
}

TEST_F(ThreadTest, AWaitOnNothingFails) {
  EXPECT_EQ(platform::WaitForSingleObject(nullptr, 0), platform::kWaitFailed);
  EXPECT_EQ(platform::GetLastError(), 6u);
}

TEST_F(ThreadTest, TheTickCountGoesOnInSleep) {
  const uint64_t before = platform::GetTickCount64();
  platform::Sleep(60);
  EXPECT_GE(platform::GetTickCount64() - before, 40u);
}

TEST_F(ThreadTest, TheClockIsInThisCentury) {
  EXPECT_GT(platform::Time64(), 1700000000);
  const platform::SystemTime now = platform::GetLocalTime();
  EXPECT_GE(now.year, 2023);
  EXPECT_TRUE(now.month >= 1 && now.month <= 12 && now.day >= 1 && now.day <= 31 && now.hour <= 23);
}

TEST_F(ThreadTest, TheMutexWorksWithAGuard) {
  static platform::Mutex mutex;
  { std::lock_guard guard(mutex); }
  { std::lock_guard guard(mutex); }
  SUCCEED();
}

TEST_F(ThreadTest, TheExecutableHasAPath) {
  wchar_t path[1024];
  const uint32_t length = platform::GetModuleFileNameW(path, 1024);
  EXPECT_TRUE(std::wstring(path, length).ends_with(L".exe"));
  EXPECT_EQ(std::wstring(path, 3).substr(1), L":\\");
}
