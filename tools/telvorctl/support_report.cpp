#include "telvorctl/support_report.h"

#include <algorithm>
#include <iterator>

#include "telvorctl/machine.h"
#include "telvorctl/machine_text.h"
#include "telvorctl/options.h"
#include "telvorctl/platform.h"
#include "telvorctl/text.h"
#include "telvorctl/wireguard_files.h"

namespace telvorctl {

namespace {

using Rows = std::vector<std::vector<std::string>>;

constexpr char kServiceName[] = "TELVOR";
constexpr const char* kServices[] = {kServiceName, "WireGuardTunnel$telvor", "WireGuardManager", "BFE"};
constexpr char kDataFolder[] = "C:\\ProgramData\\TELVOR";
constexpr char kMarkerFolder[] = "C:\\VPN\\stage";
constexpr const char* kDropFiles[] = {"after_entered.txt", "step1.txt", "cpp_exception.txt",
                                      "cpp_exception_unknown.txt"};
constexpr size_t kMostNoteBytes = 4096;  // of a marker or drop file
constexpr size_t kMostLogBytes = size_t{4} << 20;
constexpr int kDeepestFolder = 4;

constexpr Word kStates[] = {{1, "stopped"},        {2, "starting"}, {3, "stopping"}, {4, "running"},
                            {5, "about to go on"}, {6, "pausing"},  {7, "paused"}};
constexpr Word kStartTypes[] = {
    {0, "by the boot loader"}, {1, "with the system"}, {2, "automatic"}, {3, "on demand"}, {4, "disabled"}};

std::string TwoDigits(uint16_t number) {
  return (number < 10 ? "0" : "") + std::to_string(number);
}

std::string TimeText(const platform::Time& when) {
  return std::to_string(when.year) + "-" + TwoDigits(when.month) + "-" + TwoDigits(when.day) + " " +
         TwoDigits(when.hour) + ":" + TwoDigits(when.minute) + ":" + TwoDigits(when.second);
}

// "C:\Program Files\TELVOR\telvor.exe" of a service's command line.
std::string ProgramOf(const std::string& commandLine) {
  if (!commandLine.starts_with('"')) return commandLine;
  return commandLine.substr(1, commandLine.find('"', 1) - 1);
}

std::string VersionText(const std::string& path) {
  const std::string version = platform::FileVersion(path);
  if (!version.empty()) return version;
  const platform::FileBytes file = platform::ReadFileEnd(path, 0);
  return file.error == platform::kErrorSuccess ? std::to_string(file.size) + " bytes without a version"
                                               : ErrorText(file.error);
}

// ---- The log ----

struct LogEnd {
  std::string trouble;  // empty if it could be read
  std::vector<std::string> lines;
};

LogEnd ReadLogEnd() {
  const std::string path = LogPath();
  const platform::FileBytes log = platform::ReadFileEnd(path, kMostLogBytes);
  if (log.error != platform::kErrorSuccess) return {path + ": " + ErrorText(log.error), {}};
  LogEnd end{{}, SplitLines(log.bytes)};
  const bool cut = log.size > log.bytes.size();
  const size_t many = end.lines.size() > kMostLogLines ? end.lines.size() - kMostLogLines : cut ? 1 : 0;
  end.lines.erase(end.lines.begin(),
                  end.lines.begin() + static_cast<std::ptrdiff_t>(std::min(many, end.lines.size())));
  return end;
}

// What the service's last start said of its build.
std::string BuildText(const LogEnd& log) {
  static constexpr char kBuild[] = "BuildID: ";
  const auto last = std::find_if(log.lines.rbegin(), log.lines.rend(), [](const std::string& line) {
    return line.find(kBuild) != std::string::npos;
  });
  return last == log.lines.rend() ? "not told in the log's end"
                                  : last->substr(last->find(kBuild) + sizeof kBuild - 1);
}

Section LogSection(const LogEnd& log) {
  Section section{"The log's end, at most " + std::to_string(kMostLogLines) + " lines", log.lines};
  if (!log.trouble.empty()) section.lines = {log.trouble};
  return section;
}

// ---- Programs and services ----

Section VersionSection(const LogEnd& log) {
  const platform::WindowsFacts windows = platform::DescribeWindows();
  const std::string program = ProgramOf(platform::QueryService(kServiceName).commandLine);
  Rows rows = {
      {"telvorctl", TELVOR_VERSION}, {"telvor.exe", VersionText(program)}, {"Build", BuildText(log)}};
  for (const char* name : {kWireGuardProgram, kWgProgram})
    rows.push_back({name, VersionText(std::string(kWireGuardFolder) + name)});
  rows.push_back({"Windows", std::to_string(windows.major) + "." + std::to_string(windows.minor) + "." +
                                 std::to_string(windows.build) + ", code page " +
                                 std::to_string(windows.codePage) + ", language " + windows.language});
  rows.push_back({"Local time", TimeText(platform::LocalTime())});
  rows.push_back({"UTC", TimeText(platform::UtcTime())});
  return {"Versions and time", TableLines(rows)};
}

std::vector<std::string> ServiceRow(const char* name) {
  const platform::ServiceFacts facts = platform::QueryService(name);
  if (facts.error != platform::kErrorSuccess) return {name, ErrorText(facts.error)};
  return {name,
          WordOf(kStates, facts.state, "state "),
          "exit code " + std::to_string(facts.exitCode),
          "start " + WordOf(kStartTypes, facts.startType, "type "),
          facts.account,
          facts.commandLine};
}

Section ServiceSection() {
  Rows rows;
  for (const char* name : kServices) rows.push_back(ServiceRow(name));
  return {"Services", TableLines(rows)};
}

// ---- Files ----

// The one line that a marker or drop file holds, in UTF-16.
std::string NoteText(const std::string& path) {
  const platform::FileBytes file = platform::ReadFileEnd(path, kMostNoteBytes);
  if (file.error != platform::kErrorSuccess) return ErrorText(file.error);
  std::string text;
  for (const std::string& line : SplitLines(Utf8FromUtf16(file.bytes)))
    text += (text.empty() ? "" : " | ") + line;
  return text;
}

std::vector<platform::FolderEntry> SortedEntries(platform::Folder& folder) {
  std::sort(folder.entries.begin(), folder.entries.end(),
            [](const auto& one, const auto& other) { return one.name < other.name; });
  return folder.entries;
}

// Those of a folder's files that hold a note, with what they say.
Section NoteSection(const std::string& title, const std::string& path,
                    bool (*isNote)(const std::string& name)) {
  platform::Folder folder = platform::ListFolder(path);
  if (folder.error != platform::kErrorSuccess) return {title, {path + ": " + ErrorText(folder.error)}};
  Rows rows;
  for (const platform::FolderEntry& entry : SortedEntries(folder)) {
    if (entry.isFolder || !isNote(entry.name)) continue;
    rows.push_back({TimeText(entry.written), entry.name, NoteText(path + "\\" + entry.name)});
  }
  if (rows.empty()) return {title, {"none"}};
  return {title, TableLines(rows)};
}

bool IsMarker(const std::string& name) {
  return name.ends_with(".txt");
}

bool IsDropFile(const std::string& name) {
  return std::find(std::begin(kDropFiles), std::end(kDropFiles), name) != std::end(kDropFiles);
}

void AddFiles(const std::string& path, int depth, Rows& rows) {
  platform::Folder folder = platform::ListFolder(path);
  if (folder.error != platform::kErrorSuccess)
    rows.push_back({"", "", path + ": " + ErrorText(folder.error)});
  for (const platform::FolderEntry& entry : SortedEntries(folder)) {
    const std::string file = path + "\\" + entry.name;
    rows.push_back({TimeText(entry.written), entry.isFolder ? "" : std::to_string(entry.size), file});
    if (entry.isFolder && !entry.isLink && depth < kDeepestFolder) AddFiles(file, depth + 1, rows);
  }
}

Section FileSection() {
  Rows rows = {{"WRITTEN", "BYTES", "FILE"}};
  AddFiles(kDataFolder, 0, rows);
  AddFiles(LogFolder(), 0, rows);
  return {"Files, by name and size alone", TableLines(rows)};
}

// ---- Network ----

Section AdapterSection() {
  Rows rows = {{"INDEX", "NAME", "STATE", "IPV4"}};
  for (const platform::Adapter& adapter : platform::ListAdapters()) {
    std::string addresses;
    for (const uint32_t address : adapter.addresses)
      addresses += (addresses.empty() ? "" : " ") + AddressText(address);
    rows.push_back({std::to_string(adapter.index), adapter.name, adapter.isUp ? "up" : "down", addresses});
  }
  return {"Network adapters", TableLines(rows)};
}

// Default routes, and those to single addresses by way of another machine: what bypasses the tunnel.
bool IsTelling(const platform::Route& route) {
  return route.prefixLength == 0 || (route.prefixLength == 32 && route.nextHop != 0);
}

Section RouteSection() {
  Rows rows = {{"DESTINATION", "BY", "INDEX", "METRIC"}};
  const platform::RouteTable table = platform::ListRoutes();
  for (const platform::Route& route : table.routes) {
    if (!IsTelling(route)) continue;
    rows.push_back({AddressText(route.destination) + "/" + std::to_string(route.prefixLength),
                    AddressText(route.nextHop), std::to_string(route.adapterIndex),
                    std::to_string(route.metric)});
  }
  return {"Default routes, and routes to single addresses", TableLines(rows)};
}

}  // namespace

std::vector<Section> MachineSections() {
  const LogEnd log = ReadLogEnd();
  return {VersionSection(log),
          ServiceSection(),
          NoteSection("Markers of the last start and stop", kMarkerFolder, IsMarker),
          NoteSection("Drop files of the worker", kDataFolder, IsDropFile),
          FileSection(),
          AdapterSection(),
          RouteSection(),
          LogSection(log)};
}

}  // namespace telvorctl
