// The reference pages of docs/ as the tests read them: examples in fenced blocks, tables, and texts in which
// "<...>" stands for what differs from time to time.
#pragma once

#include <string>
#include <vector>

struct Example {
  std::string heading;            // the nearest above, without its number signs
  std::vector<std::string> text;  // its lines; those sent begin with "->", those answered with "<-"
};

struct TableRow {
  std::string heading;
  std::vector<std::string> quoted;  // the texts between back quotes in its first cell
};

struct Page {
  std::string text;  // all of it
  std::vector<std::string> headings;
  std::vector<Example> examples;
  std::vector<TableRow> rows;
};

// `name` is the file's name in docs/. A file that is not there gives an empty page.
Page ReadPage(const std::string& name);

// As it must stand in a page, fences included.
std::string ExampleText(const std::vector<std::string>& lines);

// The texts around the "<...>" of a quoted one.
std::vector<std::string> FixedPieces(const std::string& quoted);

// Whether `text` is the quoted one with something, or nothing, in place of each "<...>".
bool Fits(const std::string& quoted, const std::string& text);
