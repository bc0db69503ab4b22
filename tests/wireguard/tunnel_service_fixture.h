// Tunnel services in the simulated service manager, and lines of failed calls.
#pragma once

#include <string>
#include <vector>

#include "service/platform.h"
#include "sim/files.h"
#include "sim/kernel.h"
#include "sim/services.h"

inline constexpr wchar_t kOwnTunnelService[] = L"WireGuardTunnel$telvor";

inline sim::Service TunnelService(uint32_t state, const std::wstring& name = kOwnTunnelService) {
  sim::Service service;
  service.name = name;
  service.state = state;
  return service;
}

// The state of the service, 0 if it is not installed.
inline uint32_t StateOf(const std::wstring& name = kOwnTunnelService) {
  return sim::ServiceState(name).value_or(0);
}

inline std::string AccessDenied(const std::string& call) {
  return call + " failed: 5 (Access is denied.)";
}

// The names of the traced calls of the service control manager, in order.
inline std::vector<std::string> ServiceCalls() {
  std::vector<std::string> calls;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    const bool ofServices = entry.operation.find("Service") != std::string::npos ||
                            entry.operation.find("SCManager") != std::string::npos;
    if (ofServices) calls.emplace_back(entry.operation);
  }
  return calls;
}
