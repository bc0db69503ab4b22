#include "wireguard/wg_probe.h"

#include <algorithm>
#include <array>
#include <cwchar>
#include <stdexcept>
#include <string_view>

#include "service/log.h"
#include "service/platform.h"
#include "wireguard/process_runner.h"

namespace {

constexpr int kHandshakeRounds = 15;
constexpr int kRoundsPerProgressLine = 5;
constexpr uint32_t kPauseBetweenRoundsMs = 1000;
constexpr size_t kProgressHeadLength = 140;

// Seconds since 1970 of the first peer's latest handshake; 0: none. Wanted: only the first line with a tab
// counts, whatever the other peers say.
uint64_t ReadHandshakeTimestamp(const std::wstring& output) {
  const size_t tab = output.find(L'\t');
  if (tab == std::wstring::npos) return 0;
  const size_t end = output.find_first_of(L"\r\n", tab + 1);
  const std::wstring number = output.substr(tab + 1, end == std::wstring::npos ? end : end - tab - 1);
  return std::wcstoull(number.c_str(), nullptr, 10);
}

std::wstring_view TrimBlanks(std::wstring_view line) {
  const size_t last = line.find_last_not_of(L"\r \t");
  if (last == std::wstring_view::npos) return {};
  line = line.substr(0, last + 1);
  return line.substr(std::min(line.find_first_not_of(L" \t"), line.size()));
}

// The first three words: public key, received bytes, sent bytes. False if there are fewer.
bool ReadTransferWords(std::wstring_view line, std::array<std::wstring, 3>& words) {
  for (std::wstring& word : words) {
    if (line.empty()) return false;
    const size_t end = std::min(line.find_first_of(L" \t"), line.size());
    word = line.substr(0, end);
    line.remove_prefix(std::min(line.find_first_not_of(L" \t", end), line.size()));
  }
  return true;
}

// Throws std::logic_error for a word that does not begin with a digit, a sign included, or is out of range.
uint64_t TransferNumber(const std::wstring& word) {
  if (word.front() < L'0' || word.front() > L'9') throw std::invalid_argument("no digits");
  return std::stoull(word);
}

void AddTransferLine(std::wstring_view line, uint64_t& rx, uint64_t& tx) {
  std::array<std::wstring, 3> words;
  if (!ReadTransferWords(TrimBlanks(line), words)) return;
  // Wanted: when the second number cannot be read, the first stays added.
  try {
    rx += TransferNumber(words[1]);
    tx += TransferNumber(words[2]);
  } catch (const std::logic_error&) {
  }
}

void LogFailedHandshakeRound(uint32_t exitCode, const std::wstring& quotedInterface,
                             const std::wstring& stdoutText, const std::wstring& stderrText) {
  LogLine(L"WgHandshakeSeen: wg latest-handshakes exitCode=" + std::to_wstring(exitCode) + L" iface=" +
          quotedInterface);
  LogLineUnlessEmpty(L"WgHandshakeSeen stdout: ", stdoutText);
  LogLineUnlessEmpty(L"WgHandshakeSeen stderr: ", stderrText);
}

}  // namespace

bool WgHandshakeSeen(const std::wstring& interfaceName) {
  const std::wstring quotedInterface = L"\"" + interfaceName + L"\"";
  const std::wstring arguments = L"show " + quotedInterface + L" latest-handshakes";
  for (int round = 0; round < kHandshakeRounds; ++round) {
    uint32_t exitCode = 0;
    std::wstring stdoutText;
    std::wstring stderrText;
    if (!RunProcessCapture(kWgProgram, arguments, exitCode, stdoutText, stderrText)) {
      LogLine(L"WgHandshakeSeen: failed to run wg.exe latest-handshakes. iface=" + quotedInterface);
      return false;
    }
    if (exitCode != 0) {
      LogFailedHandshakeRound(exitCode, quotedInterface, stdoutText, stderrText);
    } else if (const uint64_t timestamp = ReadHandshakeTimestamp(stdoutText); timestamp != 0) {
      LogLine(L"WgHandshakeSeen: OK ts=" + std::to_wstring(timestamp) + L" iface=" + quotedInterface);
      return true;
    } else if (round % kRoundsPerProgressLine == 0) {
      LogLine(L"WgHandshakeSeen: waiting... head=" + stdoutText.substr(0, kProgressHeadLength));
    }
    platform::Sleep(kPauseBetweenRoundsMs);
  }
  return false;
}

bool WgGetRxTxBytes(const std::wstring& interfaceName, uint64_t& rx, uint64_t& tx) {
  rx = 0;
  tx = 0;
  uint32_t exitCode = 0;
  std::wstring stdoutText;
  std::wstring stderrText;
  // Wanted: no quotes around the name here, unlike in the handshake probe.
  if (!RunProcessCapture(kWgProgram, L"show " + interfaceName + L" transfer", exitCode, stdoutText,
                         stderrText)) {
    LogLine(L"WgGetRxTxBytes: failed to run wg.exe");
    return false;
  }
  if (exitCode != 0) {
    LogLine(L"WgGetRxTxBytes: wg.exe exitCode=" + std::to_wstring(exitCode));
    LogLineUnlessEmpty(L"WgGetRxTxBytes stderr: ", stderrText);
    return false;
  }
  std::wstring_view rest = stdoutText;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(L'\n'), rest.size());
    AddTransferLine(rest.substr(0, end), rx, tx);
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return true;
}
