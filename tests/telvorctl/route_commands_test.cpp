// The routes that a service has left: which they are, and that no other is touched.
#include "telvorctl/left_routes.h"
#include "telvorctl/machine_text.h"
#include "tests/telvorctl/scripted_machine.h"
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::AddressText;
using telvorctl::LoggedAddresses;
using telvorctl::platform::kErrorAccessDenied;
using telvorctl::platform::kErrorFileNotFound;
using telvorctl::platform::kErrorNotFound;
using telvorctl::platform::kErrorPipeBusy;
using telvorctl::platform::Route;

const std::string kLog = "C:\\ProgramData\\sorvanik-vpn\\vpnservice.log";
constexpr uint32_t kGateway = 0x014DA8C0;   // 192.168.77.1
constexpr uint32_t kBypassed = 0x077100CB;  // 203.0.113.7
constexpr uint32_t kAnother = 0x087100CB;   // 203.0.113.8
constexpr uint32_t kOfAdministrator = 0x097100CB;
const Route kLeft = {kBypassed, 32, kGateway, 7, 5, 3};
const Route kLeftToo = {kAnother, 32, kGateway, 7, 5, 3};
const Route kOwn = {kOfAdministrator, 32, kGateway, 7, 5, 3};

class Routes : public Telvorctl {
 protected:
  void SetUp() override {
    Telvorctl::SetUp();
    gMachine = ScriptedMachine();
    gMachine.files[kLog] =
        "[2026-01-02 03:04:05]   bypass4: 203.0.113.7\r\n"
        "[2026-01-02 03:04:06] SplitTunnelV1: Update WFP bypass IP = 203.0.113.8\r\n";
    gMachine.routes = {{0, 0, kGateway, 7, 25, 3}, kLeft, kOwn, kLeftToo};
  }

  static void NoService() { CannotOpen(kGetState, kErrorFileNotFound, true); }

  // What was not removed.
  static std::vector<std::string> Destinations() {
    std::vector<std::string> found;
    for (const Route& route : gMachine.routes) found.push_back(AddressText(route.destination));
    return found;
  }
};

TEST_F(Routes, AreListedAndLeftWhereTheyAre) {
  NoService();
  EXPECT_EQ(Run({"routes"}), 0);
  EXPECT_EQ(gScript.output,
            "DESTINATION     BY            INDEX  IS NOW\n"
            "203.0.113.7/32  192.168.77.1  7      there\n"
            "203.0.113.8/32  192.168.77.1  7      there\n");
  EXPECT_EQ(gScript.errors, "");
  EXPECT_EQ(gMachine.routes.size(), 4u);
}

TEST_F(Routes, AreRemovedAndAnAdministratorsStay) {
  TunnelIs("disconnected");
  EXPECT_EQ(Run({"routes", "--remove"}), 0);
  EXPECT_EQ(gScript.output,
            "DESTINATION     BY            INDEX  IS NOW\n"
            "203.0.113.7/32  192.168.77.1  7      removed\n"
            "203.0.113.8/32  192.168.77.1  7      removed\n");
  EXPECT_EQ(Destinations(), (std::vector<std::string>{"0.0.0.0", "203.0.113.9"}));
  TunnelIs("disconnected");
  gScript.output.clear();
  EXPECT_EQ(Run({"routes", "--remove"}), 0);
  EXPECT_EQ(gScript.output, "The service has left no route.\n");
}

TEST_F(Routes, OfATunnelThatIsUpOrComingUpAreInUse) {
  for (const char* state : {"connected", "connecting"}) {
    TunnelIs(state);
    gScript.errors.clear();
    EXPECT_EQ(Run({"routes", "--remove"}), 1);
    EXPECT_EQ(gScript.errors, std::string("telvorctl: the tunnel is ") + state +
                                  ", its routes are in use; first: telvorctl disconnect\n");
  }
  EXPECT_EQ(gMachine.routes.size(), 4u);
  EXPECT_EQ(gScript.output, "");
}

// The next attempt would bring them back.
TEST_F(Routes, AreLeftAloneBetweenTwoAttempts) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"routes"}, {"routes", "--remove"}}) {
    TunnelIs("error");
    gScript.errors.clear();
    EXPECT_EQ(Run(words), 1);
    EXPECT_EQ(gScript.errors, "telvorctl: the service may go on connecting; first: telvorctl disconnect\n");
  }
  EXPECT_EQ(gMachine.routes.size(), 4u);
  EXPECT_EQ(gScript.output, "");
}

// Whether its routes are in use is then not known.
TEST_F(Routes, OfAServiceThatDoesNotAnswerAreLeftAlone) {
  CannotOpen(kGetState, kErrorPipeBusy, true);
  EXPECT_EQ(Run({"routes", "--remove"}), 4);
  EXPECT_EQ(gMachine.routes.size(), 4u);
}

TEST_F(Routes, CannotBeRemovedWithoutRights) {
  NoService();
  gMachine.removalError = kErrorAccessDenied;
  EXPECT_EQ(Run({"routes", "--remove"}), 1);
  EXPECT_EQ(gScript.output,
            "DESTINATION     BY            INDEX  IS NOW\n"
            "203.0.113.7/32  192.168.77.1  7      there\n"
            "203.0.113.8/32  192.168.77.1  7      there\n");
  EXPECT_EQ(gScript.errors,
            "telvorctl: not every route could be removed: access denied; try an elevated prompt\n");
}

TEST_F(Routes, ThatWentAwayMeanwhileAreRemoved) {
  NoService();
  gMachine.removalError = kErrorNotFound;
  EXPECT_EQ(Run({"routes", "--remove"}), 0);
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(Routes, AreNotToldFromOthersWithoutTheLog) {
  NoService();
  gMachine.files.clear();
  EXPECT_EQ(Run({"routes", "--remove"}), 1);
  EXPECT_EQ(gScript.errors,
            "telvorctl: " + kLog + ", which alone tells the service's routes from others: not there\n");
  EXPECT_EQ(gMachine.routes.size(), 4u);
}

TEST_F(Routes, ThatCannotBeListedAreNotTakenForNone) {
  NoService();
  gMachine.routesError = 8;
  EXPECT_EQ(Run({"routes"}), 1);
  EXPECT_EQ(gScript.output, "");
  EXPECT_EQ(gScript.errors, "telvorctl: the routes: Windows error 8\n");
}

TEST_F(Routes, ForScriptsAreOneLineOfJson) {
  NoService();
  gMachine.routes = {kLeft};
  EXPECT_EQ(Run({"routes", "--json", "--remove"}), 0);
  EXPECT_EQ(Run({"routes", "--json"}), 0);
  EXPECT_EQ(gScript.output,
            R"({"routes":[{"destination":"203.0.113.7","next_hop":"192.168.77.1","interface_index":7,)"
            R"("removed":true}]})"
            "\n"
            R"({"routes":[]})"
            "\n");
}

LoggedAddresses Logged(std::string_view log) {
  LoggedAddresses logged;
  telvorctl::TakeLogPiece(log, logged);
  return logged;
}

TEST(RoutesOfService, LookAsTheServiceMakesThem) {
  const LoggedAddresses logged = {{kBypassed}, {}};
  const auto isOfService = [&](Route route) {
    return telvorctl::RoutesOfService({route}, logged).size() == 1;
  };
  EXPECT_TRUE(isOfService(kLeft));
  EXPECT_TRUE(isOfService({kBypassed, 32, 0x01010101, 12, 5, 3}));  // of an earlier network
  EXPECT_FALSE(isOfService(kOwn));
  EXPECT_FALSE(isOfService({kBypassed, 24, kGateway, 7, 5, 3}));
  EXPECT_FALSE(isOfService({kBypassed, 32, 0, 7, 5, 3}));
  EXPECT_FALSE(isOfService({kBypassed, 32, kGateway, 7, 6, 3}));
  EXPECT_FALSE(isOfService({kBypassed, 32, kGateway, 7, 5, 2}));
}

TEST(LoggedAddresses, StandBehindTheMarksOfWhatBypasses) {
  struct Row {
    const char* line;
    bool tells;
  };
  const Row rows[] = {
      {"[2026-01-02 03:04:05]   bypass4: 203.0.113.7\r\n", true},
      {"[2026-01-02 03:04:05] SplitTunnelV1: Update WFP bypass IP = 203.0.113.7\r\n", true},
      {"  bypass4: 203.0.113.7/24\r\n", true},
      {"  bypass4:  203.0.113.7 \t/ 24\r\n", true},
      {"  bypass4: caf[2026-01-02 03:04:05]   bypass4: 203.0.113.7\r\n", true},  // the first was cut off
      {"  bypass4: 203.0.113.7[2026-01-02 03:04:05] \r\n", false},               // and so is no address
      {"  bypass4: 203.0.113\r\n", false},
      {"  bypass4: 203.0.113.7.7\r\n", false},
      {"  bypass4: 203.0.113.263\r\n", false},
      {"  bypass4: 203.0.113.\r\n", false},
      {"  bypass4: +203.0.113.7\r\n", false},
      {"  bypass4: \r\n", false},
      {"  bypass4: 203.0.113.7", false},  // more of it may be to come
      {"    ip: 203.0.113.7\r\n", false},
      {"AddRouteV4_32: invalid ip=203.0.113.7\r\n", false},
  };
  for (const Row& row : rows)
    EXPECT_EQ(Logged(row.line).addresses.contains(kBypassed), row.tells) << row.line;
}

TEST(LoggedAddresses, AreFoundWhereverThePiecesOfTheLogPart) {
  const std::string log = "one\r\n  bypass4: 203.0.113.7\r\n  bypass4: 203.0.113.8\r\ntwo";
  for (size_t at = 0; at <= log.size(); ++at) {
    LoggedAddresses logged = Logged(log.substr(0, at));
    telvorctl::TakeLogPiece(log.substr(at), logged);
    EXPECT_EQ(logged.addresses, (std::set<uint32_t>{kBypassed, kAnother})) << at;
  }
}

TEST(LoggedAddresses, AreFoundBehindWhateverLiesInTheLog) {
  LoggedAddresses logged;
  const std::string noLineEnd(100000, 'x');
  for (int i = 0; i < 100; ++i) {
    telvorctl::TakeLogPiece(noLineEnd, logged);
    EXPECT_LE(logged.rest.size(), 4096u);
  }
  telvorctl::TakeLogPiece("  bypass4: 203.0.113.7\r\n", logged);
  EXPECT_EQ(logged.addresses, std::set<uint32_t>{kBypassed});
}

}  // namespace
