#include "controlplane/byte_search.h"

#include <algorithm>
#include <cstring>
#include <utility>

#if defined(__GNUC__) && defined(__x86_64__)
#define TELVOR_VECTORS
#include <immintrin.h>
#endif

namespace {

// For any processor. Looks for the second byte on, which is rarer in JSON than the quote that a key begins
// with.
size_t FindTextPortably(std::string_view text, std::string_view pattern) {
  const std::string_view behindFirst = pattern.substr(1);
  for (size_t at = text.find(behindFirst, 1); at != std::string_view::npos;
       at = text.find(behindFirst, at + 1)) {
    if (text[at - 1] == pattern[0]) return at - 1;
  }
  return std::string_view::npos;
}

#if defined(TELVOR_VECTORS)

// From the rarest on, as JSON with English names has them; what is not named is rarer still.
constexpr std::string_view kBytesByRarity = "qjzxkvwybgpfmdc_hlunirtsoae:\"";

size_t Frequency(char byte) {
  return kBytesByRarity.find(byte) + 1;
}

// The positions in the pattern of two bytes, in the pattern's order.
struct RareBytes {
  size_t first;
  size_t second;
};

constexpr size_t kBlock = 64;    // bytes: a line of the cache
constexpr size_t kStep = 256;    // positions that are looked at before there is a look at the result
constexpr size_t kAhead = 2048;  // bytes that are asked for before they are looked at

// The two rarest bytes among those that begin the pattern; less than a block lies between them.
RareBytes ChooseRareBytes(std::string_view pattern) {
  size_t rarest = 0;
  size_t next = 1;
  if (Frequency(pattern[1]) < Frequency(pattern[0])) std::swap(rarest, next);
  for (size_t i = 2; i < std::min(pattern.size(), kBlock); ++i) {
    if (Frequency(pattern[i]) < Frequency(pattern[rarest])) {
      next = std::exchange(rarest, i);
    } else if (Frequency(pattern[i]) < Frequency(pattern[next])) {
      next = i;
    }
  }
  return {std::min(rarest, next), std::max(rarest, next)};
}

// The first of `kStep` positions from `start` on where the pattern stands; null if there is none. Within a
// loop below it would take registers from it.
__attribute__((noinline)) const char* FindInStep(const char* start, std::string_view pattern) {
  for (const char* at = start; at < start + kStep; ++at) {
    if (*at == pattern[0] && std::memcmp(at, pattern.data(), pattern.size()) == 0) return at;
  }
  return nullptr;
}

bool HasStep(const char* at, const char* end, std::string_view pattern) {
  return static_cast<size_t>(end - at) >= kStep + kBlock + pattern.size();
}

// Looks through whole steps, from a position on whose first rare byte stands at the start of a block.
// Null if the pattern stands in none of them; `at` is the first position that was not looked at.
using StepSearch = const char* (*)(const char*& at, const char* end, std::string_view pattern,
                                   RareBytes rare);

__attribute__((target("avx2"))) const char* FindInStepsByAvx2(const char*& at, const char* end,
                                                              std::string_view pattern, RareBytes rare) {
  constexpr size_t kVector = sizeof(__m256i);
  const __m256i a = _mm256_set1_epi8(pattern[rare.first]);
  const __m256i b = _mm256_set1_epi8(pattern[rare.second]);
  for (; HasStep(at, end, pattern); at += kStep) {
    for (size_t i = 0; i < kStep; i += kBlock) _mm_prefetch(at + kAhead + i, _MM_HINT_T0);
    __m256i matches = _mm256_setzero_si256();
#pragma GCC unroll 8
    for (size_t i = 0; i < kStep; i += kVector) {
      const auto* first = reinterpret_cast<const __m256i*>(at + rare.first + i);
      const auto* second = reinterpret_cast<const __m256i*>(at + rare.second + i);
      const __m256i match = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_load_si256(first), a),
                                             _mm256_cmpeq_epi8(_mm256_loadu_si256(second), b));
      matches = _mm256_or_si256(matches, match);
    }
    if (_mm256_testz_si256(matches, matches)) continue;
    if (const char* found = FindInStep(at, pattern)) return found;
  }
  return nullptr;
}

// Reads each block once: where the second byte stands in it and in the next one is moved to where the first
// would have to stand.
__attribute__((target("avx512bw,bmi2"))) const char* FindInStepsByAvx512(const char*& at, const char* end,
                                                                         std::string_view pattern,
                                                                         RareBytes rare) {
  const __m512i a = _mm512_set1_epi8(pattern[rare.first]);
  const __m512i b = _mm512_set1_epi8(pattern[rare.second]);
  const size_t distance = rare.second - rare.first;
  if (!HasStep(at, end, pattern)) return nullptr;
  const __m512i start = _mm512_load_si512(at + rare.first);
  uint64_t first = _mm512_cmpeq_epi8_mask(start, a);
  uint64_t second = _mm512_cmpeq_epi8_mask(start, b);
  for (; HasStep(at, end, pattern); at += kStep) {
    for (size_t i = 0; i < kStep; i += kBlock) _mm_prefetch(at + kAhead + i, _MM_HINT_T0);
    uint64_t matches = 0;
#pragma GCC unroll 4
    for (size_t i = kBlock; i <= kStep; i += kBlock) {
      const __m512i next = _mm512_load_si512(at + rare.first + i);
      const uint64_t nextSecond = _mm512_cmpeq_epi8_mask(next, b);
      matches |= first & (second >> distance | nextSecond << (kBlock - distance));
      first = _mm512_cmpeq_epi8_mask(next, a);
      second = nextSecond;
    }
    if (matches == 0) continue;
    if (const char* found = FindInStep(at, pattern)) return found;
  }
  return nullptr;
}

template <StepSearch findInSteps>
size_t FindByVectors(std::string_view text, std::string_view pattern) {
  if (text.size() <= 2 * kStep + pattern.size()) return FindTextPortably(text, pattern);
  const RareBytes rare = ChooseRareBytes(pattern);
  const auto unaligned = (0 - reinterpret_cast<uintptr_t>(text.data() + rare.first)) % kBlock;
  const size_t found = FindTextPortably(text.substr(0, unaligned + pattern.size() - 1), pattern);
  if (found != std::string_view::npos) return found;
  const char* at = text.data() + unaligned;
  if (const char* inStep = findInSteps(at, text.data() + text.size(), pattern, rare))
    return static_cast<size_t>(inStep - text.data());
  const auto rest = static_cast<size_t>(at - text.data());
  const size_t inRest = FindTextPortably(text.substr(rest), pattern);
  return inRest == std::string_view::npos ? inRest : rest + inRest;
}

#endif

}  // namespace

std::vector<TextSearch> TextSearches() {
  std::vector<TextSearch> searches;
#if defined(TELVOR_VECTORS)
  if (__builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("bmi2"))
    searches.push_back(FindByVectors<FindInStepsByAvx512>);
  if (__builtin_cpu_supports("avx2")) searches.push_back(FindByVectors<FindInStepsByAvx2>);
#endif
  searches.push_back(FindTextPortably);
  return searches;
}

size_t FindText(std::string_view text, std::string_view pattern) {
  static const TextSearch find = TextSearches().front();
  return find(text, pattern);
}
