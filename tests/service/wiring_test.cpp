// The two tables, as the program's entry fills them.
#include "service/wiring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "controlplane/base_url.h"
#include "engine/operations.h"
#include "ipc/methods.h"
#include "sim/kernel.h"

namespace {

// Every operation of the table, as an untyped pointer.
std::vector<const void*> Entries(const WorkerOperations& table) {
  std::vector<const void*> entries(sizeof table / sizeof(void*));
  std::memcpy(entries.data(), &table, sizeof table);
  return entries;
}

TEST(WireSubsystems, FillsEveryOperation) {
  sim::Machine machine;
  const std::vector<const void*> empty = Entries(EmptyWorkerOperations());
  WireSubsystems();
  const std::vector<const void*> wired = Entries(gWorkerOperations);
  ASSERT_EQ(wired.size(), 23u);
  for (size_t i = 0; i < wired.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_NE(wired[i], nullptr);
    EXPECT_NE(wired[i], empty[i]);
  }
}

TEST(WireSubsystems, TakesTheBuildsBaseUrl) {
  sim::Machine machine;
  WireSubsystems();
  EXPECT_EQ(std::wstring(gWorkerOperations.defaultCpBaseUrl), kDefaultCpBaseUrl);
}

TEST(WireSubsystems, GivesEveryMethodABodyOfItsOwn) {
  sim::Machine machine;
  WireSubsystems();
  std::set<PipeMethodBody> bodies;
  for (const PipeMethod& method : gPipeMethods) {
    EXPECT_NE(method.body, nullptr) << method.name;
    bodies.insert(method.body);
  }
  EXPECT_EQ(bodies.size(), 19u);
}

}  // namespace
