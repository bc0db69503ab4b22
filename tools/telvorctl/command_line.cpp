#include "telvorctl/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <sstream>

#include "telvorctl/account_commands.h"
#include "telvorctl/location_commands.h"
#include "telvorctl/log_commands.h"
#include "telvorctl/options.h"
#include "telvorctl/platform.h"
#include "telvorctl/route_commands.h"
#include "telvorctl/support_commands.h"
#include "telvorctl/terminal.h"
#include "telvorctl/text.h"
#include "telvorctl/tunnel_commands.h"

namespace telvorctl {

namespace {

constexpr uint32_t kLongestWait = 3600;  // seconds
constexpr size_t kNameColumns = 15;
constexpr size_t kCommandColumns = 39;
constexpr size_t kOptionColumns = 26;

struct Command {
  const char* name;
  const char* summary;                              // fits into the list of all commands
  void (*define)(CLI::App& app, Options& options);  // what it takes beside --json and --help
  ExitCode (*run)(const Options& options);
};

void TakeNothing(CLI::App& /*app*/, Options& /*options*/) {}

void TakeBrief(CLI::App& app, Options& options) {
  app.add_flag("--brief", options.brief, "one line, asked for without the network");
}

void TakeWait(CLI::App& app, Options& options) {
  app.add_flag("--no-wait", options.noWait, "only ask the service for it");
  app.add_option("--timeout", options.timeoutSeconds, "how long to wait, in seconds (60)")
      ->type_name("S")
      ->check(CLI::Range(1u, kLongestWait));
}

void TakeInterval(CLI::App& app, Options& options) {
  app.add_option("--interval", options.intervalSeconds, "seconds between two looks (2)")
      ->type_name("S")
      ->check(CLI::Range(1u, kLongestWait));
}

void TakeEmail(CLI::App& app, Options& options) {
  app.add_option("EMAIL", options.email, "the account's email")->type_name("")->required();
}

void TakeCredentials(CLI::App& app, Options& options) {
  TakeEmail(app, options);
  app.add_flag("--password-stdin", options.passwordFromInput, "read the password from the standard input");
  app.footer(
      "The password is asked for and not shown; it is never given as an argument.\n"
      "A script hands it over with --password-stdin, as the first line of the input.");
}

void TakeReset(CLI::App& app, Options& options) {
  TakeEmail(app, options);
  app.footer("Sends a code by mail, then asks for it and for the new password.");
}

void TakeResetConfirmation(CLI::App& app, Options& options) {
  TakeEmail(app, options);
  app.add_option("--request-id", options.requestId, "what reset-start has told")->type_name("ID")->required();
  app.add_flag("--password-stdin", options.passwordFromInput, "read code and new password, a line each");
}

void TakePlace(CLI::App& app, Options& options) {
  app.add_option("PLACE", options.place, "a location's id, or its city if that is enough")
      ->type_name("")
      ->required();
  app.footer(
      "An id is taken as telvorctl locations shows it; a city or a name in capitals or\n"
      "not, but whole, and only if no other location has it. No country, and nothing\n"
      "shortened.");
}

void TakeLogOptions(CLI::App& app, Options& options) {
  app.add_option("-n,--lines", options.lines, "how many of the last lines (200; 10 with -f)")
      ->type_name("N")
      ->check(CLI::Range(1u, kMostLogLines));
  app.add_flag("-f,--follow", options.follow, "go on with what is added, until Ctrl+C");
  app.add_flag("--recent", options.recent, "the short view: 120 lines unless told");
}

void TakeLine(CLI::App& app, Options& options) {
  app.add_option("LINE", options.line, R"(such as {"id":1,"method":"GetState"})")->type_name("")->required();
}

void TakeReportFile(CLI::App& app, Options& options) {
  app.add_option("FILE", options.file, "a new file for it; else it goes to the output")->type_name("");
  app.footer(
      "Versions, states, markers, files by name and size, adapters, routes, the end of\n"
      "the log. Passwords, tokens, keys and email addresses are taken out; names of\n"
      "this computer and its networks stay. Read it before you give it away.");
}

void TakeRemove(CLI::App& app, Options& options) {
  app.add_flag("--remove", options.remove, "remove them; from an elevated prompt");
  app.footer(
      "Routes of addresses that bypass the tunnel stay when the service was killed\n"
      "and when a connect failed. The service's are those whose address its log\n"
      "tells; other routes are left alone.");
}

constexpr Command kCommands[] = {
    {"status", "tunnel and account", TakeBrief, ShowStatus},
    {"watch", "the status, redrawn", TakeInterval, WatchStatus},
    {"connect", "bring the tunnel up", TakeWait, Connect},
    {"disconnect", "take it down", TakeWait, Disconnect},
    {"locations", "servers to choose from", TakeNothing, ShowLocations},
    {"select", "choose one of them", TakePlace, SelectLocation},
    {"login", "log in by email", TakeCredentials, LogIn},
    {"logout", "forget the session", TakeNothing, LogOut},
    {"register", "create an account", TakeCredentials, Register},
    {"registered", "is there an account?", TakeEmail, IsRegistered},
    {"reset", "set a new password", TakeReset, ResetPassword},
    {"reset-start", "reset for scripts, 1", TakeEmail, StartReset},
    {"reset-confirm", "reset for scripts, 2", TakeResetConfirmation, ConfirmReset},
    {"entitlement", "what is paid for", TakeNothing, ShowEntitlement},
    {"quota", "is the quota current?", TakeNothing, ShowQuota},
    {"checkout", "a link to pay by", TakeNothing, ShowCheckoutLink},
    {"account-page", "a link to the account", TakeNothing, ShowAccountPageLink},
    {"logs", "the service's log", TakeLogOptions, ShowLogs},
    {"request", "send a raw line", TakeLine, SendRequest},
    {"routes", "routes left behind", TakeRemove, ShowLeftRoutes},
    {"support", "a report for support", TakeReportFile, ReportForSupport},
    {"stop", "stop the service", TakeNothing, StopService},
};

constexpr char kHelpBegin[] =
    "Drives the TELVOR VPN service.\n"
    "\n"
    "Usage: telvorctl COMMAND [OPTIONS]       More: telvorctl COMMAND --help\n"
    "\n";
constexpr char kHelpEnd[] =
    "\n"
    "  --json         the service's result as one line of JSON, for scripts\n"
    "  --version      the version       -h, --help     this text\n"
    "\n"
    "Exit codes: 0 done, 1 refused or failed, 2 wrong usage, 3 the service is not\n"
    "there, 4 it is busy, 5 timed out, 6 login needed, 130 interrupted (Ctrl+C)\n";

std::string ListEntry(const Command& command) {
  return FitColumns("  " + FitColumns(command.name, kNameColumns, true) + command.summary, kCommandColumns,
                    true);
}

// The commands in two columns, to be read downwards.
std::string ProgramHelp() {
  constexpr size_t kRows = (std::size(kCommands) + 1) / 2;
  std::string text = kHelpBegin;
  for (size_t i = 0; i < kRows; ++i) {
    std::string line = ListEntry(kCommands[i]);
    if (i + kRows < std::size(kCommands)) line += ListEntry(kCommands[i + kRows]);
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text + kHelpEnd;
}

void DefineJson(CLI::App& app, Options& options) {
  app.add_flag("--json", options.json, "the service's result as one line of JSON");
}

void DefineProgram(CLI::App& app, Options& options) {
  app.name("telvorctl");
  app.set_version_flag("--version", "telvorctl " TELVOR_VERSION, "the version");
  app.get_formatter()->column_width(kOptionColumns);
  app.get_formatter()->label("REQUIRED", "");
  DefineJson(app, options);
  for (const Command& command : kCommands) {
    CLI::App* const word = app.add_subcommand(command.name, command.summary);
    word->set_help_flag("-h,--help", "this text");
    command.define(*word, options);
    DefineJson(*word, options);
  }
}

// Points at the help of the command that was meant, as far as one was.
ExitCode TellWrongUsage(const CLI::App& app, const std::string& text) {
  const std::vector<CLI::App*> commands = app.get_subcommands();
  Complain(text);
  Complain("see telvorctl " + (commands.empty() ? "" : commands.front()->get_name() + " ") + "--help");
  return kWrongUsage;
}

// Names no argument but the first, and no option's value: a password that someone took for one must not be
// shown.
std::string ExtraArguments(const CLI::App& app) {
  if (!app.get_subcommands().empty()) return "the command does not take all of these arguments";
  const std::string first = app.remaining().front();
  return first.starts_with('-') ? "there is no option " + first.substr(0, first.find('='))
                                : "there is no command " + first;
}

// The help, the version, or what is wrong with the command line.
ExitCode TellOfParsing(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() != 0) return TellWrongUsage(app, error.what());
  const bool ofProgram = app.get_subcommands().empty() && app.get_help_ptr()->count() > 0;
  std::ostringstream help;
  app.exit(error, help);
  platform::Write(platform::Stream::kOutput, ofProgram ? ProgramHelp() : help.str());
  return kDone;
}

}  // namespace

ExitCode RunCommandLine(std::vector<std::string> arguments) {
  Options options;
  CLI::App app;
  DefineProgram(app, options);
  std::reverse(arguments.begin(), arguments.end());  // as CLI11 wants it
  try {
    app.parse(arguments);
  } catch (const CLI::ExtrasError&) {
    return TellWrongUsage(app, ExtraArguments(app));
  } catch (const CLI::ConversionError&) {
    return TellWrongUsage(app, "an option has a value that it does not take");
  } catch (const CLI::ParseError& error) {
    return TellOfParsing(app, error);
  }
  if (app.get_subcommands().empty()) {
    platform::Write(platform::Stream::kErrors, ProgramHelp());
    return kWrongUsage;
  }
  const std::string name = app.get_subcommands().front()->get_name();
  const auto* const command = std::find_if(std::begin(kCommands), std::end(kCommands),
                                           [&](const Command& candidate) { return name == candidate.name; });
  return command->run(options);
}

}  // namespace telvorctl
