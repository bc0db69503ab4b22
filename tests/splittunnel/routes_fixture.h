// The routing table of the simulated machine as the tests of the split tunnel look at it. At boot: the
// adapter "Ethernet", index 7, and a default route through 192.168.1.1 on it, metric 25.
#pragma once

#include <string>
#include <vector>

#include "engine/tunnel_state.h"
#include "sim/files.h"
#include "sim/kernel.h"
#include "sim/network.h"

using Lines = std::vector<std::string>;

// The process knows the gateway already.
inline void KnowGateway(const std::wstring& gateway = L"192.168.1.1", uint32_t ifIndex = 7) {
  gDefaultGatewayV4 = gateway;
  gDefaultIfIndex = ifIndex;
}

inline std::string Gateway() {
  return sim::Narrow(gDefaultGatewayV4) + " if " + std::to_string(gDefaultIfIndex);
}

inline void AddDefaultRoute(const std::string& nextHop, uint32_t ifIndex, uint32_t metric) {
  sim::AddRoute(sim::Route("0.0.0.0", 0, nextHop, ifIndex, metric));
}

inline std::string AccessDenied(const std::string& what) {
  return what + " failed: 5 (Access is denied.)";
}

// The place of the first traced call of this name in the trace; the trace's end if there is none.
inline size_t PlaceOf(const std::string& operation) {
  const std::vector<sim::TraceEntry>& trace = sim::Trace();
  for (size_t i = 0; i < trace.size(); ++i) {
    if (trace[i].operation == operation) return i;
  }
  return trace.size();
}
