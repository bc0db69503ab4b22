#include "ipc/server_view.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "controlplane/text.h"
#include "ipc/platform.h"
#include "ipc/replies.h"

namespace {

constexpr int64_t kOnlineSeconds = 26;  // a server seen less than so many seconds ago is online
constexpr std::string_view kDateTimeShape = "dddd-dd-ddTdd:dd:dd";

bool IsDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

bool HasShape(std::string_view text) {
  if (text.size() < kDateTimeShape.size()) return false;
  for (size_t i = 0; i < kDateTimeShape.size(); ++i) {
    const char shape = kDateTimeShape[i];
    const bool fits = shape == 'd'   ? IsDigit(text[i])
                      : shape == 'T' ? text[i] == 'T' || text[i] == ' '
                                     : text[i] == shape;
    if (!fits) return false;
  }
  return true;
}

int Number(std::string_view digits) {
  int number = 0;
  for (const char byte : digits) number = number * 10 + (byte - '0');
  return number;
}

// Takes "Z" or "+hh:mm" (the colon may be missing) off the front of `text`.
bool TakeOffset(std::string_view& text, int64_t& seconds) {
  const char sign = text.front();
  text.remove_prefix(1);
  if (sign == 'Z' || sign == 'z') return true;
  if (sign != '+' && sign != '-') return false;
  if (text.size() < 2 || !IsDigit(text[0]) || !IsDigit(text[1])) return false;
  const int hours = Number(text.substr(0, 2));
  text.remove_prefix(2);
  if (text.starts_with(':')) text.remove_prefix(1);
  if (text.size() < 2 || !IsDigit(text[0]) || !IsDigit(text[1])) return false;
  const int minutes = Number(text.substr(0, 2));
  text.remove_prefix(2);
  seconds = (hours * 60 + minutes) * int64_t{60};
  if (sign == '-') seconds = -seconds;
  return true;
}

bool IsOnline(const ServerRecord& server) {
  int64_t seen = 0;
  if (!ParseIso8601Utc(server.last_seen_at, seen)) return server.online;
  return std::max<int64_t>(platform::Time64() - seen, 0) < kOnlineSeconds;
}

}  // namespace

std::string ServerToJson(const ServerRecord& server) {
  return "{\"id\":" + JsonQuote(server.id) + ",\"name\":" + JsonQuote(server.name) +
         ",\"country\":" + JsonQuote(server.country) + ",\"city\":" + JsonQuote(server.city) +
         ",\"lat\":" + std::to_string(server.latitude) + ",\"lon\":" + std::to_string(server.longitude) +
         ",\"online\":" + JsonWord(IsOnline(server)) +
         ",\"last_seen_at\":" + JsonQuoteOrNull(server.last_seen_at) + "}";
}

std::string LocationsToJson(const std::vector<ServerRecord>& servers, const std::string& selectedServerId) {
  std::string json = "{\"servers\":[";
  for (const ServerRecord& server : servers) {
    if (&server != &servers.front()) json += ',';
    json += ServerToJson(server);
  }
  return json + "],\"selected_server_id\":" + JsonQuoteOrNull(selectedServerId) + "}";
}

bool ParseIso8601Utc(const std::string& text, int64_t& unixTime) {
  const std::string trimmed = TrimAscii(text);
  std::string_view rest = trimmed;
  if (!HasShape(rest)) return false;
  // Ranges are not checked: the platform normalises a month of 13 or a day of 45.
  const platform::BrokenDownTime time{
      .year = Number(rest.substr(0, 4)) - 1900,
      .month = Number(rest.substr(5, 2)) - 1,
      .day = Number(rest.substr(8, 2)),
      .hour = Number(rest.substr(11, 2)),
      .minute = Number(rest.substr(14, 2)),
      .second = Number(rest.substr(17, 2)),
  };
  rest.remove_prefix(kDateTimeShape.size());
  if (rest.starts_with('.')) {
    const size_t end = rest.find_first_not_of("0123456789", 1);
    rest.remove_prefix(std::min(end, rest.size()));
  }
  int64_t offset = 0;
  if (!rest.empty() && !TakeOffset(rest, offset)) return false;
  const auto isSpace = [](char byte) { return std::isspace(static_cast<unsigned char>(byte)) != 0; };
  if (!std::all_of(rest.begin(), rest.end(), isSpace)) return false;
  const int64_t seconds = platform::MkGmTime64(time);
  if (seconds < 0) return false;
  unixTime = seconds - offset;
  return true;
}
