// The log: one append-only file that every thread writes, one line a call, in two encodings. Logging cannot
// fail its caller: a line that cannot be written is lost.
#pragma once

#include <cstdint>
#include <string>

// The path of the log, worked out anew on each call from the environment variable ProgramData; makes the
// folder. The bare file name, in the current directory, when the variable is missing or too long.
std::wstring GetLogFilePath();

// Appends "[YYYY-MM-DD HH:MM:SS] text" CR LF with one byte for each character up to 255. A character above
// that ends the line there, its line end included. A line feed in the text becomes CR LF.
void LogLine(const std::wstring& text);

// LogLine of the label and the text; nothing for an empty text.
void LogLineUnlessEmpty(const wchar_t* label, const std::wstring& text);

// The firewall's writer: the same line in UTF-8, the text as it stands.
void WfpLogLine(const std::wstring& text);

// LogLine of "<what> failed: <code> (<the system's message>)".
void LogWin32Error(const std::wstring& what, uint32_t code);

// WfpLogLine of "WFP: <what> failed: <code> (<the system's message>)"; a null `what` reads "(null)".
void WfpLogError(const wchar_t* what, uint32_t code);
