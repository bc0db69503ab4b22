// The report for support: what it tells, in what order, where it goes, and that no secret is in it.
#include <random>

#include "tests/telvorctl/scripted_machine.h"
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::platform::kErrorAccessDenied;
using telvorctl::platform::kErrorFileNotFound;
using telvorctl::platform::kErrorPipeBusy;

const std::string kData = "C:\\ProgramData\\TELVOR\\";
const std::string kLog = "C:\\ProgramData\\sorvanik-vpn\\vpnservice.log";
const std::string kKey = "ad+1Aa8b0X6UIAGv6XOAFDnwl8+NqW/aB7H8vWy5XBY=";

class Support : public Telvorctl {
 protected:
  void SetUp() override {
    Telvorctl::SetUp();
    gMachine = ScriptedMachine();
    gMachine.services["TELVOR"] = {0, 4, 0, 2, "LocalSystem", R"("C:\Program Files\TELVOR\telvor.exe")"};
    gMachine.versions = {{"C:\\Program Files\\TELVOR\\telvor.exe", "1.0.0.0"},
                         {"C:\\Program Files\\WireGuard\\wireguard.exe", "0.5.3.0"}};
    gMachine.files = {
        {"C:\\VPN\\stage\\20-servicemain-enter.txt", Utf16("entered ServiceMain\r\n")},
        {"C:\\VPN\\stage\\01-wmain-enter.txt", Utf16("entered wmain\r\n")},
        {kData + "step1.txt", Utf16("in try\n")},
        {kData + "auth\\session.dat", "sealed"},
        {kLog, "[2026-01-02 03:04:05] BuildID: old\r\n[2026-01-02 03:04:05] BuildID: new\r\nlast"}};
    gMachine.adapters = {{7, "Ethernet", true, {0x0A4DA8C0}}, {12, "telvor", false, {}}};
    gMachine.routes = {
        {0, 0, 0x014DA8C0, 7, 25}, {0x077100CB, 32, 0x014DA8C0, 7, 5}, {0x0A4DA8C0, 32, 0, 7, 1}};
  }

  static void ServiceAnswers() {
    std::string state = State("connected");
    state.replace(state.find("KEY="), 4, kKey);
    Result(kGetState, state);
    Result(kGetStatus, Status("CONNECTED"));
  }

  static bool Tells(const std::string& text) { return gScript.output.find(text) != std::string::npos; }
};

TEST_F(Support, TellsOfServiceAndMachine) {
  ServiceAnswers();
  EXPECT_EQ(Run({"support"}), 0);
  for (const char* text : {
           "TELVOR support report\n",
           "telvorctl      1.0.0\ntelvor.exe     1.0.0.0\nBuild          new\nwireguard.exe  0.5.3.0\n"
           "wg.exe         not there\nWindows        10.0.19045, code page 1252, language de-DE\n"
           "Local time     2026-11-22 09:30:00\nUTC            2026-11-22 08:30:00\n",
           "GetState: connected, received 2.0 KiB, sent 10 B\nDevice id   dev-1\n",
           "Chosen      Paris, FR (fr-par-1)\n",
           "\nPublic key  ad+1Aa8b0X6UIAGv6XOAFDnwl8+NqW/aB7H8vWy5XBY=\n",
           "TELVOR                  running        exit code 0  start automatic  LocalSystem  "
           "\"C:\\Program Files\\TELVOR\\telvor.exe\"\n",
           "WireGuardTunnel$telvor  not installed\n",
           "2026-01-02 03:04:05  01-wmain-enter.txt        entered wmain\n"
           "2026-01-02 03:04:05  20-servicemain-enter.txt  entered ServiceMain\n",
           "2026-01-02 03:04:05  step1.txt  in try\n",
           "2026-01-02 03:04:05  6      C:\\ProgramData\\TELVOR\\auth\\session.dat\n",
           "7      Ethernet  up     192.168.77.10\n12     telvor    down\n",
           "0.0.0.0/0       192.168.77.1  7      25\n203.0.113.7/32  192.168.77.1  7      5\n",
           "== The log's end, at most 2000 lines\n[2026-01-02 03:04:05] BuildID: old\n",
       }) {
    EXPECT_TRUE(Tells(text)) << text << "\nin\n" << gScript.output;
  }
  EXPECT_FALSE(Tells("192.168.77.10/32"));  // the adapter's own
  EXPECT_FALSE(Tells("sealed"));
  EXPECT_TRUE(gScript.output.ends_with("\nlast\n"));
}

TEST_F(Support, IsMadeWithoutTheService) {
  gMachine = ScriptedMachine();
  CannotOpen(kGetState, kErrorFileNotFound, true);
  EXPECT_EQ(Run({"support"}), 0);
  EXPECT_TRUE(Tells("the TELVOR service is not there"));
  EXPECT_TRUE(Tells("== Markers of the last start and stop\nC:\\VPN\\stage: not there\n"));
  EXPECT_TRUE(Tells("C:\\ProgramData\\sorvanik-vpn\\vpnservice.log: not there\n"));
  EXPECT_TRUE(Tells("Build          not told in the log's end\n"));
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(Support, TellsWhatItMayNotSee) {
  CannotOpen(kGetState, kErrorPipeBusy, true);
  gMachine.services["TELVOR"] = {kErrorAccessDenied, 0, 0, 0, {}, {}};
  gMachine.unreadable = {
      {kLog, kErrorAccessDenied}, {kData + "auth", 5}, {"C:\\VPN\\stage\\01-wmain-enter.txt", 32}};
  EXPECT_EQ(Run({"support"}), 0);
  EXPECT_TRUE(Tells("vpnservice.log: access denied; try an elevated prompt\n"));
  EXPECT_TRUE(Tells("C:\\ProgramData\\TELVOR\\auth: access denied; try an elevated prompt\n"));
  EXPECT_TRUE(Tells("01-wmain-enter.txt        Windows error 32\n"));
  EXPECT_TRUE(Tells("TELVOR                  access denied; try an elevated prompt\n"));
}

TEST_F(Support, FollowsNoLinks) {
  ServiceAnswers();
  gMachine.files[kData + "away\\elsewhere.txt"] = "x";
  gMachine.link = kData + "away";
  EXPECT_EQ(Run({"support"}), 0);
  EXPECT_TRUE(Tells(kData + "away\n"));
  EXPECT_FALSE(Tells("elsewhere.txt"));
}

TEST_F(Support, TakesTheEndOfALongLog) {
  ServiceAnswers();
  std::string log;
  for (int i = 1; i <= 2001; ++i) log += "line " + std::to_string(i) + "\n";
  gMachine.files[kLog] = log;
  EXPECT_EQ(Run({"support"}), 0);
  EXPECT_FALSE(Tells("\nline 1\n"));
  EXPECT_TRUE(Tells("lines\nline 2\n"));
  EXPECT_TRUE(gScript.output.ends_with("\nline 2001\n"));
  // More than is read: a line that is cut in two is left out.
  gScript.output.clear();
  ServiceAnswers();
  gMachine.files[kLog] = "first " + std::string(5 << 20, 'x') + "\nsecond\n";
  EXPECT_EQ(Run({"support"}), 0);
  EXPECT_TRUE(gScript.output.ends_with("lines\nsecond\n"));
}

TEST_F(Support, GoesToANewFile) {
  ServiceAnswers();
  EXPECT_EQ(Run({"support", "C:\\report.txt"}), 0);
  EXPECT_EQ(gScript.output, "The report is in C:\\report.txt. Read it before you give it away.\n");
  EXPECT_TRUE(gMachine.files["C:\\report.txt"].starts_with("TELVOR support report\n"));
  ServiceAnswers();
  EXPECT_EQ(Run({"support", "C:\\report.txt"}), 1);
  gMachine.unreadable["C:\\no\\report.txt"] = 3;
  ServiceAnswers();
  EXPECT_EQ(Run({"support", "C:\\no\\report.txt"}), 1);
  EXPECT_EQ(gScript.errors,
            "telvorctl: C:\\report.txt is there already; name a new file\n"
            "telvorctl: C:\\no\\report.txt cannot be written: Windows error 3\n");
}

TEST_F(Support, ForScriptsIsOneLineOfJson) {
  ServiceAnswers();
  gMachine.files[kLog] = "caf\xE9\n";
  EXPECT_EQ(Run({"support", "--json"}), 0);
  EXPECT_TRUE(gScript.output.starts_with(R"({"Versions and time":["telvorctl      1.0.0",)"));
  EXPECT_TRUE(gScript.output.ends_with("\"The log's end, at most 2000 lines\":[\"caf\uFFFD\"]}\n"));
  ServiceAnswers();
  gScript.output.clear();
  EXPECT_EQ(Run({"support", "--json", "C:\\report.json"}), 0);
  EXPECT_EQ(gScript.output, "");
  EXPECT_TRUE(gMachine.files["C:\\report.json"].starts_with("{"));
}

TEST_F(Support, CtrlCEndsIt) {
  Broken(kGetState, telvorctl::platform::kErrorOperationAborted, "");
  EXPECT_EQ(Run({"support"}), 130);
  EXPECT_EQ(gScript.output, "");
}

// ---- No secret comes out, wherever it went in ----

std::string RandomText(std::mt19937& random, const std::string& alphabet, size_t size) {
  std::string text;
  while (text.size() < size) text += alphabet[random() % alphabet.size()];
  return text;
}

struct Secrets {
  std::string key;       // in the form of WireGuard's
  std::string token;     // Base64 for URLs
  std::string password;  // of anything that can be typed
};

Secrets RandomSecrets(std::mt19937& random) {
  const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  return {RandomText(random, letters + "+/", 43) + "=", RandomText(random, letters + "-_", 43),
          RandomText(random, letters + " !$%&/()=?*;:,<>#.", 8 + random() % 16)};
}

// All of them as the control plane, a program or a person might say them.
std::string Babble(const Secrets& secrets) {
  return "PrivateKey = " + secrets.key + "\n" + R"({"access_token":")" + secrets.token + R"(","password":")" +
         secrets.password + "\"}\nhead=" + secrets.key + "\t1\n(" + secrets.token + ") " +
         "User:" + secrets.password + "\r\n?refresh_token=" + secrets.token + "\n";
}

// Where there is room for one word.
std::string Word(const Secrets& secrets, int round) {
  return round % 2 == 0 ? secrets.key : secrets.token;
}

void PutEverywhere(const Secrets& secrets, int round) {
  const std::string word = Word(secrets, round);
  gMachine.files = {{kLog, "BuildID: " + word + "\n" + Babble(secrets)},
                    {"C:\\VPN\\stage\\01-wmain-enter.txt", Utf16(Babble(secrets))},
                    {kData + "cpp_exception.txt", Utf16(Babble(secrets))},
                    {kData + "auth\\" + secrets.token + ".txt", Babble(secrets)},
                    {kData + "auth\\session.dat", Babble(secrets)}};
  gMachine.services["BFE"] = {0, 4, 0, 2, word, "x.exe --token=" + secrets.token};
  gMachine.versions["C:\\Program Files\\WireGuard\\wg.exe"] = word;
  gMachine.windows.language = word;
  gMachine.adapters = {{1, "net " + word, true, {}}};
}

TEST_F(Support, HoldsNoSecretWhereverOneWasPut) {
  std::mt19937 random(3);
  for (int round = 0; round < 300; ++round) {
    const Secrets secrets = RandomSecrets(random);
    PutEverywhere(secrets, round);
    // Whoever can write the file of the public key can put a token there.
    Result(kGetState, R"({"deviceId":")" + Word(secrets, round) + R"(","wgPublicKey":")" + secrets.token +
                          R"(","state":")" + secrets.token + R"(","lastError":"token: )" + secrets.token +
                          "\"}");
    Result(kGetStatus, Status(secrets.token, "AUTH_OK", "ada@telvor.test " + Word(secrets, round)));
    gScript.output.clear();
    EXPECT_EQ(Run(round % 3 == 0 ? std::vector<std::string>{"support", "--json"}
                                 : std::vector<std::string>{"support"}),
              0);
    for (const std::string& secret : {secrets.key, secrets.token, secrets.password, std::string("ada@")})
      ASSERT_FALSE(Tells(secret)) << secret << "\nin\n" << gScript.output;
    ASSERT_TRUE(Tells("***@telvor.test"));
  }
}

}  // namespace
