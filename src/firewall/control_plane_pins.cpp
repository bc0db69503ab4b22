#include "firewall/control_plane_pins.h"

#include <string>
#include <vector>

#include "controlplane/base_url.h"
#include "firewall/remote_permit.h"
#include "service/log.h"
#include "service/wide_text.h"

void PinControlPlane(platform::Handle engine, const PinTexts& texts) {
  WfpLogLine(texts.base + std::wstring(kDefaultCpBaseUrl));
  ParsedBaseUrl parsed;
  if (!ParseHttpsBaseUrl(kDefaultCpBaseUrl, parsed)) {
    if (texts.parseFailed) WfpLogLine(texts.parseFailed + std::wstring(kDefaultCpBaseUrl));
    return;
  }
  const std::vector<std::wstring> addresses = ResolveHostIpV4(parsed.host);
  WfpLogLine(texts.host + parsed.host + L" count=" + std::to_wstring(addresses.size()));
  size_t added = 0;
  size_t failed = 0;
  for (const std::wstring& address : addresses) {
    if (IsNoAddress(address)) continue;
    const bool ok = AddAllowRemoteIpV4(engine, address, kControlPlanePinPrefix);
    WfpLogLine((ok ? texts.added : texts.failed) + parsed.host + L" ip=" + address);
    ++(ok ? added : failed);
  }
  WfpLogLine(texts.summary + parsed.host + L" added=" + std::to_wstring(added) + L" failed=" +
             std::to_wstring(failed));
}
