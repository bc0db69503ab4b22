// The conversions and trimmers that every other reader leans on.
#include "controlplane/text.h"

#include "fuzz/naive_json.h"
#include "fuzz/target.h"
#include "service/wide_text.h"
#include "sim/kernel.h"

namespace fuzz {
namespace {

void HoldConversions(const std::string& bytes) {
  const std::wstring strict = Utf8ToWide(bytes);
  const std::wstring lenient = Utf8ToWideLenient(bytes);
  Require(strict.empty() || strict == lenient, "what the strict conversion takes, both read alike");
  Require(strict.empty() || WideToUtf8(strict) == bytes, "UTF-8 comes back as it was");
  Require(bytes.empty() == lenient.empty(), "the lenient conversion loses nothing whole");
  const std::string back = WideToUtf8(lenient);
  Require(Utf8ToWide(back) == lenient, "what was made good stays good");
}

void HoldTrimmers(const std::string& bytes) {
  const std::string trimmed = TrimAscii(bytes);
  Require(trimmed == NaiveTrim(bytes), "TrimAscii");
  Require(TrimAscii(trimmed) == trimmed, "TrimAscii is done after once");
  std::wstring widened;
  for (const char byte : bytes) widened += static_cast<wchar_t>(static_cast<unsigned char>(byte));
  std::wstring expected;
  for (const char byte : trimmed) expected += static_cast<wchar_t>(static_cast<unsigned char>(byte));
  Require(TrimWide(widened) == expected, "TrimWide");
}

}  // namespace

void RunText(const std::string& bytes) {
  HoldConversions(bytes);
  HoldTrimmers(bytes);
  const std::wstring units = WideOf(bytes);
  Require(Utf16LittleEndian(FromUtf16LittleEndian(bytes)) == bytes.substr(0, units.size() * 2),
          "UTF-16 comes back as it was, but for an odd byte");
  Require(FromUtf16LittleEndian(bytes) == units, "FromUtf16LittleEndian");
  const std::wstring clean = CleanBypassAddress(units);
  Require(clean.find(L'/') == std::wstring::npos && CleanBypassAddress(clean) == clean,
          "a clean bypass entry is clean");
}

}  // namespace fuzz
