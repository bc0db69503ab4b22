// The simulated named pipe, seen from its clients. Each client call is made by the driver or by a simulated
// thread and waits in virtual time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "ipc/platform.h"

namespace sim {

class PipeClient {
 public:
  // Opens the pipe; tries for `milliseconds` (2: no such pipe, 231: all instances busy). See Error().
  explicit PipeClient(uint32_t milliseconds = 2000, const std::wstring& name = L"\\\\.\\pipe\\telvor");
  ~PipeClient();  // closes
  bool Connected() const;
  uint32_t Error() const;
  // Gives up, with the rest unwritten, when the server takes nothing for so long.
  void Write(const std::string& bytes, uint32_t milliseconds = platform::kInfinite);
  // Everything up to the server's disconnect; nothing if it takes longer.
  std::optional<std::string> ReadToEnd(uint32_t milliseconds = 600000);
  void Close();

 private:
  struct State;
  std::shared_ptr<State> state_;
};
// One whole exchange: opens, writes the line with a line feed, reads to the end; the reply with its line
// feed.
std::optional<std::string> Ask(const std::string& line, uint32_t milliseconds = 600000);

size_t PipeInstances();                                     // existing now
const platform::NamedPipeParameters* LastPipeParameters();  // null before the first CreateNamedPipeW
std::wstring LastSecurityDescriptorText();

}  // namespace sim
