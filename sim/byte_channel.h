// One direction of a pipe.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

namespace sim {

struct ByteChannel {
  std::string bytes;
  size_t capacity = 0;

  size_t Room() const { return capacity - std::min(capacity, bytes.size()); }
};

// Moves what fits from the front of `bytes` into the channel.
inline void PutInto(ByteChannel& channel, std::string& bytes) {
  const size_t count = std::min(channel.Room(), bytes.size());
  channel.bytes.append(bytes, 0, count);
  bytes.erase(0, count);
}

// Moves up to `size` bytes out of the channel; gives their number.
inline uint32_t TakeFrom(ByteChannel& channel, char* buffer, uint32_t size) {
  const size_t count = channel.bytes.copy(buffer, size);
  channel.bytes.erase(0, count);
  return static_cast<uint32_t>(count);
}

}  // namespace sim
