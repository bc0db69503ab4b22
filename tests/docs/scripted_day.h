// One day of the service on the simulated machine, from its start to its stop: logged out and in, every
// method with success and with its typical failure, a connection, trouble. The reference pages quote what it
// wrote down.
#pragma once

#include <string>
#include <vector>

struct PipeExchange {
  std::string method;  // empty for a line without one
  std::string sent;    // the line, without its line feed
  std::string reply;   // without its line feed; all of it
};

struct HttpExchange {
  std::string request;            // "VERB path"
  std::vector<std::string> text;  // as it stands in a page's example: "-> " sent, "<- " answered
};

struct ScriptedDay {
  std::vector<PipeExchange> pipe;
  std::vector<HttpExchange> http;
  std::vector<std::string> log;          // without time stamps
  std::vector<std::string> files;        // full paths of all that it made, sorted
  std::vector<std::string> filterNames;  // in force while connected
};

// Lived once, at the first call.
const ScriptedDay& TheDay();
