// Searches in raw bytes, as fast as the processor reads them. Pure functions that log nothing.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// As std::string_view::find, for a pattern of at least two bytes. Where the processor has AVX2, 256 positions
// are looked at in one step: those where the two bytes of the pattern match that are the rarest in JSON.
size_t FindText(std::string_view text, std::string_view pattern);

// The same on any processor.
size_t FindTextPortably(std::string_view text, std::string_view pattern);

// 64 bytes, which can be asked for all their positions of a byte at once.
struct ByteBlock {
  static constexpr size_t kSize = 64;
#if defined(__SSE2__)
  __m128i parts[4];
#else
  char bytes[kSize];
#endif
};

inline ByteBlock LoadBlock(const char* bytes) {
  ByteBlock block;
  std::memcpy(&block, bytes, ByteBlock::kSize);
  return block;
}

// Bit n is set where byte n is the one wanted.
inline uint64_t Marks(const ByteBlock& block, char wanted) {
#if defined(__SSE2__)
  const __m128i all = _mm_set1_epi8(wanted);
  const auto marks = [all](__m128i part) {
    return uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(part, all)))};
  };
  return marks(block.parts[0]) | marks(block.parts[1]) << 16 | marks(block.parts[2]) << 32 |
         marks(block.parts[3]) << 48;
#else
  uint64_t marks = 0;
  for (size_t at = 0; at < ByteBlock::kSize; ++at) marks |= uint64_t{block.bytes[at] == wanted} << at;
  return marks;
#endif
}
