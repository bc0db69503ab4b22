#include "controlplane/byte_search.h"

#include <cstring>
#include <utility>

#if defined(__GNUC__) && defined(__x86_64__)
#define TELVOR_AVX2
#include <immintrin.h>
#endif

namespace {

#if defined(TELVOR_AVX2)

// From the rarest on, as JSON with English names has them; what is not named is rarer still.
constexpr std::string_view kBytesByRarity = "qjzxkvwybgpfmdc_hlunirtsoae:\"";

size_t Frequency(char byte) {
  return kBytesByRarity.find(byte) + 1;
}

// The positions in the pattern of its two rarest bytes.
struct RareBytes {
  size_t first;
  size_t second;
};

RareBytes ChooseRareBytes(std::string_view pattern) {
  RareBytes rare{0, 1};
  if (Frequency(pattern[1]) < Frequency(pattern[0])) std::swap(rare.first, rare.second);
  for (size_t i = 2; i < pattern.size(); ++i) {
    if (Frequency(pattern[i]) < Frequency(pattern[rare.first])) {
      rare = {i, rare.first};
    } else if (Frequency(pattern[i]) < Frequency(pattern[rare.second])) {
      rare.second = i;
    }
  }
  return rare;
}

constexpr size_t kVector = sizeof(__m256i);
constexpr size_t kVectors = 8;  // looked at in one step
constexpr size_t kStep = kVectors * kVector;
constexpr size_t kCacheLine = 64;
constexpr size_t kAhead = 2048;  // bytes that are asked for before they are looked at

// The first of `kStep` positions from `start` on where the pattern stands; null if there is none.
const char* FindInStep(const char* start, std::string_view pattern) {
  for (const char* at = start; at < start + kStep; ++at) {
    if (*at == pattern[0] && std::memcmp(at, pattern.data(), pattern.size()) == 0) return at;
  }
  return nullptr;
}

// Looks through whole steps, from the first position on whose rarest byte stands at the start of a vector.
// Null if the pattern stands in none of them; `at` is the first position that was not looked at.
__attribute__((target("avx2"))) const char* FindInWholeSteps(const char*& at, const char* end,
                                                             std::string_view pattern, RareBytes rare) {
  const __m256i a = _mm256_set1_epi8(pattern[rare.first]);
  const __m256i b = _mm256_set1_epi8(pattern[rare.second]);
  for (; static_cast<size_t>(end - at) >= kStep + pattern.size(); at += kStep) {
    for (size_t i = 0; i < kStep; i += kCacheLine) _mm_prefetch(at + kAhead + i, _MM_HINT_T0);
    __m256i matches = _mm256_setzero_si256();
#pragma GCC unroll 8
    for (size_t i = 0; i < kVectors; ++i) {
      const auto* first = reinterpret_cast<const __m256i*>(at + rare.first + i * kVector);
      const auto* second = reinterpret_cast<const __m256i*>(at + rare.second + i * kVector);
      const __m256i match = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_load_si256(first), a),
                                             _mm256_cmpeq_epi8(_mm256_loadu_si256(second), b));
      matches = _mm256_or_si256(matches, match);
    }
    if (_mm256_testz_si256(matches, matches)) continue;
    if (const char* found = FindInStep(at, pattern)) return found;
  }
  return nullptr;
}

// FindText for a text that is longer than two steps and the pattern.
size_t FindByVectors(std::string_view text, std::string_view pattern) {
  const RareBytes rare = ChooseRareBytes(pattern);
  const auto unaligned = (0 - reinterpret_cast<uintptr_t>(text.data() + rare.first)) % kVector;
  const size_t found = FindTextPortably(text.substr(0, unaligned + pattern.size() - 1), pattern);
  if (found != std::string_view::npos) return found;
  const char* at = text.data() + unaligned;
  if (const char* inStep = FindInWholeSteps(at, text.data() + text.size(), pattern, rare))
    return static_cast<size_t>(inStep - text.data());
  const auto rest = static_cast<size_t>(at - text.data());
  const size_t inRest = FindTextPortably(text.substr(rest), pattern);
  return inRest == std::string_view::npos ? inRest : rest + inRest;
}

#endif

}  // namespace

size_t FindText(std::string_view text, std::string_view pattern) {
#if defined(TELVOR_AVX2)
  static const bool hasAvx2 = __builtin_cpu_supports("avx2");
  if (hasAvx2 && text.size() > 2 * kStep + pattern.size()) return FindByVectors(text, pattern);
#endif
  return FindTextPortably(text, pattern);
}

// Looks for the second byte on, which is rarer in JSON than the quote that a key begins with.
size_t FindTextPortably(std::string_view text, std::string_view pattern) {
  const std::string_view behindFirst = pattern.substr(1);
  for (size_t at = text.find(behindFirst, 1); at != std::string_view::npos;
       at = text.find(behindFirst, at + 1)) {
    if (text[at - 1] == pattern[0]) return at - 1;
  }
  return std::string_view::npos;
}
