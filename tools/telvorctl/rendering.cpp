#include "telvorctl/rendering.h"

#include "telvorctl/service_client.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

using Rows = std::vector<std::vector<std::string>>;

std::string TrafficText(uint64_t now, uint64_t before, uint64_t elapsedMs) {
  // A tunnel that was restarted counts from 0 again.
  if (elapsedMs == 0 || now < before) return SizeText(now);
  return SizeText(now) + " (" + SizeText((now - before) * 1000 / elapsedMs) + "/s)";
}

std::string AccountText(const Json& status) {
  return TextMember(status, "auth_state") == "AUTH_OK" ? "logged in" : "login needed";
}

// As wide as the longest label of the status and of the device together.
constexpr size_t kLabelColumns = 10;

std::vector<std::string> LabelledLines(Rows rows) {
  for (auto& row : rows) row.front() = FitColumns(row.front(), kLabelColumns, true);
  return TableLines(rows);
}

void AddUnlessEmpty(Rows& rows, const char* label, const std::string& text) {
  if (!text.empty()) rows.push_back({label, text});
}

const char* YesOrNo(bool value) {
  return value ? "yes" : "no";
}

// The service tells nobody whether it still tries to connect. Between two tries that fail for want of a login
// it shows what it also shows after a disconnect and after a logout.
std::string DoubtText(const Json& status) {
  const std::string error = TextMember(status, "last_error");
  const bool lacksLogin = error == "AUTH_REQUIRED" || error == "SESSION_EXPIRED";
  if (TextMember(status, "tunnel_status") != "DISCONNECTED" || !lacksLogin) return {};
  return "an earlier connect may still be waiting for a login; telvorctl disconnect ends it";
}

}  // namespace

std::string ServerText(const Json& server) {
  std::string text = TextMember(server, "city");
  if (text.empty()) text = TextMember(server, "name");
  const std::string country = TextMember(server, "country");
  if (!text.empty() && !country.empty()) text += ", ";
  text += country;
  const std::string id = TextMember(server, "id");
  return text.empty() ? id : text + " (" + id + ")";
}

bool IsTunnelUp(const Json& state) {
  return TextMember(state, "state") == "connected";
}

std::string ChosenServerText(const Json& status) {
  const Json& server = Member(status, "selected_server");
  return server.is_object() ? ServerText(server) : TextMember(status, "selected_server_id");
}

std::vector<std::string> StatusLines(const Json& status, const TrafficSample& earlier, uint64_t tick) {
  const uint64_t elapsed = earlier.tick == 0 ? 0 : tick - earlier.tick;
  const std::string chosen = ChosenServerText(status);
  Rows rows = {
      {"Tunnel", TextMember(status, "tunnel_status") + " (" + TextMember(status, "protocol") + ")"},
      {"Chosen", chosen.empty() ? "no location" : chosen},
  };
  // What the catalogue says of the chosen server: the tunnel may be down, or lead elsewhere.
  AddUnlessEmpty(rows, "Its IP", TextMember(status, "public_ip"));
  rows.push_back({"Received", TrafficText(NumberMember(status, "rx_bytes"), earlier.received, elapsed)});
  rows.push_back({"Sent", TrafficText(NumberMember(status, "tx_bytes"), earlier.sent, elapsed)});
  rows.push_back({"Account", AccountText(status)});
  const std::string error = TextMember(status, "last_error");
  AddUnlessEmpty(rows, "Last error", error.empty() ? error : Explained(error));
  AddUnlessEmpty(rows, "Note", DoubtText(status));
  return LabelledLines(std::move(rows));
}

std::vector<std::string> DeviceLines(const Json& state) {
  Rows rows;
  AddUnlessEmpty(rows, "Device id", TextMember(state, "deviceId"));
  AddUnlessEmpty(rows, "Public key", TextMember(state, "wgPublicKey"));
  return LabelledLines(std::move(rows));
}

std::string BriefState(const Json& state) {
  std::string line = TextMember(state, "state") + ", received " + SizeText(NumberMember(state, "rxBytes")) +
                     ", sent " + SizeText(NumberMember(state, "txBytes"));
  const std::string error = TextMember(state, "lastError");
  return error.empty() ? line : line + ", last error: " + Explained(error);
}

std::vector<std::string> LocationLines(const Json& locations) {
  Rows rows = {{"", "ID", "CITY", "COUNTRY", "NAME", "ONLINE", "LAST SEEN"}};
  const std::string selected = TextMember(locations, "selected_server_id");
  for (const Json& server : Member(locations, "servers")) {
    const std::string id = TextMember(server, "id");
    rows.push_back({id == selected ? "*" : "", id, TextMember(server, "city"), TextMember(server, "country"),
                    TextMember(server, "name"), YesOrNo(TruthMember(server, "online")),
                    TextMember(server, "last_seen_at")});
  }
  return TableLines(rows);
}

std::vector<std::string> EntitlementLines(const Json& entitlement) {
  Rows rows = {{"Paid", YesOrNo(TruthMember(entitlement, "payment_current"))}};
  AddUnlessEmpty(rows, "Status", TextMember(entitlement, "status"));
  AddUnlessEmpty(rows, "Until", TextMember(entitlement, "period_end"));
  return TableLines(rows);
}

}  // namespace telvorctl
