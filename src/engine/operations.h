// The worker's table of operations: its whole dependence on the subsystems that it drives, and the seam at
// which these plug in. The dispatcher and logout reach some of them here too. The worker includes no header
// of a subsystem.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The split-tunnel policy: host names and IPv4 address texts whose traffic bypasses the tunnel. Both lists
// are sorted by UTF-16 code unit, without duplicates.
struct RuntimePolicy {
  std::vector<std::wstring> domains;
  std::vector<std::wstring> ips;
};

// A control-plane base URL taken apart.
struct ParsedBaseUrl {
  std::wstring scheme;  // always "https" after a success
  std::wstring host;
  int32_t port = 0;  // 1 to 65535 after a success
};

using AddressList = std::vector<std::wstring>;

struct WorkerOperations {
  bool (*LoadRuntimePolicy)(RuntimePolicy& policy, std::wstring& source);
  AddressList (*ResolveDomainIPv4)(const std::wstring& domain);
  bool (*Bootstrap)();
  bool (*ApplyBypassRoutes)(const AddressList& addresses);
  bool (*RemoveBypassRoutes)(const AddressList& addresses);
  void (*EnforceSingleTunnel)(const std::wstring& keepName);
  bool (*TunnelServiceExists)(const std::wstring& name);
  bool (*RunProcessCapture)(const std::wstring& program, const std::wstring& arguments, uint32_t& exitCode,
                            std::wstring& stdoutText, std::wstring& stderrText);
  bool (*RestartTunnelService)(const std::wstring& name);
  bool (*IsTunnelServiceRunning)(const std::wstring& name);
  bool (*WgHandshakeSeen)(const std::wstring& interfaceName);
  bool (*GetAdapterIfIndexByName)(const std::wstring& name, uint32_t& ifIndex);
  bool (*ParseHttpsBaseUrl)(const std::wstring& url, ParsedBaseUrl& parsed);
  AddressList (*ResolveHostIpV4)(const std::wstring& host);
  bool (*EnableFailClosedBaseline)(const std::wstring& controlPlaneIp, uint32_t ifIndex);
  bool (*UpdateSplitTunnelBypassAllowlistV4)(const AddressList& addresses);
  void (*RefreshSplitTunnelRoutes)();
  bool (*StopTunnelService)(const std::wstring& name, uint32_t timeoutMs);
  bool (*UninstallTunnelService)(const std::wstring& name);
  bool (*RollbackToOpen)();
  bool (*WgGetRxTxBytes)(const std::wstring& interfaceName, uint64_t& rx, uint64_t& tx);
  bool (*StopOwnService)();
  // Not an operation: the built-in default control-plane base URL.
  const wchar_t* defaultCpBaseUrl;
};

// A table in which every operation answers false or nothing.
WorkerOperations EmptyWorkerOperations();

// Empty until the entry has filled it.
extern WorkerOperations gWorkerOperations;
