// The rule set as data: the filters of the fail-closed baseline in the order of their adds, and how one is
// made. Permits only: despite its name the baseline blocks nothing, and no block filter is to be added.
#pragma once

#include <cstdint>
#include <string>

#include "firewall/platform.h"

// Windows' own identifiers of layers and conditions (fwpmu.h).
inline constexpr platform::Guid kLayerAleAuthConnectV4{
    0xC38D57D1, 0x05A7, 0x4C33, {0x90, 0x4F, 0x7F, 0xBC, 0xEE, 0xE6, 0x0E, 0x82}};
inline constexpr platform::Guid kLayerAleAuthConnectV6{
    0x4A72393B, 0x319F, 0x44BC, {0x84, 0xC3, 0xBA, 0x54, 0xDC, 0xB3, 0xB6, 0xB4}};
inline constexpr platform::Guid kConditionIpRemoteAddress{
    0xB235AE9A, 0x1D64, 0x49B8, {0xA4, 0x4C, 0x5F, 0xF3, 0xD9, 0x09, 0x50, 0x45}};
inline constexpr platform::Guid kConditionIpProtocol{
    0x3971EF2B, 0x623E, 0x4F9A, {0x8C, 0xB1, 0x6E, 0x79, 0xB8, 0x06, 0xB9, 0xA7}};
inline constexpr platform::Guid kConditionIpRemotePort{
    0xC35A604D, 0xD22B, 0x4E1A, {0x91, 0xB4, 0x68, 0xF6, 0x74, 0xEE, 0x67, 0x4B}};
inline constexpr platform::Guid kConditionAleAppId{
    0xD78E1E87, 0x8644, 0x4EA5, {0x94, 0x37, 0xD8, 0x09, 0xEC, 0xEF, 0xC9, 0x71}};
inline constexpr platform::Guid kConditionInterfaceIndex{
    0x667FD755, 0xD695, 0x434A, {0x8A, 0xF5, 0xD3, 0x83, 0x5A, 0x12, 0x59, 0xBC}};

inline constexpr uint8_t kProtocolTcp = 6;
inline constexpr uint8_t kProtocolUdp = 17;

// A permit of this system: its provider, sublayer, weight and action, no conditions yet.
platform::FwpmFilter PermitFilter(const std::wstring& name, const platform::Guid& layer);

platform::FwpmFilterCondition RemoteAddressV4(uint32_t address);  // network byte order, mask of all ones
platform::FwpmFilterCondition RemoteAddressV6Loopback();
platform::FwpmFilterCondition Protocol(uint8_t protocol);
platform::FwpmFilterCondition RemotePort(uint16_t port);
platform::FwpmFilterCondition InterfaceIndex(uint32_t ifIndex);
platform::FwpmFilterCondition AppId(platform::FwpByteBlob* blob);
