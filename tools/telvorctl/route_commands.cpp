#include "telvorctl/route_commands.h"

#include <string>
#include <vector>

#include "telvorctl/conclusion.h"
#include "telvorctl/left_routes.h"
#include "telvorctl/machine.h"
#include "telvorctl/machine_text.h"
#include "telvorctl/platform.h"
#include "telvorctl/service_client.h"
#include "telvorctl/terminal.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

// The routes of a tunnel that is up, or on its way up, are in use. Behind an error the next attempt may be on
// its way already, and would bring back what was removed.
ExitCode ExpectNoTunnel() {
  const Reply reply = Ask("GetState");
  if (reply.code == kNotThere) return kDone;
  if (reply.code != kDone) return Conclude(reply);
  const std::string state = TextMember(reply.result, "state");
  if (state == "connected" || state == "connecting")
    Complain("the tunnel is " + state + ", its routes are in use; first: telvorctl disconnect");
  else if (state == "error")
    Complain("the service may go on connecting; first: telvorctl disconnect");
  else
    return kDone;
  return kFailed;
}

ExitCode Fail(const std::string& what, uint32_t error) {
  Complain(what + ": " + ErrorText(error));
  return kFailed;
}

struct LeftRoute {
  platform::Route route;
  bool removed = false;
};

ExitCode FindLeftRoutes(std::vector<LeftRoute>& left) {
  LoggedAddresses logged;
  const uint32_t logError =
      platform::ReadFileInPieces(LogPath(), [&](std::string_view piece) { TakeLogPiece(piece, logged); });
  if (logError != platform::kErrorSuccess)
    return Fail(LogPath() + ", which alone tells the service's routes from others", logError);
  const platform::RouteTable table = platform::ListRoutes();
  if (table.error != platform::kErrorSuccess) return Fail("the routes", table.error);
  for (const platform::Route& route : RoutesOfService(table.routes, logged)) left.push_back({route});
  return kDone;
}

// The error of the last one that stays.
uint32_t Remove(std::vector<LeftRoute>& left) {
  uint32_t last = platform::kErrorSuccess;
  for (LeftRoute& each : left) {
    const uint32_t error = platform::RemoveRoute(each.route);
    each.removed = error == platform::kErrorSuccess || error == platform::kErrorNotFound;
    if (!each.removed) last = error;
  }
  return last;
}

void TellAsJson(const std::vector<LeftRoute>& left) {
  Json routes = Json::array();
  for (const auto& [route, removed] : left) {
    routes.push_back({{"destination", AddressText(route.destination)},
                      {"next_hop", AddressText(route.nextHop)},
                      {"interface_index", route.adapterIndex},
                      {"removed", removed}});
  }
  SayJson({{"routes", routes}});
}

void Tell(const std::vector<LeftRoute>& left) {
  std::vector<std::vector<std::string>> rows = {{"DESTINATION", "BY", "INDEX", "IS NOW"}};
  for (const auto& [route, removed] : left) {
    rows.push_back({AddressText(route.destination) + "/32", AddressText(route.nextHop),
                    std::to_string(route.adapterIndex), removed ? "removed" : "there"});
  }
  SayAll(left.empty() ? std::vector<std::string>{"The service has left no route."} : TableLines(rows));
}

}  // namespace

ExitCode ShowLeftRoutes(const Options& options) {
  std::vector<LeftRoute> left;
  ExitCode code = ExpectNoTunnel();
  if (code == kDone) code = FindLeftRoutes(left);
  if (code != kDone) return code;
  const uint32_t error = options.remove ? Remove(left) : platform::kErrorSuccess;
  options.json ? TellAsJson(left) : Tell(left);
  return error == platform::kErrorSuccess ? kDone : Fail("not every route could be removed", error);
}

}  // namespace telvorctl
