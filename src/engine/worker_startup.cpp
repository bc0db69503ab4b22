#include "engine/worker_startup.h"

#include <mutex>
#include <string>
#include <vector>

#include "engine/drop_file.h"
#include "engine/operations.h"
#include "engine/platform.h"
#include "engine/tunnel_state.h"
#include "service/log.h"
#include "service/wide_text.h"

namespace {

constexpr uint16_t kWinsockVersion = 0x0202;  // 2.2

void LogList(const std::wstring& countText, const std::wstring& entryText,
             const std::vector<std::wstring>& list) {
  LogLine(countText + std::to_wstring(list.size()));
  for (const std::wstring& entry : list) LogLine(entryText + entry);
}

// There is no matching cleanup: Winsock stays for the life of the process.
void StartWinsock() {
  const int code = platform::WSAStartup(kWinsockVersion);
  if (code == 0) return;
  LogLine(L"WSAStartup failed rc=" + std::to_wstring(code) +
          L"; continuing without Winsock DNS bootstrap support");
}

RuntimePolicy LoadPolicy() {
  RuntimePolicy policy;
  std::wstring source;
  gWorkerOperations.LoadRuntimePolicy(policy, source);
  LogLine(L"SplitTunnelV1: runtime source=" + source);
  LogList(L"  domains count=", L"    domain: ", policy.domains);
  LogList(L"  ips count=", L"    ip: ", policy.ips);
  return policy;
}

std::vector<std::wstring> ResolvePolicy(const RuntimePolicy& policy) {
  std::vector<std::wstring> candidates = policy.ips;
  for (const std::wstring& domain : policy.domains) {
    const AddressList addresses = gWorkerOperations.ResolveDomainIPv4(domain);
    LogLine(L"SplitTunnelV1: resolve " + domain + L" -> " + std::to_wstring(addresses.size()) + L" IPs");
    candidates.insert(candidates.end(), addresses.begin(), addresses.end());
  }
  SortAndRemoveDuplicates(candidates);
  return candidates;
}

}  // namespace

void StartUpWorker() {
  StartWinsock();
  const std::vector<std::wstring> candidates = ResolvePolicy(LoadPolicy());
  LogList(L"SplitTunnelV1: effective bypass IPv4 count=", L"  bypass4: ", candidates);
  {
    std::lock_guard lock(gBypassMutex);
    gBypassIpsEffective = candidates;
  }
  LogLine(L"Worker thread started.");
  LogLine(L"Worker: top.");
  LogLine(std::wstring(L"BuildID: ") + kBuildId);
  // Both settings are constants of the build; nothing else consults them.
  LogLine(L"SplitTunnelV1: enabled=true, dry_run=false");
  WriteDropFile(L"C:\\ProgramData\\TELVOR\\after_entered.txt", L"after entered\n");
}
