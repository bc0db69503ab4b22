#include "splittunnel/runtime_policy.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <span>
#include <string_view>
#include <utility>

#include "service/data_files.h"
#include "service/scope_guard.h"
#include "service/wide_text.h"
#include "splittunnel/platform.h"

namespace {

constexpr uint32_t kModulePathCapacity = 260;
constexpr std::wstring_view kDomainsHeading = L"[domains]";
constexpr std::wstring_view kIpsHeading = L"[ips]";
constexpr uint32_t kShareAll = platform::kFileShareRead | platform::kFileShareWrite;

// False if the file cannot be opened or not read to its end; an empty file is a success.
bool ReadSealedPolicy(std::string& blob) {
  const platform::Handle file =
      platform::CreateFileW(kRuntimePolicyFile, platform::kGenericRead, kShareAll, platform::kOpenExisting,
                            platform::kFileAttributeNormal);
  if (file == platform::InvalidHandle()) return false;
  const ScopeGuard closeFile([file] { platform::CloseHandle(file); });
  int64_t size = 0;
  if (!platform::GetFileSizeEx(file, size) || size > UINT32_MAX) return false;
  blob.resize(static_cast<size_t>(size));
  if (blob.empty()) return true;
  uint32_t read = 0;
  return platform::ReadFile(file, blob.data(), static_cast<uint32_t>(size), read) && read == blob.size();
}

bool LoadSealedText(std::wstring& text) {
  std::string blob;
  if (!ReadSealedPolicy(blob)) return false;
  std::string plain;
  // Wanted: an empty file is an empty policy, and the seed is not looked at.
  if (!blob.empty() && !platform::CryptUnprotectData(blob, 0, plain)) return false;
  text = FromUtf16LittleEndian(plain);
  return true;
}

// Empty if the path of the executable is not known.
std::wstring SeedPath() {
  wchar_t module[kModulePathCapacity];
  const uint32_t length = platform::GetModuleFileNameW(module, kModulePathCapacity);
  if (length == 0 || length >= kModulePathCapacity) return {};
  const std::wstring_view path(module, length);
  const size_t separator = path.find_last_of(L"\\/");
  if (separator == std::wstring_view::npos) return {};
  return std::wstring(path.substr(0, separator)) + L"\\data\\runtime.seed";
}

bool LoadSeedText(std::wstring& text) {
  const std::wstring path = SeedPath();
  return !path.empty() && ReadTextFileTrimmed(path, text);
}

void SealPolicyText(const std::wstring& text) {
  std::string blob;
  if (!platform::CryptProtectData(Utf16LittleEndian(text), L"TELVOR runtime",
                                  platform::kCryptProtectLocalMachine, blob)) {
    return;
  }
  EnsureDirectory(kDataRoot);
  WriteNewFile(kRuntimePolicyFile, blob, kShareAll, false);
}

// In a line, which holds no line feed.
bool IsBlank(wchar_t unit) {
  return unit == L' ' || unit == L'\t' || unit == L'\r';
}

std::wstring_view TrimLine(std::wstring_view line) {
  while (!line.empty() && IsBlank(line.front())) line.remove_prefix(1);
  while (!line.empty() && IsBlank(line.back())) line.remove_suffix(1);
  return line;
}

constexpr size_t kOrdered = 8;             // code units in one number
constexpr uint64_t kHighestOrdered = 255;  // stands for all that is not below it

// An entry of the text, and its first sixteen code units, a byte each, as two numbers that stand in the same
// order, up to the first that does not fit; 0 where there is none. Only where both are equal need the entries
// themselves be compared.
struct Entry {
  uint64_t first;
  uint64_t second;
  const wchar_t* text;
  uint32_t length;
  bool told;  // the two numbers tell the whole text, which need not be fetched then

  std::wstring_view View() const { return {text, length}; }
};

// `narrow` is cleared at a code unit that does not fit: what stands behind it is not in the order any more.
uint64_t OrderOf(std::wstring_view units, bool& narrow) {
  uint64_t order = 0;
  for (size_t i = 0; i < kOrdered; ++i) {
    const uint64_t unit = narrow && i < units.size() ? static_cast<uint16_t>(units[i]) : 0;
    narrow = narrow && unit < kHighestOrdered;
    order = order << 8 | std::min(unit, kHighestOrdered);
  }
  return order;
}

Entry MakeEntry(std::wstring_view text) {
  bool narrow = true;
  const uint64_t first = OrderOf(text, narrow);
  const uint64_t second = OrderOf(text.substr(std::min(text.size(), kOrdered)), narrow);
  const bool told = narrow && text.size() <= 2 * kOrdered;
  return {first, second, text.data(), static_cast<uint32_t>(text.size()), told};
}

bool AreTold(const Entry& left, const Entry& right) {
  return left.told && right.told;
}

// Alike in both numbers, at most but for zeros at the end.
bool StandsBeforeAlike(const Entry& left, const Entry& right) {
  return AreTold(left, right) ? left.length < right.length : left.View() < right.View();
}

// Objects, not functions: their calls become part of the sorting.
constexpr auto kStandsBefore = [](const Entry& left, const Entry& right) {
  if (left.first != right.first) return left.first < right.first;
  if (left.second != right.second) return left.second < right.second;
  return StandsBeforeAlike(left, right);
};

constexpr auto kIsSame = [](const Entry& left, const Entry& right) {
  if (left.first != right.first || left.second != right.second || left.length != right.length) return false;
  return AreTold(left, right) || left.View() == right.View();
};

size_t ByteAt(const Entry& entry, size_t place) {
  const uint64_t order = place < kOrdered ? entry.first : entry.second;
  return static_cast<size_t>(order >> 8 * (kOrdered - 1 - place % kOrdered) & 0xFF);
}

std::wstring TextOf(const Entry& entry) {
  if (!entry.told) return std::wstring(entry.View());
  std::wstring text(entry.length, L'\0');
  for (size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<wchar_t>(ByteAt(entry, i));
  }
  return text;
}

// Sorts entries whose first `place` bytes are the same. Many are grouped by their next byte first, in place
// (an American flag sort); only few are compared with one another.
void SortFrom(size_t place, std::span<Entry> entries) {
  constexpr size_t kFew = 64;
  if (entries.size() <= kFew || place == 2 * kOrdered) {
    std::sort(entries.begin(), entries.end(), kStandsBefore);
    return;
  }
  std::array<size_t, 257> begins{};  // of the entries with a byte, by the byte, and the end of all
  for (const Entry& entry : entries) ++begins[ByteAt(entry, place) + 1];
  std::partial_sum(begins.begin(), begins.end(), begins.begin());
  std::array<size_t, 257> next = begins;
  for (size_t byte = 0; byte < 256; ++byte) {
    while (next[byte] < begins[byte + 1]) {
      Entry& entry = entries[next[byte]];
      const size_t to = next[ByteAt(entry, place)]++;
      std::swap(entry, entries[to]);
    }
    SortFrom(place + 1, entries.subspan(begins[byte], begins[byte + 1] - begins[byte]));
  }
}

// Ascending by UTF-16 code unit, each text once.
AddressList SortedOnce(std::vector<Entry>& entries) {
  SortFrom(0, entries);
  entries.erase(std::unique(entries.begin(), entries.end(), kIsSame), entries.end());
  AddressList texts;
  texts.reserve(entries.size());
  for (const Entry& entry : entries) texts.push_back(TextOf(entry));
  return texts;
}

}  // namespace

bool LoadRuntimePolicy(RuntimePolicy& policy, std::wstring& source) {
  policy = {};
  source = L"empty";
  std::wstring text;
  if (LoadSealedText(text)) {
    policy = ParseRuntimePolicyText(text);
    source = L"encrypted";
  } else if (LoadSeedText(text)) {
    policy = ParseRuntimePolicyText(text);
    SealPolicyText(text);
    source = L"seed";
  }
  return true;
}

RuntimePolicy ParseRuntimePolicyText(const std::wstring& text) {
  std::vector<Entry> domains;
  std::vector<Entry> ips;
  std::vector<Entry>* section = nullptr;
  std::wstring_view rest = text;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(L'\n'), rest.size());
    const std::wstring_view line = TrimLine(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.empty() || line.front() == L'#') continue;
    if (EqualsIgnoringCase(line, kDomainsHeading)) {
      section = &domains;
    } else if (EqualsIgnoringCase(line, kIpsHeading)) {
      section = &ips;
    } else if (section != nullptr) {
      // Wanted: any other bracketed text is an entry like all others.
      section->push_back(MakeEntry(line));
    }
  }
  return {SortedOnce(domains), SortedOnce(ips)};
}
