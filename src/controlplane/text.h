// Text: wide text is UTF-16, one code unit an element; narrow text is UTF-8.
#pragma once

#include <string>

// Strict: invalid UTF-8 gives the empty text, as empty input does.
std::wstring Utf8ToWide(const std::string& text);

// Invalid sequences become replacement characters.
std::wstring Utf8ToWideLenient(const std::string& text);

// Unpaired surrogates are converted by the platform's rule.
std::string WideToUtf8(const std::wstring& text);

// Remove blank, tab, line feed and carriage return at both ends, nothing else.
std::string TrimAscii(const std::string& text);
std::wstring TrimWide(std::wstring text);
