// The policy's files on the simulated machine.
#pragma once

#include <string>

#include "service/data_files.h"
#include "sim/files.h"
#include "sim/kernel.h"

inline constexpr wchar_t kSeedFile[] = L"C:\\Program Files\\TELVOR\\data\\runtime.seed";

// UTF-16 little endian of a text of the Basic Multilingual Plane.
inline std::string Utf16(const std::wstring& text) {
  std::string bytes;
  for (const wchar_t unit : text) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8 & 0xFF);
  }
  return bytes;
}

// runtime.dat as this machine would have sealed it.
inline void PutPolicy(const std::wstring& text) {
  sim::PutFile(kRuntimePolicyFile, sim::Seal(Utf16(text)));
}
