// The command line itself: help that fits a screen, versions, wrong usage.
#include <sstream>

#include "telvorctl/text.h"
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;

const std::vector<std::string> kCommands = {
    "status",  "watch",         "connect",  "disconnect", "locations",   "select",
    "login",   "logout",        "register", "registered", "reset",       "reset-start",
    "quota",   "reset-confirm", "checkout", "logs",       "entitlement", "account-page",
    "request", "support",       "stop",     "routes",
};

void ExpectFitsAScreen(const std::string& text) {
  std::istringstream lines(text);
  size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count) EXPECT_LE(telvorctl::Columns(line), 79u) << line;
  EXPECT_LE(count, 23u) << text;  // a line is left for the prompt
  EXPECT_GE(count, 4u) << text;
}

TEST_F(Telvorctl, HelpNamesEveryCommandAndFitsAScreen) {
  EXPECT_EQ(Run({"--help"}), 0);
  ExpectFitsAScreen(gScript.output);
  for (const std::string& command : kCommands) {
    EXPECT_NE(gScript.output.find("  " + command + " "), std::string::npos) << command;
  }
  EXPECT_EQ(gScript.errors, "");
}

TEST_F(Telvorctl, HelpTellsTheExitCodes) {
  EXPECT_EQ(Run({"-h"}), 0);
  for (const char* code : {"0 done", "1 refused or failed", "2 wrong usage", "3 the service is not",
                           "4 it is busy", "5 timed out", "6 login needed", "130 interrupted"}) {
    EXPECT_NE(gScript.output.find(code), std::string::npos) << code;
  }
}

TEST_F(Telvorctl, HelpOfEveryCommandFitsAScreen) {
  for (const std::string& command : kCommands) {
    gScript.output.clear();
    EXPECT_EQ(Run({command, "--help"}), 0);
    ExpectFitsAScreen(gScript.output);
    EXPECT_NE(gScript.output.find("Usage: telvorctl " + command), std::string::npos) << gScript.output;
    EXPECT_NE(gScript.output.find("--json"), std::string::npos) << gScript.output;
  }
}

TEST_F(Telvorctl, Version) {
  EXPECT_EQ(Run({"--version"}), 0);
  EXPECT_EQ(gScript.output, "telvorctl 1.0.0\n");
}

TEST_F(Telvorctl, WithoutACommandThereIsHelp) {
  EXPECT_EQ(Run({}), 2);
  EXPECT_NE(gScript.errors.find("Usage: telvorctl COMMAND"), std::string::npos);
  EXPECT_EQ(gScript.output, "");
}

TEST_F(Telvorctl, WrongUsageIsToldAndNothingIsAsked) {
  struct Row {
    std::vector<std::string> arguments;
    const char* complaint;
    const char* help;
  };
  const Row rows[] = {
      {{"conect"}, "there is no command conect", "telvorctl --help"},
      {{"--bogus"}, "there is no option --bogus", "telvorctl --help"},
      {{"--password=hunter2"}, "there is no option --password", "telvorctl --help"},
      {{"status", "now"}, "the command does not take all of these arguments", "telvorctl status --help"},
      {{"watch", "--bogus"}, "the command does not take all of these arguments", "telvorctl watch --help"},
      {{"login"}, "EMAIL is required", "telvorctl login --help"},
      {{"select"}, "PLACE is required", "telvorctl select --help"},
      {{"request"}, "LINE is required", "telvorctl request --help"},
      {{"reset-confirm", "a@x"}, "--request-id is required", "telvorctl reset-confirm --help"},
      {{"connect", "--timeout", "0"},
       "--timeout: Value 0 not in range 1 to 3600",
       "telvorctl connect --help"},
      {{"connect", "--timeout", "soon"},
       "--timeout: Value soon not in range 1 to 3600",
       "telvorctl connect --help"},
      {{"watch", "--interval", "3601"},
       "--interval: Value 3601 not in range 1 to 3600",
       "telvorctl watch --help"},
      {{"support", "a", "b"}, "the command does not take all of these arguments", "telvorctl support --help"},
      {{"logs", "-n", "2001"}, "--lines: Value 2001 not in range 1 to 2000", "telvorctl logs --help"},
  };
  for (const Row& row : rows) {
    gScript.errors.clear();
    EXPECT_EQ(Run(row.arguments), 2);
    EXPECT_EQ(gScript.errors,
              std::string("telvorctl: ") + row.complaint + "\ntelvorctl: see " + row.help + "\n");
  }
  EXPECT_EQ(gScript.output, "");
}

TEST_F(Telvorctl, HelpOfSelectTellsWhatIsTakenForALocation) {
  EXPECT_EQ(Run({"select", "--help"}), 0);
  EXPECT_NE(gScript.output.find("An id is taken as telvorctl locations shows it"), std::string::npos)
      << gScript.output;
  EXPECT_NE(gScript.output.find("No country, and nothing\nshortened."), std::string::npos) << gScript.output;
}

TEST_F(Telvorctl, HelpOfALoginShowsScriptsTheirWay) {
  for (const char* command : {"login", "register"}) {
    gScript.output.clear();
    EXPECT_EQ(Run({command, "--help"}), 0);
    EXPECT_NE(gScript.output.find("A script hands it over with --password-stdin"), std::string::npos)
        << gScript.output;
  }
}

// Someone who takes the password for an argument must not find it on the screen and in a script's log.
TEST_F(Telvorctl, AnArgumentTooManyIsNotRepeated) {
  const std::vector<std::string> wrong[] = {{"login", "a@x", "hunter2"},
                                            {"login", "a@x", "--password", "hunter2"},
                                            {"login", "a@x", "--password-stdin=hunter2"}};
  for (const std::vector<std::string>& arguments : wrong) {
    EXPECT_EQ(Run(arguments), 2);
  }
  EXPECT_EQ(gScript.errors.find("hunter2"), std::string::npos) << gScript.errors;
}

}  // namespace
