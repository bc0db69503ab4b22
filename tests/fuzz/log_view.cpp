// The log as the user interface sees it.
#include <algorithm>

#include "fuzz/naive_json.h"
#include "fuzz/target.h"
#include "ipc/views.h"
#include "service/log.h"
#include "sim/files.h"
#include "sim/kernel.h"

namespace fuzz {
namespace {

std::string NaiveView(const std::string& log, int32_t limit) {
  std::vector<std::string> lines;
  std::string line;
  for (const char byte : log) {
    line += byte;
    if (byte != '\n') continue;
    lines.push_back(line.substr(0, line.size() - 1));
    line.clear();
  }
  if (!line.empty()) lines.push_back(line);
  const auto kept = static_cast<size_t>(std::min(std::max(limit, 1), 2000));
  std::string json;
  for (size_t i = lines.size() - std::min(lines.size(), kept); i < lines.size(); ++i) {
    if (lines[i].ends_with('\r')) lines[i].pop_back();
    if (!json.empty()) json += ",";
    json += R"({"ts":"","level":"INFO","msg":")" + NaiveEscape(lines[i]) + "\"}";
  }
  return "[" + json + "]";
}

}  // namespace

// The first two bytes are the limit, low byte first, the rest is the log.
void RunLogView(const std::string& bytes) {
  std::string log = bytes;
  const unsigned low = TakeByte(log);
  const auto limit = static_cast<int32_t>(static_cast<int16_t>(low | TakeByte(log) << 8));
  const sim::Machine machine;
  sim::PutFile(GetLogFilePath(), log);
  const std::string view = BuildRecentLogsJson(limit);
  Require(view == NaiveView(log, limit), "BuildRecentLogsJson gave " + view);
  Require(IsJson(view), "the log is shown as JSON");
}

}  // namespace fuzz
