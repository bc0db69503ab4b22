// The marker files of a start: they tell how far a start got before any log existed.
#pragma once

#include <string>

// Writes `text` in UTF-16LE to the file `name` in C:\VPN\stage\, made anew. Every failure is ignored; the
// folder is the installer's to make.
void WriteStageMarker(const std::wstring& name, const std::wstring& text);
