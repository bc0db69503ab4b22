// Conversion between UTF-8 and UTF-16 by the rules of MultiByteToWideChar and WideCharToMultiByte.
#include <string>
#include <string_view>

#include "device.h"
#include "service/platform.h"

namespace sim {
namespace {

constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorInsufficientBuffer = 122;
constexpr uint32_t kErrorInvalidFlags = 1004;
constexpr uint32_t kErrorNoUnicodeTranslation = 1113;
constexpr uint32_t kWcErrInvalidChars = 0x80;

constexpr uint32_t kReplacement = 0xFFFD;
constexpr uint32_t kInvalid = 0xFFFFFFFF;

// The range that the second byte of a sequence must lie in keeps out overlong forms, surrogates and what lies
// above U+10FFFF.
struct LeadByte {
  int length;
  uint8_t secondFrom;
  uint8_t secondTo;
};

LeadByte Classify(uint8_t lead) {
  if (lead < 0x80) return {1, 0, 0};
  if (lead < 0xC2) return {0, 0, 0};
  if (lead < 0xE0) return {2, 0x80, 0xBF};
  if (lead == 0xE0) return {3, 0xA0, 0xBF};
  if (lead == 0xED) return {3, 0x80, 0x9F};
  if (lead < 0xF0) return {3, 0x80, 0xBF};
  if (lead == 0xF0) return {4, 0x90, 0xBF};
  if (lead < 0xF4) return {4, 0x80, 0xBF};
  if (lead == 0xF4) return {4, 0x80, 0x8F};
  return {0, 0, 0};
}

// Takes one character off `text`. An invalid sequence is taken up to where it stops being the beginning of a
// valid one, and gives kInvalid.
uint32_t TakeUtf8(std::string_view& text) {
  const auto byteAt = [&text](size_t index) { return static_cast<uint8_t>(text[index]); };
  const uint8_t lead = byteAt(0);
  const LeadByte kind = Classify(lead);
  if (kind.length <= 1) {
    text.remove_prefix(1);
    return kind.length == 1 ? lead : kInvalid;
  }
  uint32_t character = lead & (0x7FU >> kind.length);
  for (size_t index = 1; index < static_cast<size_t>(kind.length); ++index) {
    const uint8_t from = index == 1 ? kind.secondFrom : 0x80;
    const uint8_t to = index == 1 ? kind.secondTo : 0xBF;
    if (index >= text.size() || byteAt(index) < from || byteAt(index) > to) {
      text.remove_prefix(index);
      return kInvalid;
    }
    character = (character << 6) | (byteAt(index) & 0x3FU);
  }
  text.remove_prefix(static_cast<size_t>(kind.length));
  return character;
}

// Takes one character off `text`; an unpaired surrogate gives kInvalid.
uint32_t TakeUtf16(std::wstring_view& text) {
  const auto unitAt = [&text](size_t index) { return static_cast<uint32_t>(text[index]); };
  const uint32_t unit = unitAt(0);
  const bool highSurrogate = unit >= 0xD800 && unit < 0xDC00;
  if (highSurrogate && text.size() > 1 && unitAt(1) >= 0xDC00 && unitAt(1) < 0xE000) {
    const uint32_t low = unitAt(1);
    text.remove_prefix(2);
    return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
  }
  text.remove_prefix(1);
  return (unit >= 0xD800 && unit < 0xE000) || unit > 0xFFFF ? kInvalid : unit;
}

void AppendUtf8(std::string& out, uint32_t character) {
  if (character < 0x80) {
    out += static_cast<char>(character);
    return;
  }
  const int continuations = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
  const uint32_t leadMark = 0xFF00U >> (continuations + 1) & 0xFFU;
  out += static_cast<char>(leadMark | character >> (6 * continuations));
  for (int rest = continuations - 1; rest >= 0; --rest) {
    out += static_cast<char>(0x80U | (character >> (6 * rest) & 0x3FU));
  }
}

void AppendUtf16(std::wstring& out, uint32_t character) {
  if (character < 0x10000) {
    out += static_cast<wchar_t>(character);
    return;
  }
  out += static_cast<wchar_t>(0xD800 + ((character - 0x10000) >> 10));
  out += static_cast<wchar_t>(0xDC00 + ((character - 0x10000) & 0x3FF));
}

// Moves what is the same in both encodings from the beginning of `text` to `out`: mostly that is all of it.
template <class From, class To>
void TakePlain(std::basic_string_view<From>& text, std::basic_string<To>& out) {
  const auto end = std::find_if(text.begin(), text.end(), [](From unit) { return unit < 0 || unit >= 0x80; });
  const auto count = static_cast<size_t>(end - text.begin());
  const size_t before = out.size();
  out.resize(before + count);
  std::transform(text.begin(), end, out.begin() + static_cast<std::ptrdiff_t>(before),
                 [](From unit) { return static_cast<To>(unit); });
  text.remove_prefix(count);
}

// False if the text is invalid; `out` has its replacements all the same.
bool ToWide(std::string_view text, std::wstring& out) {
  bool valid = true;
  out.reserve(text.size());
  while (!text.empty()) {
    TakePlain(text, out);
    if (text.empty()) break;
    const uint32_t character = TakeUtf8(text);
    valid &= character != kInvalid;
    AppendUtf16(out, character == kInvalid ? kReplacement : character);
  }
  return valid;
}

bool ToUtf8(std::wstring_view text, std::string& out) {
  bool valid = true;
  out.reserve(text.size());
  while (!text.empty()) {
    TakePlain(text, out);
    if (text.empty()) break;
    const uint32_t character = TakeUtf16(text);
    valid &= character != kInvalid;
    AppendUtf8(out, character == kInvalid ? kReplacement : character);
  }
  return valid;
}

// The tail that both conversions share: a length, or the converted text if it fits.
template <class Character>
int HandOut(Call& call, const std::basic_string<Character>& text, Character* out, int outSize) {
  const int length = static_cast<int>(text.size());
  if (outSize != 0) {
    if (outSize < length) {
      call.Fail(kErrorInsufficientBuffer);
      return 0;
    }
    text.copy(out, text.size());
  }
  call.SetResult(std::to_string(length));
  return length;
}

int FailConversion(Call& call, uint32_t code) {
  call.Fail(code);
  return 0;
}

// Size -1: up to the terminating zero, and that included.
template <class Character>
std::basic_string_view<Character> InputText(const Character* text, int size) {
  if (size >= 0) return {text, static_cast<size_t>(size)};
  return {text, std::char_traits<Character>::length(text) + 1};
}

// The input as the trace shows it.
std::string Shown(const char* text, int size) {
  return text ? std::string(InputText(text, size)) : "";
}
std::string Shown(const wchar_t* text, int size) {
  return text ? Narrow(std::wstring(InputText(text, size))) : "";
}

template <class Character>
bool ParametersValid(const Character* text, int size, const void* out, int outSize) {
  return text && size != 0 && size >= -1 && outSize >= 0 && (out || outSize == 0);
}

}  // namespace

std::string Narrow(const std::wstring& text) {
  std::string out;
  ToUtf8(text, out);
  return out;
}

std::wstring Widen(const std::string& text) {
  std::wstring out;
  ToWide(text, out);
  return out;
}

}  // namespace sim

namespace platform {

int MultiByteToWideChar(uint32_t codePage, uint32_t flags, const char* text, int size, wchar_t* out,
                        int outSize) {
  sim::Call call("MultiByteToWideChar", sim::Args("codePage", codePage, "flags", flags, "text",
                                                  sim::Shown(text, size), "size", size, "outSize", outSize));
  if (call.Faulted()) return 0;
  if (codePage != kCodePageUtf8 || !sim::ParametersValid(text, size, out, outSize)) {
    return sim::FailConversion(call, sim::kErrorInvalidParameter);
  }
  if ((flags & ~kMbErrInvalidChars) != 0) return sim::FailConversion(call, sim::kErrorInvalidFlags);
  std::wstring wide;
  if (!sim::ToWide(sim::InputText(text, size), wide) && flags == kMbErrInvalidChars) {
    return sim::FailConversion(call, sim::kErrorNoUnicodeTranslation);
  }
  return sim::HandOut(call, wide, out, outSize);
}

int WideCharToMultiByte(uint32_t codePage, uint32_t flags, const wchar_t* text, int size, char* out,
                        int outSize) {
  sim::Call call("WideCharToMultiByte", sim::Args("codePage", codePage, "flags", flags, "text",
                                                  sim::Shown(text, size), "size", size, "outSize", outSize));
  if (call.Faulted()) return 0;
  if (codePage != kCodePageUtf8 || !sim::ParametersValid(text, size, out, outSize)) {
    return sim::FailConversion(call, sim::kErrorInvalidParameter);
  }
  if ((flags & ~sim::kWcErrInvalidChars) != 0) return sim::FailConversion(call, sim::kErrorInvalidFlags);
  std::string narrow;
  if (!sim::ToUtf8(sim::InputText(text, size), narrow) && flags == sim::kWcErrInvalidChars) {
    return sim::FailConversion(call, sim::kErrorNoUnicodeTranslation);
  }
  return sim::HandOut(call, narrow, out, outSize);
}

}  // namespace platform
