// The list of servers, from the control plane's answer to the user interface.
#include "controlplane/catalogue.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "controlplane/server_list.h"
#include "fuzz/naive_json.h"
#include "fuzz/target.h"
#include "ipc/server_view.h"
#include "sim/http.h"
#include "sim/kernel.h"

namespace fuzz {
namespace {

constexpr char kSpaces[] = " \t\n\v\f\r";

size_t SkipSpaces(const std::string& text, size_t at) {
  while (at < text.size() && std::string(kSpaces).find(text[at]) != kNowhere) ++at;
  return at;
}

// The object at the front of the text; empty if it does not end.
std::string NaiveObject(const std::string& text) {
  int depth = 0;
  char mode = ' ';  // '"': inside a string; '\\': behind its backslash
  for (size_t at = 0; at < text.size(); ++at) {
    const char byte = text[at];
    if (mode == '\\') {
      mode = '"';
    } else if (mode == '"') {
      mode = byte == '"' ? ' ' : byte == '\\' ? '\\' : '"';
    } else {
      if (byte == '"') mode = '"';
      depth += byte == '{' ? 1 : byte == '}' ? -1 : 0;
      if (depth == 0) return text.substr(0, at + 1);
    }
  }
  return "";
}

std::optional<std::vector<std::string>> NaiveObjects(const std::string& body) {
  const size_t key = body.find("\"servers\":");
  if (key == kNowhere) return std::nullopt;
  size_t at = SkipSpaces(body, key + 10);
  if (at >= body.size() || body[at] != '[' || at + 1 == body.size()) return std::nullopt;
  std::vector<std::string> objects;
  for (at = SkipSpaces(body, at + 1); at < body.size() && body[at] == '{'; at = SkipSpaces(body, at)) {
    objects.push_back(NaiveObject(body.substr(at)));
    if (objects.back().empty()) return std::nullopt;
    at = SkipSpaces(body, at + objects.back().size());
    if (at < body.size() && body[at] == ',') ++at;
  }
  if (at >= body.size() || body[at] != ']') return std::nullopt;
  return objects;
}

// A number as it stands, without exponent. None when it is out of range.
std::optional<double> NaiveNumber(const std::string& object, const std::string& key) {
  const std::string pattern = '"' + key + "\":";
  size_t at = object.find(pattern);
  if (at == kNowhere) return std::nullopt;
  at += pattern.size();
  while (at < object.size() && std::string(" \t\r\n").find(object[at]) != kNowhere) ++at;
  std::string token;
  bool point = false;
  size_t digits = 0;
  for (; at < object.size(); ++at) {
    const char byte = object[at];
    const bool digit = byte >= '0' && byte <= '9';
    if (!digit && !(token.empty() && (byte == '-' || byte == '+')) && !(byte == '.' && !point)) break;
    point = point || byte == '.';
    digits += digit ? 1 : 0;
    token += byte;
  }
  if (digits == 0) return std::nullopt;
  std::string behind = object.substr(at);
  behind = behind.substr(0, behind.find_first_not_of("eE+-0123456789"));
  errno = 0;
  static_cast<void>(std::strtod((token + behind).c_str(), nullptr));
  if (errno == ERANGE) return std::nullopt;
  errno = 0;
  const double number = std::strtod(token.c_str(), nullptr);
  if (errno == ERANGE) return std::nullopt;
  return number;
}

std::vector<std::string> HoldScanners(const std::string& body) {
  std::vector<std::string_view> views{"left over"};
  const auto expected = NaiveObjects(body);
  Require(ExtractServersArrayObjects(body, views) == expected.has_value(), "ExtractServersArrayObjects says");
  double number = 0.5;
  const auto latitude = NaiveNumber(body, "latitude");
  Require(ExtractJsonNumberField(body, "latitude", number) == latitude.has_value(), "ExtractJsonNumberField");
  Require(number == latitude.value_or(0.5) && std::isfinite(number), "ExtractJsonNumberField reads");
  if (!expected) return {};
  Require(std::vector<std::string>(views.begin(), views.end()) == *expected, "ExtractServersArrayObjects");
  return *expected;
}

}  // namespace

void RunCatalogue(const std::string& bytes) {
  const std::vector<std::string> objects = HoldScanners(bytes);
  const sim::Machine machine;
  sim::UseControlPlane().locationsBody = bytes;
  gCachedAccessToken = L"access-1";
  std::vector<ServerRecord> servers(1);
  const bool fetched = CpGetServerLocations(L"https://cp.telvor.test", servers);
  Require(fetched == NaiveObjects(bytes).has_value(), "CpGetServerLocations says");
  std::vector<ServerRecord> kept;
  for (const std::string& object : objects) {
    const auto id = NaiveString(object, "server_id");
    if (!id || id->empty()) continue;
    Require(kept.size() < servers.size() && servers[kept.size()].id == *id, "records stay in their order");
    kept.push_back(servers[kept.size()]);
    Require(kept.back().latitude == NaiveNumber(object, "latitude").value_or(0.0), "latitude");
    Require(kept.back().online == NaiveBool(object, "online").value_or(false), "online");
    Require(kept.back().last_seen_at == NaiveString(object, "last_seen_at").value_or(""), "last_seen_at");
  }
  Require(kept.size() == servers.size(), "records without an id are dropped");
  Require(IsJson(LocationsToJson(servers, bytes)), "what the user interface gets is JSON");
}

}  // namespace fuzz
