// The text of telvor.conf.
#include "engine/tunnel_config.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/files.h"
#include "sim/kernel.h"
#include "tests/support/sim_failures.h"

namespace {

TunnelConfig FullConfig() {
  TunnelConfig config;
  config.privateKey = "PRIVATE=";
  config.clientAddress = "10.8.0.2/32";
  config.dns = {"10.0.0.1", "1.1.1.1"};
  config.serverPublicKey = "SERVER=";
  config.allowedIps = {"0.0.0.0/0", "::/0"};
  config.endpoint = "vpn.example:51820";
  config.persistentKeepalive = 25;
  return config;
}

constexpr char kNoDns[] = "Bootstrap: DNS missing; skipping (bootstrap-safe).";

TEST(JoinWithComma, PutsCommaAndBlankBetween) {
  EXPECT_EQ(JoinWithComma({}), "");
  EXPECT_EQ(JoinWithComma({"a"}), "a");
  EXPECT_EQ(JoinWithComma({"b", "a", "b"}), "b, a, b");
}

TEST(JoinWithComma, TakesElementsAsTheyAre) {
  EXPECT_EQ(JoinWithComma({" a ", "", "b,c"}), " a , , b,c");
}

TEST(BuildWgConfText, WritesAllLinesInOrder) {
  sim::Machine machine;
  EXPECT_EQ(BuildWgConfText(FullConfig()),
            "[Interface]\r\n"
            "PrivateKey = PRIVATE=\r\n"
            "Address = 10.8.0.2/32\r\n"
            "DNS = 10.0.0.1, 1.1.1.1\r\n"
            "\r\n"
            "[Peer]\r\n"
            "PublicKey = SERVER=\r\n"
            "AllowedIPs = 0.0.0.0/0, ::/0\r\n"
            "Endpoint = vpn.example:51820\r\n"
            "PersistentKeepalive = 25\r\n");
  EXPECT_EQ(sim::LogBytes(), "");
}

TEST(BuildWgConfText, LeavesTheDnsLineOutAndSaysSo) {
  sim::Machine machine;
  TunnelConfig config = FullConfig();
  config.dns.clear();
  EXPECT_EQ(BuildWgConfText(config),
            "[Interface]\r\n"
            "PrivateKey = PRIVATE=\r\n"
            "Address = 10.8.0.2/32\r\n"
            "\r\n"
            "[Peer]\r\n"
            "PublicKey = SERVER=\r\n"
            "AllowedIPs = 0.0.0.0/0, ::/0\r\n"
            "Endpoint = vpn.example:51820\r\n"
            "PersistentKeepalive = 25\r\n");
  EXPECT_EQ(sim::LogLines(), std::vector<std::string>{kNoDns});
}

TEST(BuildWgConfText, WritesADnsListOfOneEmptyElement) {
  sim::Machine machine;
  TunnelConfig config = FullConfig();
  config.dns = {""};
  EXPECT_NE(BuildWgConfText(config).find("\r\nDNS = \r\n\r\n[Peer]"), std::string::npos);
  EXPECT_FALSE(sim::LogHas(kNoDns));
}

TEST(BuildWgConfText, WritesAKeepaliveOfZero) {
  sim::Machine machine;
  TunnelConfig config = FullConfig();
  config.persistentKeepalive = 0;
  EXPECT_TRUE(BuildWgConfText(config).ends_with("\r\nPersistentKeepalive = 0\r\n"));
}

TEST(BuildWgConfText, WritesTheKeepaliveUnsigned) {
  sim::Machine machine;
  TunnelConfig config = FullConfig();
  config.persistentKeepalive = 0xFFFFFFFF;
  EXPECT_TRUE(BuildWgConfText(config).ends_with("\r\nPersistentKeepalive = 4294967295\r\n"));
}

TEST(BuildWgConfText, WritesTheDefaultAllowedIps) {
  sim::Machine machine;
  TunnelConfig config = FullConfig();
  config.allowedIps = {"10.8.0.0/24"};
  EXPECT_NE(BuildWgConfText(config).find("\r\nAllowedIPs = 10.8.0.0/24\r\n"), std::string::npos);
}

// Nothing is quoted or checked, so a line break in a value reaches the file.
TEST(BuildWgConfText, TakesValuesAsTheyAre) {
  sim::Machine machine;
  TunnelConfig config = FullConfig();
  config.endpoint = "\xC3\xA9 \"host\"\r\nExtra = 1";
  EXPECT_NE(BuildWgConfText(config).find("\r\nEndpoint = \xC3\xA9 \"host\"\r\nExtra = 1\r\nPersistent"),
            std::string::npos);
}

TEST(BuildWgConfText, WritesEmptyValues) {
  sim::Machine machine;
  TunnelConfig config;
  config.dns = {"1.1.1.1"};
  EXPECT_EQ(BuildWgConfText(config),
            "[Interface]\r\nPrivateKey = \r\nAddress = \r\nDNS = 1.1.1.1\r\n\r\n"
            "[Peer]\r\nPublicKey = \r\nAllowedIPs = \r\nEndpoint = \r\nPersistentKeepalive = 0\r\n");
}

}  // namespace
