// The walk over enumerated objects, over an enumeration of the test's own.
#include "firewall/enumeration.h"

#include <gtest/gtest.h>

#include "tests/firewall/firewall_fixture.h"

namespace {

using namespace firewall_test;

// What the enumeration gives, and what was asked of it.
std::vector<std::vector<platform::FwpmEntry>> gBatches;
uint32_t gNextCode = 0;
Lines gCalls;

platform::FwpmEntry Entry(uint64_t id, bool present = true) {
  platform::FwpmEntry entry;
  entry.present = present;
  entry.filterId = id;
  return entry;
}

uint32_t Create(platform::Handle, platform::Handle&) {
  return 0;
}
uint32_t Next(platform::Handle, platform::Handle, uint32_t requested, platform::FwpmBatch& batch) {
  gCalls.push_back("next " + std::to_string(requested));
  if (gBatches.empty()) return gNextCode;
  batch.entries = gBatches.front();
  gBatches.erase(gBatches.begin());
  return 0;
}
uint32_t Destroy(platform::Handle, platform::Handle) {
  gCalls.push_back("destroy");
  return 0;
}
constexpr Enumeration kEnumeration{&Create, &Next, &Destroy, L"create", L"next"};

WalkEnd Walk() {
  gCalls.clear();
  return WalkObjects(nullptr, kEnumeration, [](const platform::FwpmEntry& entry) {
    gCalls.push_back("visit " + std::to_string(entry.filterId));
  });
}

TEST(WalkObjects, PassesEntriesOverThatAreNotPresent) {
  sim::Machine machine;
  gBatches = {{Entry(1), Entry(2, false), Entry(3)}};
  gNextCode = 0;
  EXPECT_EQ(Walk(), WalkEnd::kComplete);
  EXPECT_EQ(gCalls, (Lines{"next 256", "visit 1", "visit 3", "next 256", "destroy"}));
}

TEST(WalkObjects, EndsAtAnEmptyBatchAndNotAtOneWithoutPresentEntries) {
  sim::Machine machine;
  gBatches = {{Entry(1, false)}, {Entry(2)}, {}, {Entry(3)}};
  EXPECT_EQ(Walk(), WalkEnd::kComplete);
  EXPECT_EQ(gCalls, (Lines{"next 256", "next 256", "visit 2", "next 256", "destroy"}));
}

TEST(WalkObjects, ReleasesTheHandleOfABrokenWalk) {
  sim::Machine machine;
  gBatches = {{Entry(1)}};
  gNextCode = kAccessDenied;
  EXPECT_EQ(Walk(), WalkEnd::kBroken);
  EXPECT_EQ(gCalls, (Lines{"next 256", "visit 1", "next 256", "destroy"}));
  EXPECT_EQ(sim::LogLines(), Lines{ErrorLine("next", kAccessDenied)});
}

}  // namespace
