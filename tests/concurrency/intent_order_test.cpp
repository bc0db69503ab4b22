// A change of intent as another thread sees it while it is written: who sees the new status sees the new
// epoch, and who sees the new epoch sees the new wish. No platform call stands between the writes, so only
// threads that really run at once can look in between.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "engine/tunnel_state.h"
#include "ipc/intent_methods.h"

namespace {

constexpr int kMostRounds = 1000000;
constexpr auto kLongest = std::chrono::seconds(3);

struct Change {
  int32_t desiredBefore, statusBefore;
  void (*write)();
  int32_t desired, status;
};

// Yields rarely: threads that yield to one another run in turns and never look in between.
void Pause(int looks) {
  if (looks % 20000 == 0) std::this_thread::yield();
}

template <typename Condition>
void WaitFor(const Condition& condition) {
  for (int looks = 1; !condition(); ++looks) Pause(looks);
}

// Looks until the change is whole; what it saw in the wrong order.
std::string Look(const Change& change, uint64_t epochBefore) {
  for (int looks = 1;; ++looks) {
    // In the reverse order of the writes.
    const bool newStatus = gTunnelStatus == change.status;
    const bool newEpoch = gTunnelEpoch != epochBefore;
    const bool newDesired = gTunnelDesired == change.desired;
    if (newStatus && !newEpoch) return "the status before the epoch";
    if (newEpoch && !newDesired) return "the epoch before the wish";
    if (newStatus) return "";
    Pause(looks);
  }
}

// Writes the change over and over while another thread looks.
std::string SeenOutOfOrder(const Change& change) {
  std::atomic<int> asked = 0;
  std::atomic<int> answered = 0;
  std::atomic<uint64_t> epochBefore = 0;
  std::string seen;
  std::thread looker([&] {
    for (int round = 1;; ++round) {
      WaitFor([&] { return asked == round || asked < 0; });
      if (asked < 0) return;
      const std::string now = Look(change, epochBefore);
      if (!now.empty()) seen = now;
      answered = round;
    }
  });
  const auto end = std::chrono::steady_clock::now() + kLongest;
  for (int round = 1; round <= kMostRounds && std::chrono::steady_clock::now() < end; ++round) {
    gTunnelDesired = change.desiredBefore;
    gTunnelStatus = change.statusBefore;
    epochBefore = gTunnelEpoch.load();
    asked = round;
    change.write();
    WaitFor([&] { return answered == round; });
  }
  asked = -1;
  looker.join();
  return seen;
}

TEST(Intent, OfADisconnectIsWrittenInItsOrder) {
  EXPECT_EQ(SeenOutOfOrder({kDesiredConnected, kStatusConnected, &WriteDisconnectIntent, kDesiredDisconnected,
                            kStatusDisconnected}),
            "");
}

TEST(Intent, OfAConnectIsWrittenInItsOrder) {
  const auto connect = [] {
    static const std::string line;
    std::string reply;
    ConnectMethod({line, 0}, reply);
  };
  EXPECT_EQ(
      SeenOutOfOrder({kDesiredDisconnected, kStatusError, connect, kDesiredConnected, kStatusConnecting}),
      "");
}

}  // namespace
