#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "sim/kernel.h"
#include "splittunnel/runtime_policy.h"

namespace {

using Texts = std::vector<std::wstring>;

void ExpectPolicy(const std::wstring& text, const Texts& domains, const Texts& ips) {
  SCOPED_TRACE(sim::Narrow(text));
  const RuntimePolicy policy = ParseRuntimePolicyText(text);
  EXPECT_EQ(policy.domains, domains);
  EXPECT_EQ(policy.ips, ips);
}

TEST(ParseRuntimePolicyText, SortsTheLinesIntoTheSectionInForce) {
  sim::Machine machine;
  ExpectPolicy(L"", {}, {});
  ExpectPolicy(L"[domains]", {}, {});
  ExpectPolicy(L"[domains]\nhost.example\n[ips]\n10.0.0.1", {L"host.example"}, {L"10.0.0.1"});
  ExpectPolicy(L"[ips]\n10.0.0.1\n[domains]\nhost.example\n", {L"host.example"}, {L"10.0.0.1"});
}

TEST(ParseRuntimePolicyText, ComparesSectionHeadersWithoutRegardToCase) {
  sim::Machine machine;
  ExpectPolicy(L"[IPS]\n10.0.0.1", {}, {L"10.0.0.1"});
  ExpectPolicy(L"[DoMaInS]\na\n[iPs]\nb", {L"a"}, {L"b"});
}

TEST(ParseRuntimePolicyText, AddsLaterSectionsToEarlierOnes) {
  sim::Machine machine;
  ExpectPolicy(L"[domains]\na\n[ips]\n1.1.1.1\n[domains]\nb\n[ips]\n2.2.2.2\n[ips]\n3.3.3.3", {L"a", L"b"},
               {L"1.1.1.1", L"2.2.2.2", L"3.3.3.3"});
}

TEST(ParseRuntimePolicyText, IgnoresLinesBeforeTheFirstHeader) {
  sim::Machine machine;
  ExpectPolicy(L"lost.example\n1.2.3.4\n[domains]\nhost.example", {L"host.example"}, {});
  ExpectPolicy(L"lost.example", {}, {});
  ExpectPolicy(L"[other]\nlost.example", {}, {});
}

TEST(ParseRuntimePolicyText, TakesAnyOtherBracketedTextAsAnEntry) {
  sim::Machine machine;
  ExpectPolicy(L"[domains]\n[other]\nb\n[ ips ]\n[ips\n[ips] # now\n[domains];",
               {L"[ ips ]", L"[domains];", L"[ips", L"[ips] # now", L"[other]", L"b"}, {});
}

TEST(ParseRuntimePolicyText, ReadsCommentsOnlyAtTheStartOfALine) {
  sim::Machine machine;
  ExpectPolicy(L"# first\n[domains]\n   # note\n\t#[ips]\n#\nhost.example # note\n; no comment",
               {L"; no comment", L"host.example # note"}, {});
}

TEST(ParseRuntimePolicyText, TrimsBlankTabAndLineEndsAndNothingElse) {
  sim::Machine machine;
  ExpectPolicy(L" \t[domains] \r\n\t host.example \t\r\n \r\n\r\r\nlast\r", {L"host.example", L"last"}, {});
  ExpectPolicy(L"[domains]\n\va\f\n\x00A0z\x00A0\nb\rc", {L"\va\f", L"b\rc", L"\x00A0z\x00A0"}, {});
  ExpectPolicy(L"[domains]\nhost with blanks", {L"host with blanks"}, {});
}

TEST(ParseRuntimePolicyText, GivesTheSameForBothLineEnds) {
  sim::Machine machine;
  ExpectPolicy(L"[domains]\nb\na\n[ips]\n1.2.3.4\n", {L"a", L"b"}, {L"1.2.3.4"});
  ExpectPolicy(L"[domains]\r\nb\r\na\r\n[ips]\r\n1.2.3.4\r\n", {L"a", L"b"}, {L"1.2.3.4"});
}

TEST(ParseRuntimePolicyText, KeepsEntriesAsTheyStandWithoutLookingAtThem) {
  sim::Machine machine;
  ExpectPolicy(L"[domains]\nHost.Example\nhost.example\n..\n*.x\n[ips]\n10.0.0.0/8\nnot-an-ip\n0.0.0.0\n::1",
               {L"*.x", L"..", L"Host.Example", L"host.example"},
               {L"0.0.0.0", L"10.0.0.0/8", L"::1", L"not-an-ip"});
}

TEST(ParseRuntimePolicyText, SortsByCodeUnitAndDropsExactDuplicates) {
  sim::Machine machine;
  ExpectPolicy(L"[ips]\n9.0.0.1\n10.0.0.1\n9.0.0.1\n10.0.0.1/32\n10.0.0.1", {},
               {L"10.0.0.1", L"10.0.0.1/32", L"9.0.0.1"});
  // A surrogate pair stands before U+FFxx, although its character is a higher one.
  ExpectPolicy(L"[domains]\n\xFF41\nb\n\xD83D\xDE00\nB\n\x00E4",
               {L"B", L"b", L"\x00E4", L"\xD83D\xDE00", L"\xFF41"}, {});
}

TEST(ParseRuntimePolicyText, KeepsAByteOrderMarkAndSoLosesTheFirstHeader) {
  sim::Machine machine;
  ExpectPolicy(L"\xFEFF[domains]\nlost.example\n[ips]\n1.2.3.4", {}, {L"1.2.3.4"});
}

// Lines of every length up to 24 that begin alike and go on with one of these units.
std::vector<std::wstring> ManyLines(const std::wstring& units) {
  std::mt19937 random(1);
  std::vector<std::wstring> lines;
  for (int number = 0; number < 5000; ++number) {
    std::wstring line(random() % 21, units[random() % 2]);
    for (size_t more = 1 + random() % 3; more > 0; --more) line += units[random() % units.size()];
    lines.push_back(line + L'z');  // no blank at the end
  }
  return lines;
}

TEST(ParseRuntimePolicyText, SortsAnyTextsAsTheirCodeUnitsStand) {
  // Units that have a rank of their own in one of the sections, or in both, and their neighbours.
  const std::wstring units = {L'a', L'1', L'\0', L'-', L'.', L'/',    L'0',     L'9',      L':',
                              L'A', L'`', L'b',  L'z', L'{', L'\xFF', L'\x100', L'\xD83D', L'\xFFFF'};
  std::vector<std::wstring> lines = ManyLines(units);
  std::wstring text;
  for (const std::wstring& line : lines) text += line + L"\n";
  const RuntimePolicy policy = ParseRuntimePolicyText(L"[ips]\n" + text + L"[domains]\n" + text);
  std::sort(lines.begin(), lines.end());
  lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
  EXPECT_EQ(policy.ips, lines);
  EXPECT_EQ(policy.domains, lines);
}

}  // namespace
