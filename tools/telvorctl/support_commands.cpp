#include "telvorctl/support_commands.h"

#include <algorithm>
#include <string>
#include <vector>

#include "telvorctl/machine.h"
#include "telvorctl/masking.h"
#include "telvorctl/platform.h"
#include "telvorctl/rendering.h"
#include "telvorctl/service_client.h"
#include "telvorctl/support_report.h"
#include "telvorctl/terminal.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

constexpr char kNotice[] =
    "Passwords, tokens, keys and email addresses are taken out as ***. Names of this computer, of its "
    "networks and of what bypasses the tunnel are not: read this before you give it away.";

// Masked as one text: a name and its value may stand on two lines.
std::vector<std::string> Masked(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return SplitLines(MaskSecrets(text));
}

// The public key is told on purpose: by it the control plane's operator finds the computer.
void AddPublicKey(const Json& state, std::vector<std::string>& lines) {
  const std::string key = TextMember(state, "wgPublicKey");
  if (!IsKey(key)) return;
  for (const std::string& line : DeviceLines({{"wgPublicKey", key}})) lines.push_back(line);
}

std::vector<std::string> Prefixed(const char* prefix, std::vector<std::string> lines) {
  if (!lines.empty()) lines.front() = prefix + lines.front();
  return lines;
}

// What the service answers; kInterrupted after Ctrl+C, else kDone.
ExitCode AskService(Section& section) {
  const Reply state = Ask("GetState");
  if (state.code == kInterrupted) return kInterrupted;
  const Reply status = state.code == kDone ? Ask("GET /ui/status") : state;
  if (status.code == kInterrupted) return kInterrupted;
  if (state.code == kDone) {
    section.lines = Prefixed("GetState: ", {BriefState(state.result)});
    for (std::string& line : DeviceLines({{"deviceId", TextMember(state.result, "deviceId")}}))
      section.lines.push_back(std::move(line));
  }
  const std::vector<std::string> rest =
      status.code == kDone ? StatusLines(status.result) : std::vector<std::string>{status.message};
  section.lines.insert(section.lines.end(), rest.begin(), rest.end());
  section.lines = Masked(section.lines);
  if (state.code == kDone) AddPublicKey(state.result, section.lines);
  return kDone;
}

std::string JsonText(const std::vector<Section>& sections) {
  Json report = Json::object();
  for (const Section& section : sections) {
    Json lines = Json::array();
    for (const std::string& line : section.lines) lines.push_back(RepairUtf8(line));
    report[section.title] = std::move(lines);
  }
  return report.dump() + "\n";
}

std::string ReportText(const std::vector<Section>& sections) {
  std::string text = std::string("TELVOR support report\n") + kNotice + "\n";
  for (const Section& section : sections) {
    text += "\n== " + section.title + "\n";
    for (const std::string& line : section.lines) text += Showable(line) + "\n";
  }
  return text;
}

ExitCode WriteReport(const Options& options, const std::string& text) {
  const uint32_t error = platform::WriteNewFile(options.file, text);
  if (error == platform::kErrorSuccess) {
    if (!options.json) Say("The report is in " + options.file + ". Read it before you give it away.");
    return kDone;
  }
  Complain(error == platform::kErrorFileExists
               ? options.file + " is there already; name a new file"
               : options.file + " cannot be written: Windows error " + std::to_string(error));
  return kFailed;
}

}  // namespace

ExitCode ReportForSupport(const Options& options) {
  Section service{"The service's answers", {}};
  if (AskService(service) == kInterrupted) return kInterrupted;
  std::vector<Section> sections = MachineSections();
  for (Section& section : sections) section.lines = Masked(section.lines);
  sections.insert(sections.begin() + 1, std::move(service));
  const std::string text = options.json ? JsonText(sections) : ReportText(sections);
  if (!options.file.empty()) return WriteReport(options, text);
  platform::Write(platform::Stream::kOutput, text);
  return kDone;
}

}  // namespace telvorctl
