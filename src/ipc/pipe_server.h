// The pipe server: one line in and one line out per connection, up to sixteen connections at once. It knows
// nothing of what the lines mean.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

inline constexpr wchar_t kPipeName[] = L"\\\\.\\pipe\\telvor";
inline constexpr wchar_t kPipeSecurity[] = L"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GRGW;;;AU)";

// The assembly of a request line from chunks of bytes.
struct RequestLine {
  std::string text;
  bool complete = false;
};

// Appends a chunk up to its first line feed, carriage returns dropped. False when the reading is over: the
// line is complete, or it is longer than 200000 bytes.
bool TakeChunk(RequestLine& line, std::string_view chunk);

// The reply to a line, line feed included: HandleIpcRequest's, or the fixed "IPC: no request" for an
// incomplete one.
std::string ReplyTo(const RequestLine& line);

// Thread entries. IpcThread accepts clients until the stop event; IpcClientThread serves the pipe in
// `argument`.
uint32_t IpcThread(void* argument);
uint32_t IpcClientThread(void* argument);
