#include "sim/kernel.h"

#include <gmock/gmock.h>

#include <sched.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "engine/tunnel_state.h"
#include "sim/device.h"
#include "sim/files.h"
#include "sim_fixture.h"

namespace {

using platform::kInfinite;
using platform::kWaitFailed;
using platform::kWaitObject0;
using platform::kWaitTimeout;

class KernelDeathTest : public testing::Test {
 protected:
  KernelDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Three threads that meet at an event and a mutex, and log what they do.
std::string TraceOfThreeThreads(uint64_t seed) {
  sim::Options options;
  options.seed = seed;
  sim::Machine machine(options);
  platform::Handle gate = platform::CreateEventW(true, false);
  platform::Mutex mutex;
  for (int number = 0; number < 3; ++number) {
    sim::StartThread("worker", [&mutex, gate, number] {
      platform::WaitForSingleObject(gate, kInfinite);
      for (int round = 0; round < 5; ++round) {
        std::lock_guard lock(mutex);
        platform::CreateDirectoryW(L"C:\\" + std::to_wstring(number));
      }
    });
  }
  sim::Run(10);
  platform::SetEvent(gate);
  sim::Run(10);
  platform::CloseHandle(gate);
  return sim::TraceText();
}

// ---- Time ----

TEST(Kernel, TimeStandsStillWhileSomebodyRuns) {
  sim::Machine machine;
  EXPECT_EQ(platform::GetTickCount64(), 1'000'000u);
  for (int call = 0; call < 1000; ++call) platform::CreateDirectoryW(L"C:\\x");
  EXPECT_EQ(platform::GetTickCount64(), 1'000'000u);
}

TEST(Kernel, SleepTakesExactlyItsVirtualTime) {
  sim::Machine machine;
  platform::Sleep(30'000);
  EXPECT_EQ(sim::Now(), 1'030'000u);
}

TEST(Kernel, TheClockStartsIn2026AndCanJump) {
  sim::Machine machine;
  EXPECT_EQ(platform::Time64(), 1'767'225'600);
  sim::Run(86'400'000);
  const platform::SystemTime next = platform::GetLocalTime();
  EXPECT_EQ(next.year, 2026);
  EXPECT_EQ(next.month, 1);
  EXPECT_EQ(next.day, 2);
  sim::SetUnixTime(951'827'696);  // 2000-02-29 12:34:56
  const platform::SystemTime leap = platform::GetLocalTime();
  EXPECT_EQ(leap.month, 2);
  EXPECT_EQ(leap.day, 29);
  EXPECT_EQ(leap.hour, 12);
  EXPECT_EQ(leap.minute, 34);
  EXPECT_EQ(leap.second, 56);
}

TEST(Kernel, RunUntilStopsAtTheCallThatMakesTheConditionTrue) {
  sim::Machine machine;
  int count = 0;
  sim::StartThread("counter", [&count] {
    for (;; platform::Sleep(250)) ++count;
  });
  EXPECT_TRUE(sim::RunUntil([&count] { return count == 5; }, 60'000));
  EXPECT_EQ(count, 5);
  EXPECT_EQ(sim::Now(), 1'001'000u);
}

TEST(Kernel, RunUntilGivesUpWhenItsTimeIsOver) {
  sim::Machine machine;
  EXPECT_FALSE(sim::RunUntil([] { return false; }, 5000));
  EXPECT_EQ(sim::Now(), 1'005'000u);
}

// ---- The schedule ----

TEST(Kernel, TheSameSeedGivesTheSameTrace) {
  for (uint64_t seed = 1; seed <= 20; ++seed) EXPECT_EQ(TraceOfThreeThreads(seed), TraceOfThreeThreads(seed));
}

TEST(Kernel, DifferentSeedsGiveDifferentTraces) {
  int different = 0;
  for (uint64_t seed = 2; seed <= 20; ++seed)
    different += TraceOfThreeThreads(seed) != TraceOfThreeThreads(1);
  EXPECT_GE(different, 15);
}

TEST(Kernel, OnlyOneThreadIsEverInsideAMutex) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    sim::Options options;
    options.seed = seed;
    sim::Machine machine(options);
    platform::Mutex mutex;
    int inside = 0;
    int most = 0;
    for (int number = 0; number < 4; ++number) {
      sim::StartThread("locker", [&] {
        std::lock_guard lock(mutex);
        most = std::max(most, ++inside);
        platform::Sleep(10);
        --inside;
      });
    }
    sim::Run(1000);
    EXPECT_EQ(most, 1);
    EXPECT_EQ(inside, 0);
  }
}

TEST(Kernel, AConditionOfRunUntilMayLockAMutexThatAThreadHolds) {
  sim::Machine machine;
  platform::Mutex mutex;
  bool inside = false;
  sim::StartThread("locker", [&] {
    std::lock_guard lock(mutex);
    inside = true;
    platform::Sleep(1000);
    inside = false;
  });
  EXPECT_TRUE(sim::RunUntil(
      [&] {
        std::lock_guard lock(mutex);
        return inside;
      },
      60'000));
  sim::Run(2000);
  EXPECT_FALSE(inside);
}

TEST(Kernel, AFailingLockThrowsSoOftenAsToldAndThenWorks) {
  sim::Machine machine;
  platform::Mutex mutex;
  sim::FailLock(mutex, 2);
  EXPECT_THROW(mutex.lock(), std::system_error);
  EXPECT_THROW(mutex.lock(), std::system_error);
  EXPECT_NO_THROW(mutex.lock());
  mutex.unlock();
}

// ---- Events and waits ----

TEST(Kernel, AManualResetEventStaysSetAndAnAutoResetEventWakesOne) {
  sim::Machine machine;
  const platform::Handle manual = platform::CreateEventW(true, true);
  EXPECT_EQ(platform::WaitForSingleObject(manual, 0), kWaitObject0);
  EXPECT_EQ(platform::WaitForSingleObject(manual, 0), kWaitObject0);
  const platform::Handle automatic = platform::CreateEventW(false, true);
  EXPECT_EQ(platform::WaitForSingleObject(automatic, 0), kWaitObject0);
  EXPECT_EQ(platform::WaitForSingleObject(automatic, 250), kWaitTimeout);
  EXPECT_EQ(sim::Now(), 1'000'250u);
  platform::CloseHandle(manual);
  platform::CloseHandle(automatic);
}

TEST(Kernel, AWaitForSeveralGivesTheLowestOrWaitsForAll) {
  sim::Machine machine;
  const platform::Handle handles[] = {platform::CreateEventW(true, false), platform::CreateEventW(true, true),
                                      platform::CreateEventW(true, true)};
  EXPECT_EQ(platform::WaitForMultipleObjects(3, handles, false, 0), kWaitObject0 + 1);
  EXPECT_EQ(platform::WaitForMultipleObjects(3, handles, true, 100), kWaitTimeout);
  platform::SetEvent(handles[0]);
  EXPECT_EQ(platform::WaitForMultipleObjects(3, handles, true, 100), kWaitObject0);
  for (const platform::Handle handle : handles) platform::CloseHandle(handle);
}

TEST(Kernel, WaitingOnNothingFailsWithInvalidHandle) {
  sim::Machine machine;
  EXPECT_EQ(platform::WaitForSingleObject(nullptr, 0), kWaitFailed);
  EXPECT_EQ(platform::GetLastError(), 6u);
}

uint32_t AnswerFive(void*) {
  platform::Sleep(1000);
  return 5;
}

TEST(Kernel, AThreadIsSignaledWhenItEndsAndTellsItsExitCode) {
  sim::Machine machine;
  const platform::Handle thread = platform::CreateThread(&AnswerFive, nullptr);
  uint32_t exitCode = 0;
  EXPECT_TRUE(platform::GetExitCodeThread(thread, exitCode));
  EXPECT_EQ(exitCode, 259u);
  EXPECT_EQ(platform::WaitForSingleObject(thread, 500), kWaitTimeout);
  EXPECT_EQ(platform::WaitForSingleObject(thread, kInfinite), kWaitObject0);
  EXPECT_EQ(sim::Now(), 1'001'000u);
  EXPECT_TRUE(platform::GetExitCodeThread(thread, exitCode));
  EXPECT_EQ(exitCode, 5u);
  platform::CloseHandle(thread);
}

TEST(Kernel, TheLastErrorBelongsToItsThread) {
  sim::Machine machine;
  uint32_t seen = 77;
  sim::StartThread("other", [&seen] { seen = platform::GetLastError(); });
  platform::DeleteFileW(L"C:\\missing.txt");
  sim::Run(10);
  EXPECT_EQ(platform::GetLastError(), 2u);
  EXPECT_EQ(seen, 0u);
}

// ---- Faults and trace ----

TEST(Kernel, AFaultSkipsThenFailsSoManyCalls) {
  sim::Machine machine;
  sim::Fail({"CreateEventW", 8, 1, 2});
  const platform::Handle first = platform::CreateEventW(true, false);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(platform::CreateEventW(true, false), nullptr);
  EXPECT_EQ(platform::GetLastError(), 8u);
  EXPECT_EQ(platform::CreateEventW(true, false), nullptr);
  const platform::Handle last = platform::CreateEventW(true, false);
  EXPECT_NE(last, nullptr);
  platform::CloseHandle(first);
  platform::CloseHandle(last);
}

TEST(Kernel, AFaultMayLastAndMayAskForArguments) {
  sim::Machine machine;
  sim::Fail({"CreateDirectoryW", 5, 0, UINT32_MAX, "C:\\bad"});
  EXPECT_TRUE(platform::CreateDirectoryW(L"C:\\good"));
  for (int round = 0; round < 3; ++round) EXPECT_FALSE(platform::CreateDirectoryW(L"C:\\bad"));
  EXPECT_FALSE(sim::FolderExists(L"C:\\bad"));
  sim::ClearFaults();
  EXPECT_TRUE(platform::CreateDirectoryW(L"C:\\bad"));
}

TEST(Kernel, AnActionRunsOnceBeforeTheMatchingCallDoesItsWork) {
  sim::Machine machine;
  int runs = 0;
  sim::Before(
      "GetFileAttributesW",
      [&runs] {
        ++runs;
        sim::PutFile(L"C:\\late.txt", "x");
      },
      "late");
  EXPECT_EQ(platform::GetFileAttributesW(L"C:\\early.txt"), platform::kInvalidFileAttributes);
  EXPECT_NE(platform::GetFileAttributesW(L"C:\\late.txt"), platform::kInvalidFileAttributes);
  EXPECT_NE(platform::GetFileAttributesW(L"C:\\late.txt"), platform::kInvalidFileAttributes);
  EXPECT_EQ(runs, 1);
}

TEST(Kernel, TheTraceHoldsEveryCallWithItsArgumentsAndResult) {
  sim::Machine machine;
  platform::DeleteFileW(L"C:\\m\u00FCssing.txt");
  platform::Sleep(20);
  ASSERT_EQ(sim::Trace().size(), 2u);
  const sim::TraceEntry& entry = sim::Trace()[0];
  EXPECT_EQ(entry.operation, "DeleteFileW");
  EXPECT_EQ(entry.arguments, "path=\"C:\\m\xC3\xBCssing.txt\"");
  EXPECT_EQ(entry.result, "failed 2");
  EXPECT_EQ(entry.time, 1'000'000u);
  EXPECT_TRUE(entry.canFail);
  EXPECT_FALSE(sim::Trace()[1].canFail);
  EXPECT_EQ(sim::CountCalls("DeleteFileW", "ssing"), 1u);
  EXPECT_EQ(sim::CountCalls("DeleteFileW", "elsewhere"), 0u);
  sim::ClearTrace();
  EXPECT_EQ(sim::CountCalls("DeleteFileW"), 0u);
}

// Where only one thread runs at a time, another processor would only have to be woken for each.
TEST(Kernel, TheBatonStaysOnOneProcessorAsLongAsTheMachineLasts) {
  const auto processors = [] {
    cpu_set_t set;
    return sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 0;
  };
  const int before = processors();
  {
    sim::Machine machine;
    EXPECT_EQ(processors(), 1);
  }
  EXPECT_EQ(processors(), before);
  sim::Machine free({.freeRunning = true});
  EXPECT_EQ(processors(), before);
}

// ---- Watching ----

std::vector<std::string> gReturned;
std::vector<uint32_t> gStepped;

class Watched : public testing::Test {
 protected:
  explicit Watched(const sim::Options& options = {}) : machine_(options) {
    gReturned.clear();
    gStepped.clear();
    sim::SetWatch({.step = [](uint32_t thread) { gStepped.push_back(thread); },
                   .returned =
                       [](const sim::TraceEntry& entry) {
                         gReturned.push_back(std::string(entry.operation) + ' ' + entry.result);
                         platform::GetFileAttributesW(L"C:\\looked.txt");
                       }});
  }
  ~Watched() override { sim::SetWatch({}); }

  sim::Machine machine_;
};

TEST_F(Watched, SeesEveryCallThatHasReturnedAndLeavesNoTraceOfItsOwn) {
  platform::DeleteFileW(L"C:\\missing.txt");
  EXPECT_THAT(gReturned, testing::ElementsAre("DeleteFileW failed 2"));
  EXPECT_EQ(sim::CountCalls("GetFileAttributesW"), 0u);
}

TEST_F(Watched, SeesACallThatWasUnderWayAsTheTraceWasCleared) {
  sim::After(10, &sim::ClearTrace);
  platform::Sleep(20);
  EXPECT_THAT(gReturned, testing::ElementsAre("Sleep ok"));
}

class WatchedUntraced : public Watched {
 protected:
  WatchedUntraced() : Watched({.keepsTrace = false}) {}
};

TEST_F(WatchedUntraced, SeesEveryCallAllTheSame) {
  platform::DeleteFileW(L"C:\\missing.txt");
  EXPECT_THAT(gReturned, testing::ElementsAre("DeleteFileW failed 2"));
  EXPECT_THAT(sim::Trace(), testing::IsEmpty());
}

TEST_F(Watched, IsShownEachThreadBeforeAnotherRuns) {
  const platform::Handle event = platform::CreateEventW(true, false);
  sim::StartThread("waiter", [event] { platform::WaitForSingleObject(event, kInfinite); });
  sim::Run(10);
  platform::SetEvent(event);
  sim::Run(10);
  platform::CloseHandle(event);
  EXPECT_THAT(gStepped, testing::IsSupersetOf({0u, 1u}));
}

TEST_F(Watched, DoesNotSeeTheCallsOfAnEndedProcess) {
  sim::StartThread("sleeper", [] { platform::Sleep(1000); });
  sim::Run(10);
  gReturned.clear();
  sim::KillProcess();
  EXPECT_THAT(gReturned, testing::IsEmpty());
}

TEST(Kernel, CountsTheFaultsThatHadAnEffect) {
  sim::Machine machine;
  sim::Fail({"CreateDirectoryW", 5});
  sim::Shorten("WriteFile", 1);
  EXPECT_EQ(sim::FaultsApplied(), 0u);
  platform::CreateDirectoryW(L"C:\\new");
  EXPECT_EQ(sim::FaultsApplied(), 1u);
  const platform::Handle file = platform::CreateFileW(
      L"C:\\new.txt", platform::kGenericWrite, 0, platform::kCreateAlways, platform::kFileAttributeNormal);
  uint32_t written = 0;
  platform::WriteFile(file, "ab", 2, written);
  platform::CloseHandle(file);
  EXPECT_EQ(written, 1u);
  EXPECT_EQ(sim::FaultsApplied(), 2u);
}

TEST(Kernel, CountsTheLocksOfTheRunningThread) {
  sim::Machine machine;
  platform::Mutex first;
  platform::Mutex second;
  size_t heldByAnother = 7;
  const std::lock_guard lock(first);
  {
    const std::lock_guard another(second);
    EXPECT_EQ(sim::LocksHeld(), 2u);
  }
  sim::StartThread("other", [&heldByAnother] { heldByAnother = sim::LocksHeld(); });
  sim::Run(10);
  EXPECT_EQ(sim::LocksHeld(), 1u);
  EXPECT_EQ(heldByAnother, 0u);
}

TEST(Kernel, ListsEveryThreadWithWhatItWaitsFor) {
  sim::Machine machine;
  sim::StartThread("sleeper", [] { platform::Sleep(60'000); });
  sim::Run(10);
  EXPECT_THAT(sim::ThreadListing(),
              testing::AllOf(testing::HasSubstr("sleeper"), testing::HasSubstr("Sleep")));
}

// ---- Dead ends ----

TEST_F(KernelDeathTest, ADeadlockEndsTheTestWithAListingOfWhoWaitsWhere) {
  const auto deadlock = [] {
    sim::Machine machine;
    sim::StartThread("stuck one",
                     [] { platform::WaitForSingleObject(platform::CreateEventW(true, false), kInfinite); });
    platform::WaitForSingleObject(platform::CreateEventW(true, false), kInfinite);
  };
  EXPECT_DEATH(deadlock(),
               "deadlock.*\n.*'driver' waits in WaitForSingleObject handle=.*\n.*'stuck one' waits");
}

TEST_F(KernelDeathTest, AMutexLockedTwiceByOneThreadIsADeadlock) {
  const auto lockTwice = [] {
    sim::Machine machine;
    platform::Mutex mutex;
    mutex.lock();
    mutex.lock();
  };
  EXPECT_DEATH(lockTwice(), "locks a mutex that it holds");
}

TEST(Kernel, AnEndlessLoopWithoutPassingTimeIsReportedAndTheWaitGivenUp) {
  CaughtReports reports;
  sim::Options options;
  options.stepLimit = 1000;
  sim::Machine machine(options);
  sim::StartThread("spinner", [] {
    for (;;) platform::GetTickCount64();
  });
  EXPECT_FALSE(sim::RunUntil([] { return false; }, 1000));
  ASSERT_EQ(gReportedFailures.size(), 1u);
  EXPECT_NE(gReportedFailures[0].find("endless loop"), std::string::npos);
  EXPECT_NE(gReportedFailures[0].find("'spinner'"), std::string::npos);
}

// ---- The end of the process ----

TEST(Kernel, AKillUnwindsEveryThreadAndClosesItsHandles) {
  sim::Machine machine;
  bool destroyed = false;
  sim::StartThread("victim", [&destroyed] {
    const std::shared_ptr<void> guard(nullptr, [&destroyed](void*) { destroyed = true; });
    const platform::Handle event = platform::CreateEventW(true, false);
    platform::WaitForSingleObject(event, kInfinite);
    ADD_FAILURE() << "the wait returned";
  });
  sim::Run(10);
  EXPECT_EQ(sim::OpenHandles("event"), 1u);
  sim::KillProcess();
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(Kernel, AKilledThreadDoesNothingMoreWhateverItCatches) {
  sim::Machine machine;
  sim::StartThread("stubborn", [] {
    try {
      platform::Sleep(kInfinite);
    } catch (...) {
      platform::CreateDirectoryW(L"C:\\after-death");
      throw;
    }
  });
  sim::Run(10);
  sim::KillProcess();
  EXPECT_FALSE(sim::FolderExists(L"C:\\after-death"));
}

TEST(Kernel, DestructorsMayCallThePlatformWhileAKilledThreadUnwinds) {
  sim::Machine machine;
  platform::Mutex mutex;
  sim::StartThread("victim", [&mutex] {
    struct Closer {
      ~Closer() {
        platform::CreateDirectoryW(L"C:\\from-destructor");
        platform::CloseHandle(event);
      }
      platform::Handle event = platform::CreateEventW(true, false);
    } closer;
    std::lock_guard lock(mutex);
    platform::Sleep(kInfinite);
  });
  sim::Run(10);
  sim::KillProcess();
  EXPECT_FALSE(sim::FolderExists(L"C:\\from-destructor"));
  // The mutex of the dead process is free for the next one.
  std::lock_guard lock(mutex);
}

TEST(Kernel, AThreadKilledWhileItWaitsForAMutexUnwinds) {
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    sim::Options options;
    options.seed = seed;
    sim::Machine machine(options);
    platform::Mutex mutex;
    for (int number = 0; number < 3; ++number) {
      sim::StartThread("locker", [&mutex] {
        std::lock_guard lock(mutex);
        platform::Sleep(kInfinite);
      });
    }
    sim::Run(10);
    sim::KillProcess();
  }
}

TEST(Kernel, AKillSetsTheProcessWideVariablesBackAndKeepsTheFiles) {
  sim::Machine machine;
  gTunnelDesired = 1;
  gLastError = L"SESSION_EXPIRED";
  sim::StartThread("writer", [] { platform::CreateDirectoryW(L"C:\\kept"); });
  sim::Run(10);
  sim::KillProcess();
  EXPECT_EQ(gTunnelDesired, 0);
  EXPECT_EQ(gLastError, L"");
  EXPECT_TRUE(sim::FolderExists(L"C:\\kept"));
}

TEST(Kernel, AProcessCanBeKilledJustBeforeACall) {
  sim::Machine machine;
  sim::Before("CreateDirectoryW", [] { sim::KillProcess(); });
  sim::StartThread("victim", [] {
    platform::CreateEventW(true, false);
    platform::CreateDirectoryW(L"C:\\never");
  });
  sim::StartThread("bystander", [] { platform::Sleep(kInfinite); });
  sim::Run(10);
  EXPECT_FALSE(sim::FolderExists(L"C:\\never"));
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(Kernel, AClientThreadOutlivesTheProcess) {
  sim::Machine machine;
  bool done = false;
  sim::StartClientThread("client", [&done] {
    sim::Run(1000);
    done = true;
  });
  sim::Run(10);
  sim::KillProcess();
  sim::Run(2000);
  EXPECT_TRUE(done);
}

void RecordTerminate() {
  platform::CreateDirectoryW(L"C:\\terminate-ran");
  platform::Abort();
}

TEST(Kernel, AnExceptionThatLeavesAThreadRunsTheTerminateHookAndEndsTheProcess) {
  sim::Machine machine;
  platform::SetTerminate(&RecordTerminate);
  sim::StartThread("bystander", [] { platform::Sleep(kInfinite); });
  sim::StartThread("thrower", [] { throw std::runtime_error("out"); });
  EXPECT_TRUE(sim::RunUntil([] { return sim::ProcessAborted(); }, 1000));
  sim::Run(10);
  EXPECT_TRUE(sim::FolderExists(L"C:\\terminate-ran"));
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

TEST(Kernel, AbortOnTheDriverEndsTheProcessAndThrows) {
  sim::Machine machine;
  bool destroyed = false;
  sim::StartThread("bystander", [&destroyed] {
    const std::shared_ptr<void> guard(nullptr, [&destroyed](void*) { destroyed = true; });
    platform::Sleep(kInfinite);
  });
  sim::Run(10);
  EXPECT_THROW(platform::Abort(), sim::ProcessEnded);
  EXPECT_TRUE(destroyed);
  EXPECT_TRUE(sim::ProcessAborted());
}

// ---- Handles ----

TEST(Kernel, HandlesLeftOpenAreReportedWithTheirOrigin) {
  CaughtReports reports;
  {
    sim::Machine machine;
    platform::CreateEventW(true, false);
  }
  ASSERT_EQ(gReportedFailures.size(), 1u);
  EXPECT_NE(gReportedFailures[0].find("event 0x"), std::string::npos);
  EXPECT_NE(gReportedFailures[0].find("CreateEventW on thread 0"), std::string::npos);
}

TEST(Kernel, AnnouncedHandlesAndThoseOfAKilledProcessAreNotReported) {
  {
    sim::Machine machine;
    sim::ExpectOpenHandles(1);
    platform::CreateEventW(true, false);
  }
  sim::Machine machine;
  sim::StartThread("holder", [] {
    platform::CreateEventW(true, false);
    platform::Sleep(kInfinite);
  });
  sim::Run(10);
}

TEST(Kernel, ASecondCloseIsReported) {
  CaughtReports reports;
  sim::Machine machine;
  const platform::Handle event = platform::CreateEventW(true, false);
  EXPECT_TRUE(platform::CloseHandle(event));
  EXPECT_FALSE(platform::CloseHandle(event));
  EXPECT_EQ(platform::GetLastError(), 6u);
  ASSERT_EQ(gReportedFailures.size(), 1u);
  EXPECT_NE(gReportedFailures[0].find("which is closed"), std::string::npos);
}

TEST(Kernel, AHandleOfAnotherKindIsReported) {
  CaughtReports reports;
  sim::Machine machine;
  const platform::Handle event = platform::CreateEventW(true, false);
  int64_t size = 0;
  EXPECT_FALSE(platform::GetFileSizeEx(event, size));
  EXPECT_FALSE(platform::FindClose(event));
  EXPECT_TRUE(platform::CloseHandle(event));
  EXPECT_EQ(gReportedFailures.size(), 2u);
}

TEST(Kernel, AWaitOnAClosedEventFailsWithoutAReport) {
  sim::Machine machine;
  const platform::Handle event = platform::CreateEventW(true, false);
  platform::CloseHandle(event);
  EXPECT_EQ(platform::WaitForSingleObject(event, 0), kWaitFailed);
  EXPECT_FALSE(platform::SetEvent(event));
}

// ---- Without the baton ----

TEST(Kernel, FreeRunningThreadsShareTheMachine) {
  sim::Options options;
  options.freeRunning = true;
  sim::Machine machine(options);
  platform::Mutex mutex;
  int count = 0;
  for (int number = 0; number < 4; ++number) {
    sim::StartThread("counter", [&] {
      for (int round = 0; round < 100; ++round) {
        {
          std::lock_guard lock(mutex);
          ++count;
        }
        platform::Sleep(10);
      }
    });
  }
  EXPECT_TRUE(sim::RunUntil(
      [&] {
        std::lock_guard lock(mutex);
        return count == 400;
      },
      60'000));
  EXPECT_LE(sim::Now(), 1'001'000u);
}

TEST(Kernel, AFreeRunningThreadMaySleepWithALock) {
  sim::Options options;
  options.freeRunning = true;
  sim::Machine machine(options);
  platform::Mutex mutex;
  int done = 0;
  for (int number = 0; number < 2; ++number) {
    sim::StartThread("sleeper", [&] {
      std::lock_guard lock(mutex);
      platform::Sleep(1000);
      ++done;
    });
  }
  sim::Run(5000);
  std::lock_guard lock(mutex);
  EXPECT_EQ(done, 2);
}

TEST(Kernel, AFreeRunningProcessCanBeKilled) {
  sim::Options options;
  options.freeRunning = true;
  sim::Machine machine(options);
  const platform::Handle never = platform::CreateEventW(true, false);
  for (int number = 0; number < 3; ++number) {
    sim::StartThread("busy", [] {
      for (;;) platform::CreateDirectoryW(L"C:\\busy");
    });
    sim::StartThread("waiting", [never] { platform::WaitForSingleObject(never, kInfinite); });
  }
  sim::Run(0);
  sim::KillProcess();
  EXPECT_EQ(sim::OpenHandles(), 0u);
}

}  // namespace
