// What the service lives among: its control plane, WireGuard's programs, the network and the files, each of
// which can be in trouble and is well again when it is told so.
#pragma once

#include <cstdint>

namespace simulator {

// All well, on a machine that was just booted.
void SettleIn();
// All well again, and no fault is to come.
void HealAll();

inline constexpr uint32_t kPlaneTroubles = 12;
// Until it is told otherwise: one endpoint, or all, with one trouble.
void TroublePlane(uint32_t endpoint, uint32_t trouble);
void HealPlane();
// Another access token from now on; the old one is refused.
void RotateTokens();

inline constexpr uint32_t kProgramTroubles = 5;
void TroublePrograms(uint32_t trouble);

inline constexpr uint32_t kTunnelTroubles = 6;
void TroubleTunnelService(uint32_t trouble);

inline constexpr uint32_t kNetworkTroubles = 9;
void TroubleNetwork(uint32_t trouble);

inline constexpr uint32_t kNameTroubles = 7;
void TroubleNames(uint32_t trouble);

inline constexpr uint32_t kPolicyCount = 5;
void ChangePolicy(uint32_t policy);

inline constexpr uint32_t kHeldFiles = 6;
// Somebody else has the file open for a while.
void HoldAFile(uint32_t file);

}  // namespace simulator
