// The tree's own rules, held against every source file: length of functions and lines, direction of includes,
// Windows headers in the translations alone, no banned calls. Needs the source tree at TELVOR_SOURCE_ROOT.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr size_t kLongestFunction = 70;  // lines
constexpr size_t kLongestLine = 110;     // columns
constexpr const char* kSourceFolders[] = {"src", "sim", "lab", "tests", "tools"};
// What is shipped: the service, and its command line.
constexpr const char* kHouses[] = {"src/", "tools/"};

struct SourceFile {
  std::string path;  // below the root, with forward slashes
  std::vector<std::string> lines;
};

bool IsSource(const fs::path& path) {
  static const std::set<std::string> kEndings = {".h", ".cpp", ".c"};
  return kEndings.contains(path.extension().string());
}

SourceFile ReadSource(const fs::path& root, const fs::path& path) {
  SourceFile file{fs::relative(path, root).generic_string(), {}};
  std::ifstream stream(path);
  for (std::string line; std::getline(stream, line);) file.lines.push_back(line);
  return file;
}

const std::vector<SourceFile>& AllSources() {
  static const std::vector<SourceFile> files = [] {
    const fs::path root = TELVOR_SOURCE_ROOT;
    std::vector<SourceFile> found;
    for (const char* folder : kSourceFolders) {
      if (!fs::exists(root / folder)) continue;
      for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
        if (entry.is_regular_file() && IsSource(entry.path()))
          found.push_back(ReadSource(root, entry.path()));
      }
    }
    return found;
  }();
  return files;
}

bool StandsInAHouse(const SourceFile& file) {
  return std::any_of(std::begin(kHouses), std::end(kHouses),
                     [&](const char* house) { return file.path.starts_with(house); });
}

std::string Where(const SourceFile& file, size_t index) {
  return file.path + ":" + std::to_string(index + 1);
}

// Code points of a line of UTF-8.
size_t Columns(const std::string& line) {
  return static_cast<size_t>(
      std::count_if(line.begin(), line.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

size_t Indent(const std::string& line) {
  return std::min(line.find_first_not_of(' '), line.size());
}

// The first line of the declaration whose body's last line is `end`: the nearest line above with the same
// indent that does not itself end a block, close a list of parameters or go on from the line before.
size_t DeclarationOf(const SourceFile& file, size_t end, size_t indent) {
  for (size_t i = end; i-- > 0;) {
    const std::string& line = file.lines[i];
    if (line.empty() || Indent(line) != indent) continue;
    const char first = line[indent];
    if (first == '}' || first == ')' || first == '#') continue;
    if (first == '/' || line.ends_with(':')) continue;
    return i;
  }
  return end;
}

// A body ends with a lone closing brace at the margin of a function (0) or of a member function (2); the tree
// is formatted by clang-format, so no other block does at 0. At 2 the declaration must look like a
// function's.
bool EndsFunction(const SourceFile& file, size_t end, size_t indent, size_t& begin) {
  if (file.lines[end] != std::string(indent, ' ') + "}") return false;
  begin = DeclarationOf(file, end, indent);
  if (indent == 0) return true;
  static const std::regex kStatement(R"(^\s*(if|for|while|switch|do|else|try|catch|return)\b)");
  return !std::regex_search(file.lines[begin], kStatement);
}

TEST(Tree, HasSources) {
  EXPECT_GT(AllSources().size(), 100u);
}

TEST(Tree, KeepsFunctionsShort) {
  size_t functions = 0;
  for (const SourceFile& file : AllSources()) {
    for (size_t end = 0; end < file.lines.size(); ++end) {
      for (const size_t indent : {size_t{0}, size_t{2}}) {
        size_t begin = 0;
        if (!EndsFunction(file, end, indent, begin)) continue;
        ++functions;
        EXPECT_LE(end - begin + 1, kLongestFunction) << Where(file, begin) << ": " << file.lines[begin];
      }
    }
  }
  EXPECT_GT(functions, 500u);
}

TEST(Tree, KeepsLinesShortAndClean) {
  for (const SourceFile& file : AllSources()) {
    for (size_t i = 0; i < file.lines.size(); ++i) {
      const std::string& line = file.lines[i];
      EXPECT_LE(Columns(line), kLongestLine) << Where(file, i);
      EXPECT_FALSE(line.ends_with(' ') || line.ends_with('\t')) << Where(file, i) << " ends with a blank";
      EXPECT_FALSE(line.ends_with('\r')) << Where(file, i) << " ends with a carriage return";
    }
  }
}

// ---- The houses, src/ and tools/: which floor a room stands on. A room may include rooms of its own floor
// and below. ----

struct Floor {
  int height;
  std::vector<const char*> rooms;  // folder/name, or folder/* for all rooms of it that are not named before
};

const std::vector<Floor>& Floors() {
  static const std::vector<Floor> floors = {
      {0,
       {"service/platform", "engine/platform", "controlplane/platform", "wireguard/platform",
        "firewall/platform", "splittunnel/platform", "ipc/platform", "service/wide_text",
        "service/scope_guard", "service/paths"}},
      {1, {"controlplane/text", "controlplane/json_text", "controlplane/byte_search"}},
      {2, {"service/log", "service/data_files"}},
      {3, {"service/stage_marker", "engine/drop_file", "engine/operations", "engine/tunnel_state"}},
      {4,
       {"controlplane/base_url", "controlplane/http_transport", "controlplane/server_list", "wireguard/*"}},
      {5, {"controlplane/*", "firewall/*", "splittunnel/*"}},
      {7, {"service/lifecycle", "service/console_host", "service/wiring"}},
      {8, {"service/entry"}},
      {6, {"engine/*", "ipc/*"}},
      // A house of its own: it knows nothing of the service but the pipe and the files that people may see.
      {0,
       {"telvorctl/platform", "telvorctl/machine", "telvorctl/windows_text", "telvorctl/startup",
        "telvorctl/exit_codes", "telvorctl/options", "telvorctl/json", "telvorctl/wireguard_files"}},
      {1, {"telvorctl/text", "telvorctl/machine_text", "telvorctl/left_routes"}},
      {2, {"telvorctl/terminal", "telvorctl/service_client", "telvorctl/masking"}},
      {3, {"telvorctl/conclusion", "telvorctl/rendering", "telvorctl/waiting", "telvorctl/support_report"}},
      {5, {"telvorctl/command_line"}},
      {6, {"telvorctl/main"}},
      {4, {"telvorctl/*"}},
  };
  return floors;
}

std::optional<int> HeightOf(const std::string& room) {
  for (const Floor& floor : Floors()) {
    for (const std::string name : floor.rooms) {
      const bool whole = name.ends_with("/*");
      if (whole ? room.starts_with(name.substr(0, name.size() - 1)) : room == name) return floor.height;
    }
  }
  return std::nullopt;
}

// "src/service/log.cpp" and "service/log.h" are the room service/log; a translation belongs to its platform
// header.
std::string RoomOf(std::string path) {
  for (const std::string house : kHouses) {
    if (path.starts_with(house)) path.erase(0, house.size());
  }
  path.erase(path.rfind('.'));
  const std::string translation = "_windows";
  if (path.ends_with(translation)) path.erase(path.size() - translation.size());
  return path;
}

// The rooms of a house that a file includes.
std::vector<std::string> IncludedRooms(const SourceFile& file) {
  static const std::regex kInclude(R"re(^#include "([a-z]+/[a-z0-9_]+\.h)")re");
  std::vector<std::string> rooms;
  for (const std::string& line : file.lines) {
    std::smatch match;
    if (std::regex_search(line, match, kInclude)) rooms.push_back(RoomOf(match[1]));
  }
  return rooms;
}

std::map<std::string, std::set<std::string>> IncludeGraph() {
  std::map<std::string, std::set<std::string>> graph;
  for (const SourceFile& file : AllSources()) {
    if (!StandsInAHouse(file)) continue;
    const std::string room = RoomOf(file.path);
    for (const std::string& included : IncludedRooms(file)) {
      if (included != room) graph[room].insert(included);
    }
  }
  return graph;
}

TEST(Tree, EveryRoomStandsOnAFloor) {
  for (const SourceFile& file : AllSources()) {
    if (!StandsInAHouse(file)) continue;
    EXPECT_TRUE(HeightOf(RoomOf(file.path)).has_value()) << file.path;
  }
}

TEST(Tree, IncludesPointDownwards) {
  for (const auto& [room, included] : IncludeGraph()) {
    for (const std::string& below : included) {
      ASSERT_TRUE(HeightOf(below).has_value()) << room << " includes " << below;
      EXPECT_LE(*HeightOf(below), *HeightOf(room))
          << room << " includes " << below << ", which stands above it";
    }
  }
}

TEST(Tree, IncludesGoInNoCircle) {
  const auto graph = IncludeGraph();
  std::map<std::string, int> state;  // 1: on the path, 2: done
  const std::function<void(const std::string&)> visit = [&](const std::string& room) {
    state[room] = 1;
    const auto included = graph.find(room);
    for (const std::string& next : included == graph.end() ? std::set<std::string>() : included->second) {
      EXPECT_NE(state[next], 1) << room << " includes " << next << " in a circle";
      if (state[next] == 0) visit(next);
    }
    state[room] = 2;
  };
  for (const auto& [room, included] : graph) {
    if (state[room] == 0) visit(room);
  }
}

TEST(Tree, TheWorkerKnowsNoSubsystemThatItDrives) {
  const auto graph = IncludeGraph();
  for (const char* room : {"engine/worker", "engine/worker_startup"}) {
    for (const std::string& included : graph.at(room)) {
      EXPECT_TRUE(included.starts_with("engine/") || *HeightOf(included) <= 2)
          << room << " includes " << included;
      EXPECT_NE(included, "engine/bootstrap");
    }
  }
}

TEST(Tree, TheHousesKnowNothingOfEachOther) {
  const auto isCommandLine = [](const std::string& room) { return room.starts_with("telvorctl/"); };
  size_t commandLineRooms = 0;
  for (const auto& [room, included] : IncludeGraph()) {
    if (isCommandLine(room)) ++commandLineRooms;
    for (const std::string& below : included) {
      EXPECT_EQ(isCommandLine(room), isCommandLine(below)) << room << " includes " << below;
    }
  }
  EXPECT_GT(commandLineRooms, 5u);
}

TEST(Tree, TheDispatcherKnowsNoMethod) {
  const auto graph = IncludeGraph();
  for (const char* room : {"ipc/dispatch", "ipc/methods", "ipc/pipe_server"}) {
    const auto included = graph.find(room);
    if (included == graph.end()) continue;
    for (const char* body : {"ipc/views", "ipc/account_methods", "ipc/subscription_methods",
                             "ipc/intent_methods", "ipc/server_view"}) {
      EXPECT_FALSE(included->second.contains(body)) << room << " includes " << body;
    }
  }
}

TEST(Tree, WindowsHeadersStandInTranslationsOnly) {
  static const std::regex kWindows(
      R"(#\s*include\s*<(windows|winsock2|ws2tcpip|winhttp|iphlpapi|netioapi|fwpmu|)"
      R"(fwpmtypes|fwptypes|bcrypt|wincrypt|sddl|aclapi|accctrl|winsvc|dpapi)\.h>|#\s*if.*\b_?WIN(32|64)\b)");
  for (const SourceFile& file : AllSources()) {
    // What runs on Windows alone: the translations, the laboratory's stand-ins, the tests' Windows half.
    if (file.path.ends_with("_windows.cpp") || file.path.starts_with("lab/standins/") ||
        file.path.starts_with("tests/windows/") || file.path.starts_with("tests/bench/windows/") ||
        file.path.starts_with("tests/tree/")) {
      continue;
    }
    for (size_t i = 0; i < file.lines.size(); ++i) {
      if (!file.lines[i].starts_with('#')) continue;
      EXPECT_FALSE(std::regex_search(file.lines[i], kWindows)) << Where(file, i) << ": " << file.lines[i];
    }
  }
}

struct Ban {
  const char* pattern;
  const char* instead;
};

// In the system itself, outside the translations.
constexpr Ban kBans[] = {
    {R"(\b(strcpy|strcat|sprintf|vsprintf|gets|strtok|alloca|system|popen)\s*\()",
     "a bounded standard facility"},
    {R"(\b(printf|fprintf|puts|wprintf)\s*\(|std::w?c(out|err|log)\b)", "the log"},
    {R"(\b(malloc|calloc|realloc|free)\s*\()", "a container"},
    {R"(std::(thread|jthread|async|mutex|recursive_mutex|shared_mutex|condition_variable)\b)",
     "platform::CreateThread, platform::Mutex and events"},
    {R"(std::this_thread|std::chrono|\btime\s*\(|\bclock\s*\()", "the platform's clocks and waits"},
    {R"(std::w?(i|o)?fstream\b|\bfopen\s*\(|\b_?wfopen\s*\()", "the platform's files"},
    {R"(\b(rand|srand)\s*\(|std::random_device|std::mt19937)", "BCryptGenRandom"},
    {R"(\bFWP_ACTION_BLOCK\b|0x1001\b)", "permits: no filter of this system blocks"},
    {R"(\b(setlocale|std::locale)\b)", "the C locale, which the process never leaves"},
    {R"(\b(reinterpret_pointer_cast|const_cast)\b)", "a const-correct interface"},
};

bool IsSystemCode(const SourceFile& file) {
  return StandsInAHouse(file) && !file.path.ends_with("_windows.cpp") &&
         file.path != "src/service/platform.h";
}

TEST(Tree, UsesNoBannedCall) {
  for (const Ban& ban : kBans) {
    const std::regex pattern(ban.pattern);
    for (const SourceFile& file : AllSources()) {
      if (!IsSystemCode(file)) continue;
      for (size_t i = 0; i < file.lines.size(); ++i) {
        const std::string code = file.lines[i].substr(0, file.lines[i].find("//"));
        EXPECT_FALSE(std::regex_search(code, pattern))
            << Where(file, i) << ": " << file.lines[i] << "\n  use " << ban.instead;
      }
    }
  }
}

// Whole lines, since such a mark stands in a comment. The brackets keep the pattern from finding itself.
TEST(Tree, LeavesNoWorkForLater) {
  static const std::regex kMark(R"(\b(TO[D]O|FIX[M]E|X[X]X|HA[C]K|D[B]G)\b)");
  ASSERT_TRUE(
      std::regex_search("int a;  // TO"
                        "DO: b",
                        kMark));
  for (const SourceFile& file : AllSources()) {
    for (size_t i = 0; i < file.lines.size(); ++i) {
      EXPECT_FALSE(std::regex_search(file.lines[i], kMark)) << Where(file, i) << ": " << file.lines[i];
    }
  }
}

TEST(Tree, EveryHeaderIsGuardedAndTellsItsSubject) {
  for (const SourceFile& file : AllSources()) {
    if (!StandsInAHouse(file) || !file.path.ends_with(".h")) continue;
    ASSERT_FALSE(file.lines.empty()) << file.path;
    EXPECT_TRUE(file.lines.front().starts_with("// "))
        << file.path << " does not begin with what it is about";
    EXPECT_NE(std::find(file.lines.begin(), file.lines.end(), "#pragma once"), file.lines.end()) << file.path;
  }
}

}  // namespace
