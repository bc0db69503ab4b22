// docs/files.md against what the day left on the machine, and against the sources.
#include <gtest/gtest.h>

#include <algorithm>

#include "firewall/wfp_session.h"
#include "sim/filtering_text.h"
#include "tests/docs/page.h"
#include "tests/docs/scripted_day.h"
#include "tests/docs/source_texts.h"

namespace {

constexpr char kMadeEachDay[] = "Made in ordinary use";
constexpr char kFilters[] = "In the filtering engine";

const Page& FilesPage() {
  static const Page page = ReadPage("files.md");
  return page;
}

// The quoted texts of the tables under a heading.
std::vector<std::string> Quoted(const std::string& heading) {
  std::vector<std::string> texts;
  for (const TableRow& row : FilesPage().rows) {
    if (row.heading == heading) texts.insert(texts.end(), row.quoted.begin(), row.quoted.end());
  }
  return texts;
}

// Both ways: each text is told of by a quoted one, and each quoted one tells of a text.
void ExpectTold(const std::string& heading, const std::vector<std::string>& texts) {
  const std::vector<std::string> quoted = Quoted(heading);
  for (const std::string& text : texts) {
    EXPECT_TRUE(std::any_of(quoted.begin(), quoted.end(), [&](const auto& one) { return Fits(one, text); }))
        << "docs/files.md should have, under \"" << heading << "\", a row with `" << text << "`";
  }
  for (const std::string& one : quoted) {
    EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [&](const auto& text) { return Fits(one, text); }))
        << "docs/files.md has `" << one << "` under \"" << heading << "\", which the day does not have";
  }
}

TEST(FilesPage, TellsOfTheFilesThatADayMakes) {
  ExpectTold(kMadeEachDay, TheDay().files);
}

TEST(FilesPage, TellsOfTheFilters) {
  ExpectTold(kFilters, TheDay().filterNames);
}

TEST(FilesPage, NamesTheKeysOfProviderAndSublayer) {
  EXPECT_NE(FilesPage().text.find(sim::Text(kProviderKey)), std::string::npos) << sim::Text(kProviderKey);
  EXPECT_NE(FilesPage().text.find(sim::Text(kSubLayerKey)), std::string::npos) << sim::Text(kSubLayerKey);
}

TEST(FilesPage, NamesWhatStandsInTheSources) {
  ASSERT_GT(FilesPage().rows.size(), 30u);
  for (const TableRow& row : FilesPage().rows) {
    for (const std::string& quoted : row.quoted) {
      EXPECT_TRUE(StandsInSources(quoted))
          << "docs/files.md has `" << quoted << "`; nothing in src/ makes that";
    }
  }
}

}  // namespace
