#include "telvorctl/terminal.h"

#include <algorithm>

#include "telvorctl/platform.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

using platform::Stream;

constexpr size_t kWidthUnlessKnown = 80;

ExitCode ReadSecret(const std::string& prompt, bool fromInput, std::string& secret) {
  if (fromInput) {
    if (platform::ReadInputLine(secret)) return kDone;
    Complain("the standard input ended before all that is needed was read");
    return kWrongUsage;
  }
  if (!platform::IsTerminal(Stream::kInput)) {
    Complain("there is no terminal to ask at; in a script hand it over with --password-stdin");
    return kWrongUsage;
  }
  platform::Write(Stream::kErrors, prompt + ": ");
  const bool typed = platform::ReadHiddenLine(secret);
  platform::Write(Stream::kErrors, "\n");
  if (typed) return kDone;
  if (platform::WasInterrupted()) return kInterrupted;
  Complain("nothing was typed");
  return kWrongUsage;
}

}  // namespace

void Say(const std::string& line) {
  platform::Write(Stream::kOutput, Showable(line) + "\n");
}

void SayAll(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) Say(line);
}

void SayJson(const Json& value) {
  Say(value.dump());
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

void ClearProgress(Progress& progress) {
  if (progress.width > 0) platform::Write(Stream::kErrors, "\r" + std::string(progress.width, ' ') + "\r");
  progress = Progress();
}

ExitCode AskSecret(const std::string& prompt, bool fromInput, std::string& secret) {
  const ExitCode code = ReadSecret(prompt, fromInput, secret);
  if (code != kDone) return code;
  if (secret.ends_with('\r')) secret.pop_back();
  if (secret.empty()) {
    Complain("an empty answer is none");
    return kWrongUsage;
  }
  if (!IsUtf8(secret)) {
    Complain("what was read is not UTF-8");
    return kWrongUsage;
  }
  return kDone;
}

ExitCode AskNewPassword(const std::string& prompt, bool fromInput, std::string& password) {
  const ExitCode code = AskSecret(prompt, fromInput, password);
  if (code != kDone || fromInput) return code;
  std::string again;
  const ExitCode second = AskSecret(prompt + " again", false, again);
  if (second != kDone) return second;
  if (again == password) return kDone;
  Complain("the two passwords differ");
  return kWrongUsage;
}

}  // namespace telvorctl
