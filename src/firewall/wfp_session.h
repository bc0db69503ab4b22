// What every firewall operation shares: the engine session, the system's identity in the filtering engine,
// and the sweep of its own filters. No engine handle outlives the operation that opened it.
#pragma once

#include <cstdint>

#include "firewall/platform.h"

// The system's provider and sublayer.
inline constexpr platform::Guid kProviderKey{
    0xB8D16C9B, 0x7D78, 0x4A2C, {0x9A, 0x8B, 0x01, 0xF4, 0xB1, 0xF1, 0xB0, 0xA1}};
inline constexpr platform::Guid kSubLayerKey{
    0xD5C4F4A2, 0x0C9B, 0x4F6B, {0xA9, 0xCE, 0x2E, 0x1B, 0x2D, 0x89, 0xE0, 0xB2}};

// The platform's status, 0 on success. The session is not dynamic: rules outlive the handle.
uint32_t OpenWfpEngine(platform::Handle& engine);

// Outside any transaction; what exists already is taken as it is. Logs a failure.
bool EnsureProviderAndSublayer(platform::Handle engine);

// True if the entry is a filter of this system: of its provider, in its sublayer.
bool IsOwnFilter(const platform::FwpmEntry& entry);

// Deletes every filter of the system's provider in its sublayer, inside the caller's transaction. True if all
// went and the enumeration ran to its end. Logs failures.
bool CleanupOldFilters(platform::Handle engine);
