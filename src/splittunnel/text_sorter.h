// Sorts the many short texts of a policy: a million addresses in the time in which they can be read and made.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/operations.h"

// Ranks code units in their own order, in few bits. The told ones have a rank each; those between two of them
// share one.
class Alphabet {
 public:
  // `told` is ASCII.
  consteval explicit Alphabet(std::string_view told) {
    uint8_t rank = 0;
    bool isInGap = false;
    for (size_t unit = 0; unit < kUnits; ++unit) {
      const bool isTold = told.find(static_cast<char>(unit)) != std::string_view::npos;
      if (isTold || !isInGap) ++rank;
      ranks_[unit] = rank;
      if (isTold) units_[rank] = static_cast<wchar_t>(unit);
      isInGap = !isTold;
    }
    bits_ = static_cast<size_t>(std::bit_width(rank));
  }

  // At least 1.
  uint64_t RankOf(wchar_t unit) const {
    const size_t place = static_cast<uint16_t>(unit);
    return ranks_[place < kUnits ? place : kUnits - 1];
  }
  // 0 for a rank that several share.
  wchar_t UnitOf(uint64_t rank) const { return units_[rank]; }
  // That a rank takes.
  size_t Bits() const { return bits_; }

 private:
  static constexpr size_t kUnits = 256;  // the last stands for all above it, too

  std::array<uint8_t, kUnits> ranks_{};
  std::array<wchar_t, kUnits> units_{};
  size_t bits_ = 0;
};

inline constexpr Alphabet kAddressAlphabet("./0123456789");
inline constexpr Alphabet kNameAlphabet("-./0123456789abcdefghijklmnopqrstuvwxyz");

// Whatever the alphabet is, the order is that of UTF-16 code units; texts of its units are sorted the
// fastest.
class TextSorter {
 public:
  // The alphabet is not copied.
  explicit TextSorter(const Alphabet& alphabet) : alphabet_(alphabet) {}

  // So many texts are about to come. Too few or too many costs no more than memory for a while.
  void Expect(size_t count) { entries_.reserve(count); }

  // What the text lies in must stay until the texts were taken. At most 2^32 - 1 code units.
  void Add(std::wstring_view text);

  // Ascending, each text once. The sorter is then empty.
  AddressList Take();

 private:
  // A text, and the ranks of its first code units as one number: only where these are equal need the texts
  // themselves be compared.
  struct Entry {
    uint64_t order;
    const wchar_t* text;
    uint32_t length;
    bool isTold;  // the number tells the whole text, which need not be fetched then

    std::wstring_view View() const { return {text, length}; }
  };

  static bool StandsBefore(const Entry& left, const Entry& right);
  static bool IsSame(const Entry& left, const Entry& right);

  void Sort();
  std::wstring TextOf(const Entry& entry) const;

  const Alphabet& alphabet_;
  std::vector<Entry> entries_;
};
