// The text of telvor.conf, the configuration that wireguard.exe reads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct TunnelConfig {
  std::string privateKey;  // Base64
  std::string clientAddress;
  std::vector<std::string> dns;  // may be empty
  std::string serverPublicKey;   // Base64
  std::vector<std::string> allowedIps;
  std::string endpoint;              // host:port
  uint32_t persistentKeepalive = 0;  // seconds; 0 is written too, and means off
};

// The elements in their order with ", " between them.
std::string JoinWithComma(const std::vector<std::string>& elements);

// UTF-8, every line ended by CR LF. Nothing is quoted or checked. Without DNS servers the DNS line is left
// out, and "Bootstrap: DNS missing; skipping (bootstrap-safe)." is logged.
std::string BuildWgConfText(const TunnelConfig& config);
