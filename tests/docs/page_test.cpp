// The readers of pages and sources, which the other tests of this folder rely on.
#include "tests/docs/page.h"

#include <gtest/gtest.h>

#include "tests/docs/source_texts.h"

namespace {

TEST(Page, APlaceholderStandsForAnything) {
  EXPECT_TRUE(Fits("count=<n>", "count=3"));
  EXPECT_TRUE(Fits("count=<n>", "count="));
  EXPECT_TRUE(Fits("gw=<address> ifIndex=<n> (fallback)", "gw=192.168.1.1 ifIndex=7 (fallback)"));
  EXPECT_FALSE(Fits("gw=<address> ifIndex=<n> (fallback)", "gw=192.168.1.1 ifIndex=7"));
  EXPECT_FALSE(Fits("count=<n>", "counts=3"));
  EXPECT_FALSE(Fits("Service RUNNING.", "Service RUNNING. "));
  EXPECT_FALSE(Fits("ab<x>ba", "aba"));
}

TEST(Page, IsSplitAtItsPlaceholders) {
  EXPECT_EQ(FixedPieces("a=<x> b=<y>"), (std::vector<std::string>{"a=", " b=", ""}));
  EXPECT_EQ(FixedPieces("SetEvent ok"), (std::vector<std::string>{"SetEvent ok"}));
}

TEST(Page, HasExamplesUnderItsHeadings) {
  const Page page = ReadPage("pipe.md");
  ASSERT_FALSE(page.examples.empty());
  for (const Example& example : page.examples) EXPECT_EQ(example.text.size(), 2u) << example.heading;
  EXPECT_TRUE(ReadPage("no-such-page.md").headings.empty());
}

TEST(SourceTexts, AreFoundWholeAndWithoutEscapes) {
  EXPECT_TRUE(SourceLiterals().contains("C:\\ProgramData\\TELVOR\\auth\\session.dat"));
  EXPECT_FALSE(SourceLiterals().contains("IPC: no request"));  // it stands within a longer one
  EXPECT_TRUE(SourceLiterals().contains(R"({"servers":[],"selected_server_id":null})"));
  // Joined from two neighbours.
  EXPECT_TRUE(
      SourceLiterals().contains("LoadOrCreateDeviceId: device_id.txt mismatch detected; restoring original "
                                "value from protected verifier"));
}

TEST(SourceTexts, AreWhatAPageMayQuote) {
  EXPECT_TRUE(StandsInSources("IPC: Connect requested"));
  EXPECT_FALSE(StandsInSources("IPC: Connect request"));
  EXPECT_TRUE(StandsInSources("IPC: <what> requested"));
  EXPECT_FALSE(StandsInSources("IPC: <what> demanded"));
  EXPECT_TRUE(StandsInSources("WFP: FwpmEngineOpen0 failed: <code> (<message>)"));
  EXPECT_FALSE(StandsInSources("WFP: FwpmEngineOpened failed: <code> (<message>)"));
}

}  // namespace
