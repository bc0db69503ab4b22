// One question to the service and its answer: a connection of its own for each, as the service wants it.
#pragma once

#include <string>

#include "telvorctl/exit_codes.h"
#include "telvorctl/json.h"

namespace telvorctl {

struct Reply {
  ExitCode code = kDone;
  std::string message;  // for a person, if `code` is not kDone; empty after Ctrl+C
  Json result;          // as far as there is one, also if the service refused
  std::string line;     // the reply as it came, without its line feed; empty if none came whole
};

// The request line without its line feed: {"jsonrpc":"2.0","id":1,"method":"...","params":{...}}.
// `params` is left out if it is empty. All texts must be UTF-8.
std::string RequestLine(const char* method, const Json& params);

// Sends a line as it stands and waits for the reply. The server has no instance to offer for a moment after
// each client, so opening is tried again for a little while.
Reply SendLine(const std::string& line);

// Takes the result out of a reply that has come whole. kFailed if it is no JSON of the expected shape, and if
// its "error" is set; the result is taken then too.
void ReadEnvelope(Reply& reply);

// Calls a method: SendLine, then ReadEnvelope.
Reply Ask(const char* method, const Json& params = Json::object());

// As Ask, for a method that says true: kFailed with any other result.
Reply AskForTrue(const char* method, const Json& params = Json::object());

// As Ask, for a method whose result holds "ok": kFailed with its message unless that is true.
Reply AskForOk(const char* method, const Json& params = Json::object());

// As AskForOk, for a method that cannot answer without a session: kLoginNeeded if that is what it lacks.
Reply AskWithSession(const char* method);

// Looks whether the service finds its session when it needs one. kLoginNeeded if it does not; any other code
// tells of something else, also of a session that can be renewed as soon as the control plane is reached.
// May ask the control plane.
Reply LookForSession();

// `text` of the service, with what to do about it added if that is known.
std::string Explained(const std::string& text);

// Whether a text of the service says that there is no usable session.
bool SpeaksOfLogin(const std::string& text);

}  // namespace telvorctl
