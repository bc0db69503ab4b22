// Searches in raw bytes, as fast as the processor reads them. Pure functions that log nothing.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// As std::string_view::find, for a pattern of at least two bytes. Where the processor has AVX-512 or AVX2,
// 256 positions are looked at in one step: those where the two bytes of the pattern match that are the rarest
// in JSON.
size_t FindText(std::string_view text, std::string_view pattern);

using TextSearch = size_t (*)(std::string_view text, std::string_view pattern);

// The searches that this processor is able to run, all of which find the same: the fastest first, which is
// FindText's, and last the one for any processor.
std::vector<TextSearch> TextSearches();

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

#if defined(__SSE2__)

// All bits of a byte are set where it is one of those wanted.
template <typename... Bytes>
__m128i Matches(__m128i part, Bytes... wanted) {
  __m128i matches = _mm_setzero_si128();
  ((matches = _mm_or_si128(matches, _mm_cmpeq_epi8(part, _mm_set1_epi8(wanted)))), ...);
  return matches;
}

#endif

// Bit n is set where byte n is one of those wanted.
template <typename... Bytes>
uint64_t Marks(const ByteBlock& block, Bytes... wanted) {
#if defined(__SSE2__)
  const auto marks = [&](size_t part) {
    const auto bits = static_cast<uint16_t>(_mm_movemask_epi8(Matches(block.parts[part], wanted...)));
    return uint64_t{bits} << (16 * part);
  };
  return marks(0) | marks(1) | marks(2) | marks(3);
#else
  uint64_t marks = 0;
  for (size_t at = 0; at < ByteBlock::kSize; ++at)
    marks |= uint64_t{((block.bytes[at] == wanted) || ...)} << at;
  return marks;
#endif
}
