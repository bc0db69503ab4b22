// What the fuzz targets share. A target takes bytes as a stranger could send them and holds what the system
// makes of them against a second, slower reading of the same bytes.
#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace fuzz {

struct Target {
  const char* name;                       // also of its folder in corpus/
  void (*run)(const std::string& bytes);  // throws Broken
};

// All targets, in the order of their names.
std::span<const Target> Targets();

// A promise was not kept.
struct Broken : std::logic_error {
  using std::logic_error::logic_error;
};

inline void Require(bool kept, const std::string& promise) {
  if (!kept) throw Broken(promise);
}

// Takes the first byte off; 0 when there is none.
inline unsigned TakeByte(std::string& bytes) {
  if (bytes.empty()) return 0;
  const auto byte = static_cast<unsigned char>(bytes.front());
  bytes.erase(0, 1);
  return byte;
}

// Each code unit of `bytes`, low byte first, as a wide text.
inline std::wstring WideOf(std::string_view bytes) {
  std::wstring text;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    text += static_cast<wchar_t>(static_cast<unsigned char>(bytes[i]) |
                                 static_cast<unsigned char>(bytes[i + 1]) << 8);
  }
  return text;
}

void RunBaseUrl(const std::string& bytes);
void RunCatalogue(const std::string& bytes);
void RunCheckout(const std::string& bytes);
void RunJsonFields(const std::string& bytes);
void RunLogView(const std::string& bytes);
void RunPipeChunks(const std::string& bytes);
void RunPolicy(const std::string& bytes);
void RunProfile(const std::string& bytes);
void RunRequestFields(const std::string& bytes);
void RunRequestLine(const std::string& bytes);
void RunSession(const std::string& bytes);
void RunText(const std::string& bytes);
void RunTimeStamp(const std::string& bytes);
void RunWgOutput(const std::string& bytes);

}  // namespace fuzz
