// The worker's crash trail, as the stage markers are the start's.
#pragma once

#include <string>

// Writes `text` in UTF-16LE to `path`, made anew, and flushes. Makes no folder. True if the write wrote.
bool WriteDropFile(const std::wstring& path, const std::wstring& text);
