#include "tests/docs/source_texts.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "tests/docs/page.h"

namespace {

namespace fs = std::filesystem;

// A string literal, plain or raw, or something that only looks like one: a comment, a character.
const std::regex& Token() {
  static const std::regex token(
      R"re(//[^\n]*|'(?:[^'\\\n]|\\.)+'|L?R"\(([^]*?)\)"|L?"((?:[^"\\\n]|\\.)*)")re");
  return token;
}

std::string Unescaped(const std::string& literal) {
  std::string text;
  for (size_t i = 0; i < literal.size(); ++i) {
    if (literal[i] != '\\' || i + 1 == literal.size()) {
      text += literal[i];
      continue;
    }
    const char letter = literal[++i];
    text += letter == 'r' ? '\r' : letter == 'n' ? '\n' : letter == 't' ? '\t' : letter;
  }
  return text;
}

struct SourceTexts {
  std::set<std::string> literals;
  std::vector<std::string> logged;
};

bool OpensLogCall(const std::string& code) {
  static const std::regex call(R"((LogLine)\((std::wstring\()?\s*$)");
  return std::regex_search(code, call);
}

void TakeFile(const std::string& code, SourceTexts& texts) {
  std::string joined;
  bool open = false;    // `joined` may go on
  bool logged = false;  // `joined` begins a log call
  std::string between;  // the code since the last literal
  size_t end = 0;
  const auto close = [&] {
    if (!joined.empty()) texts.literals.insert(joined);
    if (!joined.empty() && logged) texts.logged.push_back(joined);
    joined.clear();
    open = false;
  };
  for (std::sregex_iterator match(code.begin(), code.end(), Token()), last; match != last; ++match) {
    const auto start = static_cast<size_t>(match->position());
    between += code.substr(end, start - end);
    end = start + static_cast<size_t>(match->length());
    const bool raw = (*match)[1].matched;
    if (!raw && !(*match)[2].matched) continue;
    if (!open || between.find_first_not_of(" \t\n") != std::string::npos) {
      close();
      logged = OpensLogCall(between);
    }
    joined += raw ? (*match)[1].str() : Unescaped((*match)[2].str());
    open = true;
    between.clear();
  }
  close();
}

const SourceTexts& AllTexts() {
  static const SourceTexts all = [] {
    SourceTexts texts;
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(TELVOR_SOURCE_ROOT) / "src")) {
      const std::string ending = entry.path().extension().string();
      if (ending != ".cpp" && ending != ".h") continue;
      std::ostringstream code;
      code << std::ifstream(entry.path()).rdbuf();
      TakeFile(code.str(), texts);
    }
    return texts;
  }();
  return all;
}

// `cutFront`: it may begin within a literal; `cutBack`: it may end within one.
bool IsMadeOfLiterals(const std::string& text, bool cutFront, bool cutBack) {
  std::vector<bool> reached(text.size() + 1, false);
  reached[0] = true;
  for (const std::string& literal : AllTexts().literals) {
    if (cutFront && cutBack && literal.find(text) != std::string::npos) return true;
    for (size_t length = 1; cutFront && length <= std::min(text.size(), literal.size()); ++length) {
      if (literal.ends_with(text.substr(0, length))) reached[length] = true;
    }
  }
  for (size_t at = 0; at < text.size(); ++at) {
    if (!reached[at]) continue;
    for (const std::string& literal : AllTexts().literals) {
      if (text.compare(at, literal.size(), literal) == 0) reached[at + literal.size()] = true;
      if (cutBack && literal.starts_with(text.substr(at))) return true;
    }
  }
  return reached[text.size()];
}

}  // namespace

const std::set<std::string>& SourceLiterals() {
  return AllTexts().literals;
}

const std::vector<std::string>& LoggedLiterals() {
  return AllTexts().logged;
}

bool StandsInSources(const std::string& quoted) {
  const std::vector<std::string> pieces = FixedPieces(quoted);
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (!IsMadeOfLiterals(pieces[i], i > 0, i + 1 < pieces.size())) return false;
  }
  return true;
}
