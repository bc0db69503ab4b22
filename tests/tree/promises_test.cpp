// The map from promises to tests, docs/promises/: every row names a test, every test that is named stands in
// the tree, and no promise is made twice. Needs the source tree at TELVOR_SOURCE_ROOT.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const std::set<std::string> kPages = {"control-plane.md", "engine.md",       "firewall.md", "pipe.md",
                                      "service.md",       "split-tunnel.md", "wireguard.md"};
constexpr char kHeader[] = "| promise | tests |";
constexpr char kRule[] = "|---|---|";
constexpr size_t kFewestPromises = 800;

std::string Trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \n");
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \n") - begin + 1);
}

Lines Split(const std::string& text, char separator) {
  Lines parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(Trimmed(part));
  return parts;
}

std::string Content(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// "TEST(Suite, Name)" and its kin, wherever the line is broken: folder/Suite.Name.
void AddGoogleTests(const std::string& folder, const std::string& text, std::set<std::string>& tests) {
  for (const std::string macro : {"\nTEST(", "\nTEST_F(", "\nTEST_P("}) {
    for (size_t at = text.find(macro); at != std::string::npos; at = text.find(macro, at + 1)) {
      const size_t begin = at + macro.size();
      const Lines names = Split(text.substr(begin, text.find(')', begin) - begin), ',');
      if (names.size() == 2) tests.insert(folder + "/" + names[0] + "." + names[1]);
    }
  }
}

// "def test_name(" at the margin: folder/test_file.py::test_name.
void AddPythonTests(const std::string& file, const std::string& text, std::set<std::string>& tests) {
  const std::string begin = "\ndef test_";
  for (size_t at = text.find(begin); at != std::string::npos; at = text.find(begin, at + 1)) {
    tests.insert(file + "::" + text.substr(at + 5, text.find('(', at) - at - 5));
  }
}

std::set<std::string> AllTests() {
  std::set<std::string> tests;
  const fs::path root = fs::path(TELVOR_SOURCE_ROOT) / "tests";
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const fs::path path = fs::relative(entry.path(), root);
    if (path.extension() == ".cpp") AddGoogleTests(path.begin()->string(), Content(entry.path()), tests);
    if (path.extension() == ".py") AddPythonTests(path.generic_string(), Content(entry.path()), tests);
  }
  return tests;
}

// A row's promise, or nothing for one that is not in the form.
std::string CheckRow(const std::string& line, const std::set<std::string>& tests) {
  const Lines cells = Split(line, '|');  // the first is what stands before the first bar
  if (cells.size() != 3 || !cells[0].empty() || cells[1].empty() || !line.ends_with(" |")) {
    ADD_FAILURE() << "not | promise | tests |";
    return "";
  }
  EXPECT_FALSE(cells[2].empty()) << "a promise without a test";
  for (const std::string& cell : Split(cells[2], ',')) {
    const bool quoted = cell.size() > 2 && cell.starts_with('`') && cell.ends_with('`');
    EXPECT_TRUE(quoted && tests.contains(cell.substr(1, cell.size() - 2))) << "no such test: " << cell;
  }
  return cells[1];
}

// Headings, blank lines and tables; other text between the first heading and the second alone.
void CheckPage(const std::string& page, const std::set<std::string>& tests, std::set<std::string>& promises) {
  const Lines lines = Split(Content(fs::path(TELVOR_SOURCE_ROOT) / "docs/promises" / page), '\n');
  size_t headings = 0;
  size_t place = 0;  // in a table: 1 behind its header, 2 behind its rule
  for (size_t i = 0; i < lines.size(); ++i) {
    SCOPED_TRACE(page + ":" + std::to_string(i + 1) + ": " + lines[i]);
    headings += lines[i].starts_with('#') ? 1 : 0;
    if (!lines[i].starts_with('|')) {
      EXPECT_TRUE(lines[i].empty() || lines[i].starts_with('#') || headings == 1) << "not in a table";
      place = 0;
    } else if (place < 2) {
      EXPECT_EQ(lines[i], place == 0 ? kHeader : kRule);
      ++place;
    } else {
      EXPECT_TRUE(promises.insert(CheckRow(lines[i], tests)).second) << "promised twice";
    }
  }
}

TEST(Promises, AreEachHeldByTestsOfTheTree) {
  std::set<std::string> pages;
  std::set<std::string> promises;
  const std::set<std::string> tests = AllTests();
  for (const auto& entry : fs::directory_iterator(fs::path(TELVOR_SOURCE_ROOT) / "docs/promises")) {
    pages.insert(entry.path().filename().string());
  }
  pages.erase("README.md");
  EXPECT_EQ(pages, kPages);
  for (const std::string& page : pages) CheckPage(page, tests, promises);
  EXPECT_GE(promises.size(), kFewestPromises);
}

}  // namespace
