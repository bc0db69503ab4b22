// What becomes of a built-in base URL with the default port and a path. This program is built with such a
// URL.
#include <gtest/gtest.h>

#include "controlplane/base_url.h"
#include "sim/kernel.h"

namespace {

TEST(InitCpBaseUrl, DropsTheDefaultPortAndThePath) {
  sim::Machine machine;
  EXPECT_EQ(gCpBaseUrl, L"https://cp.telvor.test:443/api/v2");
  InitCpBaseUrl();
  EXPECT_EQ(gCpBaseUrl, L"https://cp.telvor.test");
}

}  // namespace
