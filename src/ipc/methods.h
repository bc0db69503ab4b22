// The dispatcher's table of methods, the seam at which views and account methods plug in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

struct PipeRequest {
  const std::string& line;  // the request, without line end
  int32_t id;               // echoed in the reply
};

// Runs the method and sets `reply` (without line end). The result is HandleIpcRequest's.
using PipeMethodBody = bool (*)(const PipeRequest& request, std::string& reply);

struct PipeMethod {
  const char* name;
  PipeMethodBody body;  // null: the method answers as an unknown one
};

inline constexpr size_t kPipeMethodCount = 19;

// In dispatch order, with the names of all methods; the bodies are null until the entry has set them.
extern std::array<PipeMethod, kPipeMethodCount> gPipeMethods;

// Sets the body of the method of that name, which must be in the table.
void PlugPipeMethod(const char* name, PipeMethodBody body);
