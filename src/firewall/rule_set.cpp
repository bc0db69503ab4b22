#include "firewall/rule_set.h"

#include "firewall/wfp_session.h"

namespace {

constexpr uint64_t kFilterWeight = 0xF000000000000000;
constexpr uint32_t kWholeAddress = 0xFFFFFFFF;

platform::FwpmFilterCondition Equal(const platform::Guid& field, uint32_t type, uint32_t number = 0) {
  platform::FwpmFilterCondition condition;
  condition.fieldKey = field;
  condition.matchType = platform::kFwpMatchEqual;
  condition.type = type;
  condition.number = number;
  return condition;
}

}  // namespace

platform::FwpmFilter PermitFilter(const std::wstring& name, const platform::Guid& layer) {
  platform::FwpmFilter filter;
  filter.displayData.name = name;
  filter.providerKey = kProviderKey;
  filter.layerKey = layer;
  filter.subLayerKey = kSubLayerKey;
  filter.weight = kFilterWeight;
  filter.actionType = platform::kFwpActionPermit;
  return filter;
}

platform::FwpmFilterCondition RemoteAddressV4(uint32_t address) {
  platform::FwpmFilterCondition condition = Equal(kConditionIpRemoteAddress, platform::kFwpV4AddrMask);
  // Wanted: the value stays in network byte order.
  condition.v4Address = address;
  condition.v4Mask = kWholeAddress;
  return condition;
}

platform::FwpmFilterCondition RemoteAddressV6Loopback() {
  platform::FwpmFilterCondition condition = Equal(kConditionIpRemoteAddress, platform::kFwpV6AddrMask);
  condition.v6Address[15] = 1;
  condition.v6PrefixLength = 128;
  return condition;
}

platform::FwpmFilterCondition Protocol(uint8_t protocol) {
  return Equal(kConditionIpProtocol, platform::kFwpUint8, protocol);
}

platform::FwpmFilterCondition RemotePort(uint16_t port) {
  return Equal(kConditionIpRemotePort, platform::kFwpUint16, port);
}

platform::FwpmFilterCondition InterfaceIndex(uint32_t ifIndex) {
  return Equal(kConditionInterfaceIndex, platform::kFwpUint32, ifIndex);
}

platform::FwpmFilterCondition AppId(platform::FwpByteBlob* blob) {
  platform::FwpmFilterCondition condition = Equal(kConditionAleAppId, platform::kFwpByteBlobType);
  condition.blob = blob;
  return condition;
}
