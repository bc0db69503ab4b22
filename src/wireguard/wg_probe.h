// What wg.exe tells about the tunnel.
#pragma once

#include <cstdint>
#include <string>

// Asks for the latest handshake up to 15 times, a second apart. True when one is seen, however old.
bool WgHandshakeSeen(const std::wstring& interfaceName);

// Received and sent bytes summed over all peers. False, with totals 0, if wg.exe could not be run or failed.
bool WgGetRxTxBytes(const std::wstring& interfaceName, uint64_t& rx, uint64_t& tx);
