// The IP Helper operations that the split tunnel needs, with the records that they take, field by field, and
// the path of the executable. See service/platform.h for the rules; the IP Helper functions return a Windows
// error code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/platform.h"

namespace platform {

inline constexpr uint32_t kErrorBufferOverflow = 111;
inline constexpr uint32_t kErrorNotFound = 1168;
inline constexpr uint32_t kErrorObjectAlreadyExists = 5010;

inline constexpr uint32_t kMibIpProtoNetMgmt = 3;
inline constexpr uint32_t kNlroManual = 0;
// GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER
inline constexpr uint32_t kGaaSkipAllButUnicast = 14;

struct AdapterAddresses {
  std::wstring friendlyName;
  uint32_t ifIndex;
};
// A null `adapters` passes no buffer and asks for the size in bytes; otherwise a buffer of `size` bytes is
// used.
uint32_t GetAdaptersAddresses(uint32_t family, uint32_t flags, uint32_t& size,
                              std::vector<AdapterAddresses>* adapters);

// SOCKADDR_INET, for IPv4; `v4Address` in network byte order.
struct SockaddrInet {
  uint16_t family = 0;
  uint32_t v4Address = 0;
  bool operator==(const SockaddrInet&) const = default;
};

// MIB_IPFORWARD_ROW2.
struct MibIpForwardRow2 {
  uint64_t interfaceLuid = 0;
  uint32_t interfaceIndex = 0;
  SockaddrInet destinationPrefix;
  uint8_t destinationPrefixLength = 0;
  SockaddrInet nextHop;
  uint8_t sitePrefixLength = 0;
  uint32_t validLifetime = 0;
  uint32_t preferredLifetime = 0;
  uint32_t metric = 0;
  uint32_t protocol = 0;
  bool loopback = false;
  bool autoconfigureAddress = false;
  bool publish = false;
  bool immortal = false;
  uint32_t age = 0;
  uint32_t origin = 0;
};

// MIB_IPFORWARD_TABLE2; `memory` is the system's table, released by FreeMibTable.
struct MibIpForwardTable2 {
  std::vector<MibIpForwardRow2> rows;
  void* memory = nullptr;
};
uint32_t GetIpForwardTable2(uint16_t family, MibIpForwardTable2& table);
void FreeMibTable(MibIpForwardTable2& table);

// No interface LUID, no source address; the best source address is not handed out.
uint32_t GetBestRoute2(uint32_t interfaceIndex, const SockaddrInet& destination, uint32_t sortOptions,
                       MibIpForwardRow2& bestRoute);
void InitializeIpForwardEntry(MibIpForwardRow2& row);
uint32_t CreateIpForwardEntry2(const MibIpForwardRow2& row);
uint32_t SetIpForwardEntry2(const MibIpForwardRow2& row);
uint32_t DeleteIpForwardEntry2(const MibIpForwardRow2& row);

// Of the running executable (null module).
uint32_t GetModuleFileNameW(wchar_t* buffer, uint32_t size);

}  // namespace platform
