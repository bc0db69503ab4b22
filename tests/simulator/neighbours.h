// What the service lives among: its control plane, WireGuard's programs, the network and the files, each of
// which can be in trouble and is well again when it is told so.
#pragma once

#include <cstdint>

namespace simulator {

// All well, on a machine that was just booted.
void SettleIn();
// All well again, and no fault is to come.
void HealAll();

// Until it is told otherwise: one endpoint, or all, with one trouble.
void TroublePlane(uint32_t endpoint, uint32_t trouble);
void HealPlane();
// Another access token from now on; the old one is refused.
void RotateTokens();

// Each until it is told otherwise, with one trouble.
void TroublePrograms(uint32_t trouble);
void TroubleTunnelService(uint32_t trouble);
void TroubleNetwork(uint32_t trouble);
void TroubleNames(uint32_t trouble);
// Another text in the file that says what bypasses the tunnel.
void ChangePolicy(uint32_t policy);
// Somebody else has the file open for a while.
void HoldAFile(uint32_t file);

}  // namespace simulator
