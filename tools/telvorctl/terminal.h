// What a person sees and types: lines, complaints, a progress line, hidden prompts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "telvorctl/exit_codes.h"
#include "telvorctl/json.h"

namespace telvorctl {

// A line on the standard output, made showable. False if nobody reads it any more.
bool Say(const std::string& line);
bool SayAll(const std::vector<std::string>& lines);

// The value as one line on the standard output. False as for Say.
bool SayJson(const Json& value);

// "telvorctl: " and the text as a line on the standard error, made showable.
void Complain(const std::string& text);

// What goes on while one waits: one line on the standard error that is redrawn if that is a terminal. Else a
// line for each new text, without the seconds.
struct Progress {
  std::string text;
  size_t width = 0;  // columns that are drawn now
};
void ShowProgress(Progress& progress, const std::string& text, uint64_t seconds);
// As Complain, on a line of its own above the progress.
void ComplainAbove(Progress& progress, const std::string& text);
// Leaves the terminal with an empty line again.
void ClearProgress(Progress& progress);

// Asks at the terminal for the secret of this name ("new password"), without showing it; with `fromInput`
// takes a line of the standard input instead, and shows no prompt. kWrongUsage with a complaint if there is
// no terminal, no line, an empty one or one that is no UTF-8; kInterrupted after Ctrl+C.
ExitCode AskSecret(const std::string& name, bool fromInput, std::string& secret);

// As AskSecret, asked twice at a terminal; two answers that differ are a wrong usage.
ExitCode AskNewPassword(const std::string& name, bool fromInput, std::string& password);

}  // namespace telvorctl
