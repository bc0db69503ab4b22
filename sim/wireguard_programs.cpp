// wireguard.exe and wg.exe as an installed WireGuard has them.
#include <algorithm>
#include <string>
#include <vector>

#include "case.h"
#include "device.h"
#include "files.h"
#include "network.h"
#include "processes.h"
#include "services.h"

namespace sim {
namespace {

constexpr wchar_t kServicePrefix[] = L"WireGuardTunnel$";
constexpr char kPeerKey[] = "c2VydmVyLWEta2V5LXNlcnZlci1hLWtleS1zZXJ2ZXI=";
constexpr uint32_t kTunnelIfIndex = 42;

bool gHandshakeAnswers = true;
uint64_t gReceived = 0;
uint64_t gSent = 0;

const Device kDevice("wireguard", [] {
  gHandshakeAnswers = true;
  gReceived = 0;
  gSent = 0;
});

// Split at blanks, except within double quotes.
std::vector<std::wstring> Words(const std::wstring& commandLine) {
  std::vector<std::wstring> words;
  words.reserve(4);
  bool quoted = false;
  bool inside = false;
  for (const wchar_t character : commandLine) {
    if (character == L'"') quoted = !quoted;
    const bool separates = character == L' ' && !quoted;
    if (!separates && !inside) words.emplace_back().reserve(commandLine.size());
    inside = !separates;
    if (inside && character != L'"') words.back() += character;
  }
  return words;
}

std::wstring FileName(const std::wstring& path) {
  return path.substr(path.rfind(L'\\') + 1);
}

ProcessResult Refuse(const std::string& complaint) {
  ProcessResult result;
  result.exitCode = 1;
  result.standardError = complaint;
  return result;
}

ProcessResult Print(const std::string& text) {
  ProcessResult result;
  result.standardOutput = text;
  return result;
}

void InstallTunnel(const std::wstring& tunnel) {
  Service service;
  service.name = kServicePrefix + tunnel;
  service.onStarted = [tunnel] {
    RemoveAdapter(tunnel);
    AddAdapter(tunnel, kTunnelIfIndex);
  };
  service.onStopped = [tunnel] { RemoveAdapter(tunnel); };
  InstallService(service);
  StartInstalledService(service.name);
}

ProcessResult InstallTunnelService(const std::wstring& confPath) {
  const std::wstring file = FileName(confPath);
  const size_t dot = file.rfind(L".conf");
  if (!FileExists(confPath) || dot == std::wstring::npos) return Refuse("Error: no such configuration\n");
  const std::wstring tunnel = file.substr(0, dot);
  if (ServiceInstalled(kServicePrefix + tunnel))
    return Refuse("Error: Tunnel already installed and running\n");
  ProcessResult result;
  result.onEnd = [tunnel] { InstallTunnel(tunnel); };
  return result;
}

ProcessResult UninstallTunnelService(const std::wstring& tunnel) {
  const std::wstring name = kServicePrefix + tunnel;
  if (!ServiceInstalled(name)) {
    return Refuse("Error: The specified service does not exist as an installed service.\n");
  }
  ProcessResult result;
  result.onEnd = [name] { RemoveService(name); };
  return result;
}

ProcessResult Wg(const std::vector<std::wstring>& words) {
  if (words.size() != 4 || words[1] != L"show") return Refuse("Invalid subcommand\n");
  if (!HasAdapter(words[2])) {
    return Refuse("Unable to access interface " + Narrow(words[2]) + ": No such file or directory\n");
  }
  const std::string line = std::string(kPeerKey) + '\t';
  if (words[3] == L"latest-handshakes") {
    return Print(line + std::to_string(gHandshakeAnswers ? UnixTime() : 0) + '\n');
  }
  if (words[3] == L"transfer") {
    return Print(line + std::to_string(gReceived) + '\t' + std::to_string(gSent) + '\n');
  }
  return Refuse("Invalid argument: " + Narrow(words[3]) + '\n');
}

}  // namespace

ProcessResult WireGuardProgram(const std::wstring& commandLine) {
  Guard guard;
  const std::vector<std::wstring> words = Words(commandLine);
  ProcessResult absent;
  absent.starts = false;
  if (words.empty() || !FileExists(words[0])) return absent;
  if (LowerCase(FileName(words[0])) == L"wg.exe") return Wg(words);
  const std::wstring command = words.size() == 3 ? words[1] : L"";
  if (command == L"/installtunnelservice") return InstallTunnelService(words[2]);
  if (command == L"/uninstalltunnelservice") return UninstallTunnelService(words[2]);
  return Refuse("Error: unknown command\n");
}

void HandshakeAnswers(bool yes) {
  Guard guard;
  gHandshakeAnswers = yes;
}

void SetTransfer(uint64_t received, uint64_t sent) {
  Guard guard;
  gReceived = received;
  gSent = sent;
}

}  // namespace sim
