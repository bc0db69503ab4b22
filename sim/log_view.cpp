// The service's log as tests read it. The parsed lines are kept, since conditions of RunUntil look at them at
// every platform call.
#include <algorithm>
#include <string_view>
#include <unordered_set>

#include "device.h"
#include "file_tree.h"
#include "files.h"

namespace sim {
namespace {

constexpr wchar_t kLogPath[] = L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log";
constexpr std::string_view kStampCharacters = "0123456789-: ";

struct LogCache {
  uint64_t node = 0;
  uint64_t rewrites = 0;
  size_t parsed = 0;  // bytes of whole lines
  std::vector<std::string> lines;
  std::unordered_multiset<std::string> set;
  bool lastIsPartial = false;
};
LogCache gCache;

std::string WithoutStamp(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const size_t end = line.find("] ");
  if (line.substr(0, 1) != "[" || end == std::string_view::npos) return std::string(line);
  const std::string_view stamp = line.substr(1, end - 1);
  if (stamp.find_first_not_of(kStampCharacters) != std::string_view::npos) return std::string(line);
  return std::string(line.substr(end + 2));
}

void DropPartialLine() {
  if (!gCache.lastIsPartial) return;
  gCache.set.erase(gCache.set.find(gCache.lines.back()));
  gCache.lines.pop_back();
  gCache.lastIsPartial = false;
}

void AddLine(std::string_view line) {
  gCache.lines.push_back(WithoutStamp(line));
  gCache.set.insert(gCache.lines.back());
}

const LogCache& Refreshed() {
  const FileNodePointer node = FindNode(kLogPath);
  if (!node) {
    gCache = LogCache{};
    return gCache;
  }
  if (node->number != gCache.node || node->rewrites != gCache.rewrites ||
      node->bytes.size() < gCache.parsed) {
    gCache = LogCache{};
    gCache.node = node->number;
    gCache.rewrites = node->rewrites;
  }
  DropPartialLine();
  const std::string_view bytes = node->bytes;
  while (gCache.parsed < bytes.size()) {
    const size_t end = bytes.find('\n', gCache.parsed);
    AddLine(bytes.substr(gCache.parsed, end == std::string_view::npos ? end : end - gCache.parsed));
    gCache.lastIsPartial = end == std::string_view::npos;
    if (gCache.lastIsPartial) break;
    gCache.parsed = end + 1;
  }
  return gCache;
}

}  // namespace

std::string LogBytes() {
  return FileBytes(kLogPath).value_or("");
}

std::vector<std::string> LogLines() {
  Guard guard;
  return Refreshed().lines;
}

bool LogHas(const std::string& line) {
  Guard guard;
  return Refreshed().set.count(line) > 0;
}

size_t LogCount(const std::string& part) {
  Guard guard;
  const std::vector<std::string>& lines = Refreshed().lines;
  return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&part](const std::string& line) {
    return line.find(part) != std::string::npos;
  }));
}

void ClearLog() {
  RemoveFile(kLogPath);
}

}  // namespace sim
