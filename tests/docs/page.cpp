#include "tests/docs/page.h"

#include <fstream>

namespace {

constexpr char kFence[] = "```";

bool IsExample(const std::vector<std::string>& block) {
  for (const std::string& line : block) {
    if (!line.starts_with("->") && !line.starts_with("<-")) return false;
  }
  return !block.empty();
}

std::vector<std::string> BackQuoted(const std::string& cell) {
  std::vector<std::string> texts;
  size_t open = cell.find('`');
  while (open != std::string::npos) {
    const size_t close = cell.find('`', open + 1);
    if (close == std::string::npos) break;
    texts.push_back(cell.substr(open + 1, close - open - 1));
    open = cell.find('`', close + 1);
  }
  return texts;
}

void TakeLine(const std::string& line, Page& page) {
  if (line.starts_with('#')) {
    page.headings.push_back(line.substr(line.find_first_not_of("# ")));
  } else if (line.starts_with("| `")) {
    const std::string heading = page.headings.empty() ? "" : page.headings.back();
    page.rows.push_back({heading, BackQuoted(line.substr(1, line.find('|', 1) - 1))});
  }
}

}  // namespace

Page ReadPage(const std::string& name) {
  Page page;
  std::ifstream file(std::string(TELVOR_SOURCE_ROOT) + "/docs/" + name);
  std::vector<std::string> block;
  bool inBlock = false;
  for (std::string line; std::getline(file, line);) {
    page.text += line + "\n";
    if (!line.starts_with(kFence)) {
      if (inBlock)
        block.push_back(line);
      else
        TakeLine(line, page);
      continue;
    }
    if (inBlock && IsExample(block)) page.examples.push_back({page.headings.back(), block});
    block.clear();
    inBlock = !inBlock;
  }
  return page;
}

std::string ExampleText(const std::vector<std::string>& lines) {
  std::string text = std::string(kFence) + "\n";
  for (const std::string& line : lines) text += line + "\n";
  return text + kFence + "\n";
}

std::vector<std::string> FixedPieces(const std::string& quoted) {
  std::vector<std::string> pieces;
  size_t at = 0;
  for (;;) {
    const size_t open = quoted.find('<', at);
    const size_t close = quoted.find('>', open == std::string::npos ? at : open);
    if (open == std::string::npos || close == std::string::npos) break;
    pieces.push_back(quoted.substr(at, open - at));
    at = close + 1;
  }
  pieces.push_back(quoted.substr(at));
  return pieces;
}

bool Fits(const std::string& quoted, const std::string& text) {
  const std::vector<std::string> pieces = FixedPieces(quoted);
  if (pieces.size() == 1) return text == quoted;
  if (!text.starts_with(pieces.front())) return false;
  size_t at = pieces.front().size();
  for (size_t i = 1; i + 1 < pieces.size(); ++i) {
    const size_t found = text.find(pieces[i], at);
    if (found == std::string::npos) return false;
    at = found + pieces[i].size();
  }
  return text.size() >= at + pieces.back().size() && text.ends_with(pieces.back());
}
