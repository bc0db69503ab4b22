// The control-plane address that the firewall baseline pins.
#include "tests/engine/worker_fixture.h"

namespace {

std::vector<std::string> Sleeps() {
  std::vector<std::string> sleeps;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation == "Sleep") sleeps.push_back(entry.arguments);
  }
  return sleeps;
}

TEST(ResolveCpIpV4, TakesTheFirstAddress) {
  sim::Machine machine;
  fake::PlugOperations();
  fake::gState.controlPlaneAddresses = {L"10.0.0.7", L"9.0.0.1"};
  EXPECT_TRUE(ResolveCpIpV4(L"https://else.example"));
  EXPECT_EQ(gCpIpV4, L"10.0.0.7");
  EXPECT_EQ(fake::Journal(), (Journal{
                                 "call ParseHttpsBaseUrl https://else.example",
                                 "call ResolveHostIpV4 cp.example",
                             }));
  EXPECT_TRUE(Sleeps().empty());
}

TEST(ResolveCpIpV4, ForgetsTheAddressWhenTheUrlIsBad) {
  sim::Machine machine;
  fake::PlugOperations();
  gCpIpV4 = L"1.2.3.4";
  fake::gState.refusing = {"ParseHttpsBaseUrl"};
  EXPECT_FALSE(ResolveCpIpV4(L"http://cp.example"));
  EXPECT_EQ(gCpIpV4, L"");
  EXPECT_EQ(fake::Count("ResolveHostIpV4"), 0u);
}

TEST(ResolveCpIpV4, PausesLongerAfterEachEmptyAnswer) {
  sim::Machine machine;
  fake::PlugOperations();
  fake::gState.answers["ResolveHostIpV4"] = {false, false, false, false, true};
  EXPECT_TRUE(ResolveCpIpV4(fake::kBaseUrl));
  EXPECT_EQ(Gaps(fake::Times("ResolveHostIpV4")), (std::vector<uint64_t>{250, 500, 750, 1000}));
  EXPECT_EQ(gCpIpV4, L"10.99.0.1");
}

TEST(ResolveCpIpV4, GivesUpAfterFiveAttemptsAndALastPause) {
  sim::Machine machine;
  fake::PlugOperations();
  gCpIpV4 = L"1.2.3.4";
  fake::gState.refusing = {"ResolveHostIpV4"};
  const uint64_t start = sim::Now();
  EXPECT_FALSE(ResolveCpIpV4(fake::kBaseUrl));
  EXPECT_EQ(gCpIpV4, L"");
  EXPECT_EQ(fake::Count("ResolveHostIpV4"), 5u);
  EXPECT_EQ(Sleeps().size(), 5u);
  EXPECT_EQ(sim::Now() - start, 3750u);
}

// The first entry is taken as it is; the connect pass refuses an empty one.
TEST(ResolveCpIpV4, KeepsAnEmptyFirstAddressAsASuccess) {
  sim::Machine machine;
  fake::PlugOperations();
  fake::gState.controlPlaneAddresses = {L"", L"10.0.0.7"};
  EXPECT_TRUE(ResolveCpIpV4(fake::kBaseUrl));
  EXPECT_EQ(gCpIpV4, L"");
}

}  // namespace
