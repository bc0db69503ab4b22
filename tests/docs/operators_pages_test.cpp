// The operators' pages against the page of the log, the page of the files, the sources, and telvorctl.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "tests/docs/page.h"
#include "tests/docs/source_texts.h"

namespace {

constexpr char kTroubleshooting[] = "troubleshooting.md";
const char* const kOperatorsPages[] = {"operating.md", kTroubleshooting, "windows-checklist.md"};
// Rows of the log's page that have advice, and yet tell of no failure.
const std::set<std::string> kNoFailures = {"BuildID: <text>", "[CP REQUEST] access_len=<n>"};

std::string Quote(const std::string& text) {
  return "`" + text + "`";
}

bool TellsOf(const std::string& text) {
  return ReadPage(kTroubleshooting).text.find(text) != std::string::npos;
}

// The cells of a table's line, without the blanks around them.
std::vector<std::string> Cells(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream stream(line.substr(1));
  for (std::string cell; std::getline(stream, cell, '|');) {
    const size_t begin = cell.find_first_not_of(' ');
    cells.push_back(begin == std::string::npos ? ""
                                               : cell.substr(begin, cell.find_last_not_of(' ') + 1 - begin));
  }
  return cells;
}

// The line says that something failed, or there is something to do about it.
bool IsFailure(const std::vector<std::string>& cells) {
  static const std::regex kFailure(R"(failed(?!=)|FAILED|refusing|not ready|ABORT)");
  return cells.size() > 2 && (!cells[2].empty() || std::regex_search(cells[0], kFailure));
}

TEST(TroubleshootingPage, HasAPlaceForEveryFailureOfTheLog) {
  std::istringstream page(ReadPage("log.md").text);
  size_t failures = 0;
  for (std::string line; std::getline(page, line);) {
    if (!line.starts_with("| `") || !IsFailure(Cells(line))) continue;
    const std::string first = line.substr(3, line.find('`', 3) - 3);
    if (kNoFailures.contains(first)) continue;
    ++failures;
    EXPECT_TRUE(TellsOf(Quote(first))) << "docs/troubleshooting.md should have a row with `" << first << "`";
  }
  EXPECT_GT(failures, 50u);
}

TEST(TroubleshootingPage, HasAPlaceForEveryFileThatTellsOfTrouble) {
  size_t files = 0;
  for (const TableRow& row : ReadPage("files.md").rows) {
    if (row.heading != "Made at times") continue;
    for (const std::string& path : row.quoted) {
      if (!path.starts_with("C:\\VPN\\stage\\") && path.find("cpp_exception") == std::string::npos) continue;
      ++files;
      EXPECT_TRUE(TellsOf(path.substr(path.rfind('\\') + 1) + "`")) << path;
    }
  }
  EXPECT_EQ(files, 5u);
}

TEST(TroubleshootingPage, QuotesWhatTheSourcesSay) {
  const Page page = ReadPage(kTroubleshooting);
  ASSERT_GT(page.rows.size(), 60u);
  for (const TableRow& row : page.rows) {
    for (const std::string& quoted : row.quoted) {
      EXPECT_TRUE(StandsInSources(quoted))
          << "docs/troubleshooting.md has `" << quoted << "`; nothing in src/ says that";
    }
  }
}

std::set<std::string> CommandsOfTelvorctl() {
  std::ostringstream code;
  code << std::ifstream(std::string(TELVOR_SOURCE_ROOT) + "/tools/telvorctl/command_line.cpp").rdbuf();
  const std::string text = code.str();
  static const std::regex kCommand(R"re(\{"([a-z-]+)", ")re");
  std::set<std::string> commands;
  for (std::sregex_iterator match(text.begin(), text.end(), kCommand), last; match != last; ++match)
    commands.insert((*match)[1]);
  return commands;
}

TEST(OperatorsPages, NameCommandsThatTelvorctlHas) {
  const std::set<std::string> commands = CommandsOfTelvorctl();
  ASSERT_GT(commands.size(), 15u);
  static const std::regex kCall(R"(`telvorctl ([a-z][a-z-]*)|\n +telvorctl ([a-z][a-z-]*))");
  for (const char* name : kOperatorsPages) {
    const std::string text = ReadPage(name).text;
    size_t calls = 0;
    for (std::sregex_iterator match(text.begin(), text.end(), kCall), last; match != last; ++match, ++calls) {
      const std::string command = (*match)[1].matched ? (*match)[1] : (*match)[2];
      EXPECT_TRUE(commands.contains(command)) << "docs/" << name << " names telvorctl " << command;
    }
    EXPECT_GE(calls, 3u) << name;
  }
}

// [text](page.md), and nothing else that ends so.
TEST(OperatorsPages, LinkToPagesThatAreThere) {
  static const std::regex kLink(R"(\]\(([a-z-]+\.md)\))");
  for (const char* name : kOperatorsPages) {
    const std::string text = ReadPage(name).text;
    for (std::sregex_iterator match(text.begin(), text.end(), kLink), last; match != last; ++match)
      EXPECT_FALSE(ReadPage((*match)[1]).text.empty()) << "docs/" << name << " links to " << (*match)[1];
  }
}

}  // namespace
