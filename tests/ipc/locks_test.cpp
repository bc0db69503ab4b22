// The locks of the methods: each held for copying only, and one at a time.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>

#include "ipc/views.h"
#include "tests/ipc/account_fixture.h"

namespace {

using namespace ipc_test;

platform::Mutex* const kLocks[] = {&gLastErrorMutex, &gBypassMutex, &gUiLock, &gSessionMutex};

// Whether another thread gets the lock at once.
bool IsFree(platform::Mutex& mutex) {
  const auto taken = std::make_shared<bool>(false);
  sim::StartThread("looker", [taken, &mutex] {
    const std::lock_guard lock(mutex);
    *taken = true;
  });
  return sim::RunUntil([taken] { return *taken; }, 1);
}

const Lines kRequests = {
    R"({"method":"GetState"})",
    R"({"method":"GET /ui/status"})",
    R"({"method":"GET /ui/locations"})",
    R"({"method":"POST /ui/login","email":"user@example.com","password":"secret"})",
    R"({"method":"POST /ui/select-location","server_id":"srv-b"})",
    R"({"method":"POST /ui/logout"})",
};

// The request runs beside a thread that takes one lock again and again and sits on it: whenever the request
// waits for it, it has no other lock in its hands.
void ExpectNoOtherLockHeldWhileWaitingFor(platform::Mutex& held, const std::string& request, uint64_t seed) {
  constexpr uint32_t kSits = 10;
  bool ended = false;
  sim::Machine machine({.seed = seed});
  WireRecordedOperations();
  sim::UseControlPlane();
  PutSession("access-1", 3600);
  gCachedAccessToken = L"access-1";
  sim::StartThread("holder", [&] {
    while (!ended) {
      const std::lock_guard lock(held);
      platform::Sleep(kSits);
    }
  });
  sim::Run(1);
  sim::StartThread("client", [&] {
    ReplyTo(request);
    ended = true;
  });
  for (int look = 0; look < 1000 && !ended; ++look) {
    sim::Run(kSits / 2);
    for (platform::Mutex* other : kLocks) {
      EXPECT_TRUE(other == &held || IsFree(*other)) << request;
    }
  }
  EXPECT_TRUE(ended) << request;
  sim::Run(2ULL * kSits);
}

TEST(Locks, AreNeverTakenTwoAtATime) {
  for (platform::Mutex* held : kLocks) {
    for (const std::string& request : kRequests) {
      for (uint64_t seed = 1; seed <= 4; ++seed) ExpectNoOtherLockHeldWhileWaitingFor(*held, request, seed);
    }
  }
}

TEST(Locks, AreNotHeldByTheViewsWhileTheyWait) {
  const struct {
    const char* method;
    Lines waits;
    size_t probes;  // of wg.exe
  } cases[] = {{"GetState", {"CreateFileW", "CreateFileW"}, 1},
               {"GET /ui/status", {"CryptUnprotectData", "WinHttpSendRequest", "CryptProtectData"}, 1},
               {"GET /ui/locations", {"WinHttpSendRequest", "WinHttpReceiveResponse"}, 0},
               {"GET /ui/logs", {"ReadFile"}, 0}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.method);
    AccountMachine machine;
    sim::PutFile(L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log", "a line\r\n");
    PutSession("access-0", 10);
    gCachedAccessToken = L"access-0";
    gTunnelStatus = kStatusConnected;
    gWorkerOperations.WgGetRxTxBytes = [](const std::wstring&, uint64_t&, uint64_t&) {
      TakeEveryLock();
      Note("WgGetRxTxBytes");
      return true;
    };
    const auto looks = LookForLocksBefore(one.waits);
    Call(one.method);
    EXPECT_EQ(*looks, one.waits.size());
    EXPECT_EQ(gOperations.calls.size(), one.probes);
  }
}

// Who gets the lock behind the locations view sees the new list, its selection and the line about it.
TEST(Locks, CoverTheWholeChangeOfCatalogueAndSelection) {
  constexpr char kLine[] = "[UI] Default-selected server_id=srv-a";
  for (uint64_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    std::string seen;
    sim::Machine machine({.seed = seed});
    WireRecordedOperations();
    sim::UseControlPlane().locationsBody = R"({"servers":[{"server_id":"srv-a"},{"server_id":"srv-b"}]})";
    gCachedAccessToken = L"access-1";
    const auto look = [&seen, &kLine] {
      const std::lock_guard lock(gUiLock);
      seen = std::to_string(gUiServers.size()) + gSelectedServerId + (sim::LogHas(kLine) ? " told" : "");
    };
    // The last line of the fetch; the next one is that about the selection.
    sim::Before(
        "WriteFile",
        [look] { sim::Before("GetEnvironmentVariableW", [look] { sim::StartThread("other", look); }); },
        "parsed servers=2");
    BuildLocationsJson();
    EXPECT_TRUE(sim::RunUntil([&seen] { return !seen.empty(); }, 1000));
    EXPECT_EQ(seen, "2srv-a told");
  }
}

}  // namespace
