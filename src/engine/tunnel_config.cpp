#include "engine/tunnel_config.h"

#include "service/log.h"

std::string JoinWithComma(const std::vector<std::string>& elements) {
  std::string joined;
  for (const std::string& element : elements) {
    if (&element != &elements.front()) joined += ", ";
    joined += element;
  }
  return joined;
}

std::string BuildWgConfText(const TunnelConfig& config) {
  std::string text = "[Interface]\r\n";
  text += "PrivateKey = " + config.privateKey + "\r\n";
  text += "Address = " + config.clientAddress + "\r\n";
  if (config.dns.empty()) {
    LogLine(L"Bootstrap: DNS missing; skipping (bootstrap-safe).");
  } else {
    text += "DNS = " + JoinWithComma(config.dns) + "\r\n";
  }
  text += "\r\n[Peer]\r\n";
  text += "PublicKey = " + config.serverPublicKey + "\r\n";
  text += "AllowedIPs = " + JoinWithComma(config.allowedIps) + "\r\n";
  text += "Endpoint = " + config.endpoint + "\r\n";
  text += "PersistentKeepalive = " + std::to_string(config.persistentKeepalive) + "\r\n";
  return text;
}
