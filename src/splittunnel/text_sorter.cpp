#include "splittunnel/text_sorter.h"

#include <algorithm>
#include <memory>
#include <numeric>
#include <span>
#include <string>

namespace {

constexpr size_t kOrderBits = 64;
constexpr size_t kFew = 64;  // entries that are compared with one another at once
// More are grouped by the upper half of their numbers first, byte by byte (a radix sort).
constexpr size_t kGroupShift = 32;
constexpr size_t kByteBits = 8;
constexpr size_t kByteValues = 256;

// Moves the entries in the order of one byte of their numbers; of equal ones the first stays the first.
template <typename Entry>
void Distribute(std::span<const Entry> from, std::span<Entry> to, size_t shift) {
  const auto byteOf = [shift](const Entry& entry) {
    return static_cast<size_t>(entry.order >> shift & (kByteValues - 1));
  };
  std::array<size_t, kByteValues + 1> next{};  // where the next entry with a byte goes to
  for (const Entry& entry : from) ++next[byteOf(entry) + 1];
  std::partial_sum(next.begin(), next.end(), next.begin());
  for (const Entry& entry : from) to[next[byteOf(entry)]++] = entry;
}

}  // namespace

void TextSorter::Add(std::wstring_view text) {
  Entry entry{0, text.data(), static_cast<uint32_t>(text.size()), true};
  size_t room = kOrderBits;
  for (const wchar_t unit : text) {
    const uint64_t rank = alphabet_.RankOf(unit);
    const bool fits = room >= alphabet_.Bits();
    if (fits) {
      room -= alphabet_.Bits();
      entry.order |= rank << room;
    }
    entry.isTold = fits && alphabet_.UnitOf(rank) != 0;
    if (!entry.isTold) break;  // what stands behind it is not in the number
  }
  entries_.push_back(entry);
}

bool TextSorter::StandsBefore(const Entry& left, const Entry& right) {
  if (left.order != right.order) return left.order < right.order;
  // Two that are told are then the same.
  return !(left.isTold && right.isTold) && left.View() < right.View();
}

bool TextSorter::IsSame(const Entry& left, const Entry& right) {
  return left.order == right.order && ((left.isTold && right.isTold) || left.View() == right.View());
}

std::wstring TextSorter::TextOf(const Entry& entry) const {
  if (!entry.isTold) return std::wstring(entry.View());
  std::array<wchar_t, kOrderBits> text;
  const uint64_t mask = (uint64_t{1} << alphabet_.Bits()) - 1;
  size_t room = kOrderBits;
  for (size_t i = 0; i < entry.length; ++i) {
    room -= alphabet_.Bits();
    text[i] = alphabet_.UnitOf(entry.order >> room & mask);
  }
  return {text.data(), entry.length};
}

void TextSorter::Sort() {
  // An object, not a function: its calls become part of the sorting.
  constexpr auto kStandsBefore = [](const Entry& left, const Entry& right) {
    return StandsBefore(left, right);
  };
  if (entries_.size() <= kFew) {
    std::sort(entries_.begin(), entries_.end(), kStandsBefore);
    return;
  }
  const auto room = std::make_unique_for_overwrite<Entry[]>(entries_.size());
  const std::span<Entry> other(room.get(), entries_.size());
  for (size_t shift = kGroupShift; shift < kOrderBits; shift += 2 * kByteBits) {
    Distribute<Entry>(entries_, other, shift);
    Distribute<Entry>(other, entries_, shift + kByteBits);
  }
  for (auto begin = entries_.begin(); begin != entries_.end();) {
    const auto end = std::find_if(begin, entries_.end(), [&](const Entry& entry) {
      return entry.order >> kGroupShift != begin->order >> kGroupShift;
    });
    std::sort(begin, end, kStandsBefore);
    begin = end;
  }
}

AddressList TextSorter::Take() {
  Sort();
  entries_.erase(std::unique(entries_.begin(), entries_.end(), &IsSame), entries_.end());
  AddressList texts;
  texts.reserve(entries_.size());
  for (const Entry& entry : entries_) texts.push_back(TextOf(entry));
  entries_.clear();
  return texts;
}
