// The split-tunnel policy: its text, and the file that holds it.
#include <algorithm>
#include <set>

#include "fuzz/target.h"
#include "service/data_files.h"
#include "sim/files.h"
#include "sim/kernel.h"
#include "splittunnel/runtime_policy.h"

namespace fuzz {
namespace {

std::wstring Trimmed(std::wstring line) {
  const std::wstring blanks = L" \t\r\n";
  while (!line.empty() && blanks.find(line.back()) != std::wstring::npos) line.pop_back();
  while (!line.empty() && blanks.find(line.front()) != std::wstring::npos) line.erase(0, 1);
  return line;
}

bool IsHeader(const std::wstring& line, const std::string& header) {
  std::string lower;
  for (const wchar_t unit : line) {
    const bool capital = unit >= L'A' && unit <= L'Z';
    lower += unit > 127 ? '?' : static_cast<char>(capital ? unit + 32 : unit);
  }
  return lower == header;
}

RuntimePolicy NaivePolicy(std::wstring text) {
  std::set<std::wstring> domains, ips;
  std::set<std::wstring>* section = nullptr;
  text += L'\n';
  std::wstring line;
  for (const wchar_t unit : text) {
    if (unit != L'\n') {
      line += unit;
      continue;
    }
    line = Trimmed(line);
    if (IsHeader(line, "[domains]"))
      section = &domains;
    else if (IsHeader(line, "[ips]"))
      section = &ips;
    else if (section && !line.empty() && line[0] != L'#')
      section->insert(line);
    line.clear();
  }
  return {{domains.begin(), domains.end()}, {ips.begin(), ips.end()}};
}

bool Same(const RuntimePolicy& left, const RuntimePolicy& right) {
  return left.domains == right.domains && left.ips == right.ips;
}

std::wstring TextOf(const RuntimePolicy& policy) {
  std::wstring text = L"[ips]\n";
  for (const std::wstring& ip : policy.ips) text += ip + L"\n";
  text += L"[DOMAINS]\r\n";
  for (const std::wstring& domain : policy.domains) text += domain + L"\r\n";
  return text;
}

void HoldText(const std::wstring& text) {
  const RuntimePolicy policy = ParseRuntimePolicyText(text);
  Require(Same(policy, NaivePolicy(text)), "ParseRuntimePolicyText");
  Require(Same(ParseRuntimePolicyText(TextOf(policy)), policy), "a policy written out reads the same");
}

}  // namespace

// The bytes as a seed, as the plain text of runtime.dat, and as the file itself.
void RunPolicy(const std::string& bytes) {
  HoldText(sim::Widen(bytes));
  HoldText(WideOf(bytes));
  RuntimePolicy policy{{L"left"}, {L"over"}};
  std::wstring source;
  const sim::Machine machine;
  sim::PutFile(kRuntimePolicyFile, sim::Seal(bytes));
  Require(LoadRuntimePolicy(policy, source) && source == L"encrypted", "a sealed policy is taken");
  Require(Same(policy, NaivePolicy(WideOf(bytes))), "a sealed policy is UTF-16");
  sim::PutFile(kRuntimePolicyFile, "?" + bytes);
  Require(LoadRuntimePolicy(policy, source) && source == L"empty", "what does not open is no policy");
  Require(policy.domains.empty() && policy.ips.empty(), "no policy is empty");
}

}  // namespace fuzz
