// Where WireGuard's programs are, without which no tunnel comes up.
#pragma once

namespace telvorctl {

inline constexpr char kWireGuardFolder[] = "C:\\Program Files\\WireGuard\\";
inline constexpr char kWireGuardProgram[] = "wireguard.exe";
inline constexpr char kWgProgram[] = "wg.exe";

}  // namespace telvorctl
