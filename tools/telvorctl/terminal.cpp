#include "telvorctl/terminal.h"

#include <algorithm>
#include <cctype>

#include "telvorctl/platform.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

using platform::Stream;

constexpr size_t kWidthUnlessKnown = 80;

bool TypeSecret(const std::string& prompt, std::string& secret) {
  platform::Write(Stream::kErrors, prompt + ": ");
  const bool typed = platform::ReadHiddenLine(secret);
  platform::Write(Stream::kErrors, "\n");
  return typed;
}

void EraseProgress(Progress& progress) {
  if (progress.width > 0) platform::Write(Stream::kErrors, "\r" + std::string(progress.width, ' ') + "\r");
  progress.width = 0;
}

std::string PromptFor(std::string name) {
  name.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(name.front())));
  return name;
}

ExitCode AskSecretBy(const std::string& prompt, const std::string& name, bool fromInput,
                     std::string& secret) {
  if (!fromInput && !platform::IsTerminal(Stream::kInput)) {
    Complain("there is no terminal to ask at; in a script hand it over with --password-stdin");
    return kWrongUsage;
  }
  const bool given = fromInput ? platform::ReadInputLine(secret) : TypeSecret(prompt, secret);
  if (!given && platform::WasInterrupted()) return kInterrupted;
  if (secret.ends_with('\r')) secret.pop_back();
  if (!given || secret.empty()) {
    Complain("no " + name + " was given");
    return kWrongUsage;
  }
  if (!IsUtf8(secret)) {
    Complain("what was read is not UTF-8");
    return kWrongUsage;
  }
  return kDone;
}

}  // namespace

bool Say(const std::string& line) {
  return platform::Write(Stream::kOutput, Showable(line) + "\n");
}

bool SayAll(const std::vector<std::string>& lines) {
  return std::all_of(lines.begin(), lines.end(), Say);
}

bool SayJson(const Json& value) {
  return Say(value.dump());
}

void Complain(const std::string& text) {
  platform::Write(Stream::kErrors, "telvorctl: " + Showable(text) + "\n");
}

void ShowProgress(Progress& progress, const std::string& text, uint64_t seconds) {
  const std::string shown = Showable(text);
  if (!platform::IsTerminal(Stream::kErrors)) {
    if (shown != progress.text) platform::Write(Stream::kErrors, shown + "\n");
    progress.text = shown;
    return;
  }
  const size_t known = platform::TerminalWidth(Stream::kErrors);
  // The last column stays free: a terminal that fills it goes to the next line.
  const size_t room = (known > 1 ? known : kWidthUnlessKnown) - 1;
  const std::string line = FitColumns(shown + " (" + std::to_string(seconds) + " s)", room, false);
  const size_t width = Columns(line);
  platform::Write(Stream::kErrors, "\r" + FitColumns(line, std::max(width, progress.width), true));
  progress.text = shown;
  progress.width = width;
}

void ComplainAbove(Progress& progress, const std::string& text) {
  EraseProgress(progress);
  Complain(text);
}

void ClearProgress(Progress& progress) {
  EraseProgress(progress);
  progress = Progress();
}

ExitCode AskSecret(const std::string& name, bool fromInput, std::string& secret) {
  return AskSecretBy(PromptFor(name), name, fromInput, secret);
}

ExitCode AskNewPassword(const std::string& name, bool fromInput, std::string& password) {
  const ExitCode code = AskSecret(name, fromInput, password);
  if (code != kDone || fromInput) return code;
  std::string again;
  const ExitCode second = AskSecretBy(PromptFor(name) + " again", name, false, again);
  if (second != kDone) return second;
  if (again == password) return kDone;
  Complain("the two passwords differ");
  return kWrongUsage;
}

}  // namespace telvorctl
