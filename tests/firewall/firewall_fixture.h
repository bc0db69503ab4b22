// What the firewall tests share: the expected form of the log's lines, the calls into the filtering engine,
// and filters that were there before.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/platform.h"
#include "firewall/wfp_session.h"
#include "sim/files.h"
#include "sim/filtering.h"
#include "sim/kernel.h"
#include "sim/network.h"
#include "tests/support/sim_failures.h"

namespace firewall_test {

using Lines = std::vector<std::string>;

inline constexpr wchar_t kControlPlaneHost[] = L"cp.telvor.test";
inline constexpr wchar_t kWireGuardProgram[] = L"C:\\Program Files\\WireGuard\\wireguard.exe";
inline constexpr uint32_t kAccessDenied = 5;

// The line of a failed platform call.
inline std::string ErrorLine(const std::string& what, uint32_t code) {
  std::wstring message;
  if (!platform::FormatMessageW(platform::kFormatMessageFlags, code, 1024, message)) {
    message = L"no system message";
  }
  while (!message.empty() && (message.back() == L'\r' || message.back() == L'\n')) message.pop_back();
  return "WFP: " + what + " failed: " + std::to_string(code) + " (" + sim::Narrow(message) + ")";
}

// The operations of the filtering engine that were called, in order; the release of memory is left out.
inline Lines FwpmCalls() {
  Lines calls;
  for (const sim::TraceEntry& entry : sim::Trace()) {
    if (entry.operation.rfind("Fwpm", 0) == 0 && entry.operation != "FwpmFreeMemory0") {
      calls.emplace_back(entry.operation);
    }
  }
  return calls;
}

inline Lines Join(const std::vector<Lines>& parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

inline size_t CountOf(const Lines& lines, std::string_view wanted) {
  size_t count = 0;
  for (const std::string& line : lines) count += line == wanted ? 1 : 0;
  return count;
}

inline Lines InForce() {
  Lines names;
  for (const std::wstring& name : sim::FilterNames()) names.push_back(sim::Narrow(name));
  return names;
}

// A filter as somebody's earlier run left it, with a key of its own.
inline sim::EngineFilter OldFilter(const std::wstring& name, const platform::Guid& provider = kProviderKey,
                                   const platform::Guid& subLayer = kSubLayerKey) {
  static uint32_t lastKey = 0x11220000;
  sim::EngineFilter old;
  old.filter.displayData.name = name;
  old.filter.providerKey = provider;
  old.filter.subLayerKey = subLayer;
  old.filter.filterKey.data1 = ++lastKey;
  return old;
}

// The system's provider and sublayer, without filters.
inline void PutOwnProviderAndSublayer() {
  platform::FwpmProvider provider;
  provider.providerKey = kProviderKey;
  sim::PutProvider(provider);
  platform::FwpmSubLayer subLayer;
  subLayer.subLayerKey = kSubLayerKey;
  subLayer.providerKey = kProviderKey;
  sim::PutSubLayer(subLayer);
}

// An engine handle with a transaction open, for the operations that work inside their caller's.
struct OpenTransaction {
  OpenTransaction() {
    OpenWfpEngine(engine);
    platform::FwpmTransactionBegin0(engine, 0);
    sim::ClearTrace();
  }
  ~OpenTransaction() { platform::FwpmEngineClose0(engine); }
  OpenTransaction(const OpenTransaction&) = delete;
  OpenTransaction& operator=(const OpenTransaction&) = delete;
  void Commit() { platform::FwpmTransactionCommit0(engine); }

  platform::Handle engine = nullptr;
};

}  // namespace firewall_test
