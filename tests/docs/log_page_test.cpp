// docs/log.md against the day's log, and against the sources.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

#include "tests/docs/page.h"
#include "tests/docs/scripted_day.h"
#include "tests/docs/source_texts.h"

namespace {

const std::vector<std::string>& Explained() {
  static const std::vector<std::string> lines = [] {
    std::vector<std::string> all;
    for (const TableRow& row : ReadPage("log.md").rows)
      all.insert(all.end(), row.quoted.begin(), row.quoted.end());
    return all;
  }();
  return lines;
}

bool AnyExplained(const std::function<bool(const std::string& quoted)>& condition) {
  return std::any_of(Explained().begin(), Explained().end(), condition);
}

TEST(LogPage, ExplainsEveryLineOfTheDay) {
  const std::set<std::string> lines(TheDay().log.begin(), TheDay().log.end());
  ASSERT_GT(lines.size(), 100u);
  for (const std::string& line : lines) {
    if (line.empty()) continue;  // the line end of a program's output that was logged
    EXPECT_TRUE(AnyExplained([&](const std::string& quoted) { return Fits(quoted, line); }))
        << "docs/log.md should explain `" << line << "`";
  }
}

TEST(LogPage, ExplainsEveryLineThatTheSourcesBegin) {
  ASSERT_GT(LoggedLiterals().size(), 100u);
  for (const std::string& literal : LoggedLiterals()) {
    // A literal of the source may be the beginning of a quoted line, or go on with the odd characters that
    // cut its line.
    EXPECT_TRUE(AnyExplained([&](const std::string& quoted) {
      return quoted.starts_with(literal) || literal.starts_with(FixedPieces(quoted).front());
    })) << "docs/log.md should explain `"
        << literal << "<...>`";
  }
}

TEST(LogPage, QuotesWhatTheSourcesSay) {
  for (const std::string& quoted : Explained()) {
    EXPECT_FALSE(quoted.starts_with('<')) << quoted;
    EXPECT_TRUE(StandsInSources(quoted)) << "docs/log.md has `" << quoted << "`; nothing in src/ says that";
  }
}

}  // namespace
