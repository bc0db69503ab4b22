// What wg.exe prints.
#include <cwchar>
#include <optional>

#include "controlplane/text.h"
#include "fuzz/target.h"
#include "sim/kernel.h"
#include "sim/processes.h"
#include "wireguard/wg_probe.h"

namespace fuzz {
namespace {

using Words = std::vector<std::wstring>;

bool IsDigit(wchar_t unit) {
  return unit >= L'0' && unit <= L'9';
}

Words NaiveWords(const std::wstring& line, const std::wstring& blanks) {
  Words words(1);
  for (const wchar_t unit : line) {
    if (blanks.find(unit) == std::wstring::npos)
      words.back() += unit;
    else if (!words.back().empty())
      words.emplace_back();
  }
  if (words.back().empty()) words.pop_back();
  return words;
}

// The digits at the front; none if there are none or they pass 64 bits.
std::optional<uint64_t> NaiveNumber(const std::wstring& word) {
  if (word.empty() || !IsDigit(word[0])) return std::nullopt;
  uint64_t number = 0;
  for (size_t i = 0; i < word.size() && IsDigit(word[i]); ++i) {
    const auto digit = static_cast<uint64_t>(word[i] - L'0');
    if (number > (UINT64_MAX - digit) / 10) return std::nullopt;
    number = number * 10 + digit;
  }
  return number;
}

struct Totals {
  uint64_t rx = 0;
  uint64_t tx = 0;
};

Totals NaiveTotals(const std::wstring& output) {
  Totals totals;
  std::wstring line;
  for (const wchar_t unit : output + L"\n") {
    if (unit != L'\n') {
      line += unit;
      continue;
    }
    // A carriage return is a blank at the end of a line alone.
    while (!line.empty() && std::wstring(L"\r \t").find(line.back()) != std::wstring::npos) line.pop_back();
    const Words words = NaiveWords(line, L" \t");
    line.clear();
    if (words.size() < 3) continue;
    const auto rx = NaiveNumber(words[1]);
    if (!rx) continue;
    totals.rx += *rx;
    totals.tx += NaiveNumber(words[2]).value_or(0);
  }
  return totals;
}

// Whether the first peer has had a handshake.
bool NaiveSeen(const std::wstring& output) {
  const size_t tab = output.find(L'\t');
  if (tab == std::wstring::npos) return false;
  size_t at = tab + 1;
  // White space within the line, a sign, then digits; the number counts as soon as one is not 0.
  while (at < output.size() && std::wstring(L" \t\v\f").find(output[at]) != std::wstring::npos) ++at;
  if (at < output.size() && (output[at] == L'-' || output[at] == L'+')) ++at;
  for (; at < output.size() && IsDigit(output[at]); ++at) {
    if (output[at] != L'0') return true;
  }
  return false;
}

}  // namespace

void RunWgOutput(const std::string& bytes) {
  const sim::Machine machine;
  sim::SetProcessHandler([&bytes](const std::wstring&) {
    return sim::ProcessResult{.standardOutput = bytes, .milliseconds = 1};
  });
  const std::wstring output = Utf8ToWideLenient(bytes);
  const Totals expected = NaiveTotals(output);
  Totals totals{1, 1};
  Require(WgGetRxTxBytes(L"telvor", totals.rx, totals.tx), "WgGetRxTxBytes");
  Require(totals.rx == expected.rx && totals.tx == expected.tx, "the totals are the peers' sums");
  const bool expectedSeen = NaiveSeen(output);
  Require(WgHandshakeSeen(L"telvor") == expectedSeen, "WgHandshakeSeen");
  Require(sim::StartedProcesses().size() == (expectedSeen ? 2u : 16u), "it is asked as often as needed");
  Require(sim::OpenHandles("pipe") == 0 && sim::OpenHandles("process") == 0, "every handle is closed");
}

}  // namespace fuzz
