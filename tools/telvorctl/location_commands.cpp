#include "telvorctl/location_commands.h"

#include <algorithm>
#include <string>
#include <vector>

#include "telvorctl/conclusion.h"
#include "telvorctl/rendering.h"
#include "telvorctl/service_client.h"
#include "telvorctl/terminal.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

bool HasServers(const Reply& locations) {
  return !Member(locations.result, "servers").empty();
}

// The service counts a server that was not seen for a while as offline, by this computer's clock.
bool AllAreOffline(const Json& servers) {
  return std::none_of(servers.begin(), servers.end(),
                      [](const Json& server) { return TruthMember(server, "online"); });
}

// A service that was just started shows no locations until something has made it look at its session, which
// GET /ui/status does.
Reply FetchLocations() {
  Reply locations = Ask("GET /ui/locations");
  if (locations.code != kDone || HasServers(locations)) return locations;
  Reply status = Ask("GET /ui/status");
  if (status.code != kDone) return status;
  if (TextMember(status.result, "auth_state") == "AUTH_OK") return Ask("GET /ui/locations");
  locations.code = kLoginNeeded;
  locations.message = Explained(TextMember(status.result, "last_error"));
  return locations;
}

// The servers that the place may mean: that of this id alone, else all of this city or name.
std::vector<Json> FindServers(const Json& servers, const std::string& place) {
  std::vector<Json> found;
  for (const Json& server : servers) {
    if (TextMember(server, "id") == place) return {server};
    if (EqualIgnoringCase(TextMember(server, "city"), place) ||
        EqualIgnoringCase(TextMember(server, "name"), place)) {
      found.push_back(server);
    }
  }
  return found;
}

std::string ListedIds(const std::vector<Json>& servers) {
  std::string text;
  for (const Json& server : servers) text += (text.empty() ? "" : ", ") + TextMember(server, "id");
  return text;
}

// kDone with the id and a text to call it by, and a warning if the server is offline; or a complaint was
// made.
ExitCode ChooseServer(const std::string& place, std::string& id, std::string& called) {
  const Reply locations = FetchLocations();
  if (locations.code != kDone) return Conclude(locations);
  id = called = place;
  // Without a catalogue the service takes every id, and so does this.
  if (!HasServers(locations)) return kDone;
  const std::vector<Json> found = FindServers(Member(locations.result, "servers"), place);
  if (found.size() == 1) {
    id = TextMember(found.front(), "id");
    called = ServerText(found.front());
    if (Member(found.front(), "online") == false) {
      Complain(id + " is offline; the control plane may keep the server of before");
    }
    return kDone;
  }
  Complain(found.empty() ? "there is no location " + place + "; see telvorctl locations"
                         : place + " is the name of more than one; say which: " + ListedIds(found));
  return kFailed;
}

}  // namespace

ExitCode ShowLocations(const Options& options) {
  const Reply locations = FetchLocations();
  if (locations.code == kDone && !HasServers(locations)) {
    return Finish(options, locations,
                  {"No locations: the control plane has none, or was not reached; see telvorctl logs."});
  }
  const ExitCode code = Finish(options, locations, LocationLines(locations.result));
  if (code == kDone && !options.json && AllAreOffline(Member(locations.result, "servers"))) {
    Complain(
        "all locations are shown offline: the control plane may not have been reached, or this computer's "
        "clock is wrong");
  }
  return code;
}

ExitCode SelectLocation(const Options& options) {
  std::string id;
  std::string called;
  const ExitCode chosen = ChooseServer(options.place, id, called);
  if (chosen != kDone) return chosen;
  const Reply before = Ask("GetState");
  if (before.code != kDone) return Conclude(before);
  const Reply reply = AskForTrue("POST /ui/select-location", {{"server_id", id}});
  if (reply.code != kDone) return Conclude(reply);
  // The service says true even if it could not tell the control plane: what it has selected decides.
  const Reply status = Ask("GET /ui/status");
  if (status.code != kDone) return Conclude(status);
  const std::string selected = TextMember(status.result, "selected_server_id");
  if (selected != id) {
    Complain("the service has selected " + selected + " instead; see telvorctl logs");
    return kFailed;
  }
  const std::string error = TextMember(status.result, "last_error");
  if (!error.empty()) Complain("the service reports: " + Explained(error));
  const char* const next = IsTunnelUp(before.result) ? ". The tunnel is taken down; go on" : ". Go on";
  return Finish(options, reply, {"Selected " + called + next + " with: telvorctl connect"});
}

}  // namespace telvorctl
