// The tunnel profile that the control plane hands out, and the configuration that comes of it.
#include "engine/bootstrap.h"
#include "engine/tunnel_state.h"
#include "fuzz/naive_json.h"
#include "fuzz/target.h"
#include "service/data_files.h"
#include "sim/files.h"
#include "sim/http.h"
#include "sim/kernel.h"

namespace fuzz {
namespace {

using Strings = std::vector<std::string>;

struct Peer {
  std::string endpoint;
  std::string key;
  bool Whole() const { return !endpoint.empty() && !key.empty(); }
};

Peer PeerAt(const std::string& body, size_t at, const Peer& before) {
  if (at == kNowhere) return before;
  const std::string rest = body.substr(at);
  return {NaiveString(rest, "endpoint").value_or(""), NaiveString(rest, "server_public_key").value_or("")};
}

Peer NaivePeer(const std::string& body) {
  std::string id = NaiveString(body, "assigned_server_id").value_or("");
  Peer peer;
  if (!id.empty()) peer = PeerAt(body, body.find("\"server_id\":\"" + id + "\""), peer);
  return peer.Whole() ? peer : PeerAt(body, NaiveKey(body, "servers"), peer);
}

std::string Joined(const Strings& words) {
  std::string text;
  for (const std::string& word : words) text += text.empty() && &word == &words[0] ? word : ", " + word;
  return text;
}

// The configuration behind its private key; empty if the profile is refused.
std::string NaiveConfig(const std::string& body) {
  const auto address = NaiveString(body, "client_address");
  const Peer peer = NaivePeer(body);
  if (!address || !peer.Whole()) return "";
  const Strings dns = NaiveStrings(body, "dns").value_or(Strings());
  Strings allowed = NaiveStrings(body, "allowed_ips").value_or(Strings());
  if (allowed.empty()) allowed = {"10.8.0.0/24"};
  std::string text = "Address = " + *address + "\r\n";
  if (!dns.empty()) text += "DNS = " + Joined(dns) + "\r\n";
  text += "\r\n[Peer]\r\nPublicKey = " + peer.key + "\r\nAllowedIPs = " + Joined(allowed) + "\r\n";
  text += "Endpoint = " + peer.endpoint + "\r\n";
  return text + "PersistentKeepalive = " + std::to_string(NaiveKeepalive(body).value_or(0)) + "\r\n";
}

// The server that is selected after the profile, none having been before.
std::string NaiveAssigned(const std::string& body) {
  std::string id = NaiveString(body, "assigned_server_id").value_or("");
  const size_t assigned = NaiveKey(body, "assigned_server");
  if (assigned == kNowhere) return id;
  const std::string own = NaiveString(body.substr(assigned), "server_id").value_or("");
  return own.empty() ? id : own;
}

void UseProfile(const std::string& body) {
  sim::ControlPlane& plane = sim::UseControlPlane();
  plane.locationsBody = R"({"servers":[]})";
  plane.assignedServer = "{assigned}";  // the mark stays as it is
  plane.profileBody = body;
  sim::PutFile(kSessionFile, sim::Seal(R"({"access_token":"access-1","refresh_token":"r","expires_at":)" +
                                       std::to_string(sim::UnixTime() + 3000) + "}"));
}

}  // namespace

void RunProfile(const std::string& bytes) {
  const sim::Machine machine;
  UseProfile(bytes);
  const std::string expected = NaiveConfig(bytes);
  Require(Bootstrap() == !expected.empty(), "Bootstrap says whether the profile could be used");
  const std::string config = sim::FileBytes(kTunnelConfigFile).value_or("");
  Require(config.empty() == expected.empty(), "there is a configuration, or none");
  if (config.empty()) return;
  const std::string key = sim::FileBytes(kPrivateKeyFile).value_or("no key");
  Require(config == "[Interface]\r\nPrivateKey = " + NaiveTrim(key) + "\r\n" + expected,
          "the configuration is the profile's: " + config);
  Require(gSelectedServerId == NaiveAssigned(bytes), "the assigned server is " + gSelectedServerId);
}

}  // namespace fuzz
