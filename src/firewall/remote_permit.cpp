#include "firewall/remote_permit.h"

#include "firewall/rule_set.h"
#include "service/log.h"
#include "service/wide_text.h"

bool AddAllowRemoteIpV4(platform::Handle engine, const std::wstring& address, const wchar_t* namePrefix) {
  const std::wstring clean = CleanBypassAddress(address);
  uint32_t networkAddress = 0;
  if (platform::InetPtonW(platform::kAfInet, clean, networkAddress) != 1) return false;
  for (const uint8_t protocol : {kProtocolTcp, kProtocolUdp}) {
    platform::FwpmFilter filter = PermitFilter(namePrefix + clean, kLayerAleAuthConnectV4);
    filter.conditions = {RemoteAddressV4(networkAddress), Protocol(protocol)};
    uint64_t filterId = 0;
    const uint32_t code = platform::FwpmFilterAdd0(engine, filter, filterId);
    if (code != platform::kErrorSuccess) {
      // Wanted: this name is used for both families.
      WfpLogError(L"FwpmFilterAdd0(ALLOW split-bypass v4)", code);
      return false;
    }
  }
  return true;
}
