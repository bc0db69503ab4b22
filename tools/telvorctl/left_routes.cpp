#include "telvorctl/left_routes.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>

namespace telvorctl {

namespace {

// Behind these stands an entry of what bypasses the tunnel: before its route is made, and with each refresh.
constexpr std::string_view kMarks[] = {"  bypass4: ", "SplitTunnelV1: Update WFP bypass IP = "};
constexpr uint32_t kMetric = 5;
constexpr uint8_t kWholeAddress = 32;
constexpr size_t kLongestEnd = 4096;  // of a line, that is waited for: what is told stands at a line's end

// "198.18.4.10", "198.18.4.10/24" and " 198.18.4.10 " are the same to the service.
std::string_view Cleaned(std::string_view entry) {
  entry = entry.substr(0, entry.find('/'));
  const size_t begin = entry.find_first_not_of(" \t\v\f\r");
  if (begin == std::string_view::npos) return {};
  return entry.substr(begin, entry.find_last_not_of(" \t\v\f\r") + 1 - begin);
}

std::optional<uint32_t> AddressOf(std::string_view text) {
  uint32_t address = 0;
  const char* at = text.data();
  const char* const end = at + text.size();
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && (at == end || *at++ != '.')) return {};
    uint8_t number = 0;
    const auto [next, error] = std::from_chars(at, end, number);
    if (error != std::errc()) return {};
    address |= uint32_t{number} << (8 * i);
    at = next;
  }
  return at == end ? std::optional(address) : std::nullopt;
}

// A line that was cut off has the next one in it: a mark may stand anywhere.
void TakeLine(std::string_view line, LoggedAddresses& logged) {
  for (const std::string_view mark : kMarks) {
    for (size_t at = line.find(mark); at != std::string_view::npos; at = line.find(mark, at)) {
      at += mark.size();
      if (const auto address = AddressOf(Cleaned(line.substr(at)))) logged.addresses.insert(*address);
    }
  }
}

}  // namespace

void TakeLogPiece(std::string_view piece, LoggedAddresses& logged) {
  logged.rest += piece;
  std::string_view left = logged.rest;
  for (size_t end = left.find('\n'); end != std::string_view::npos; end = left.find('\n')) {
    TakeLine(left.substr(0, end), logged);
    left.remove_prefix(end + 1);
  }
  logged.rest = left.substr(left.size() - std::min(left.size(), kLongestEnd));
}

std::vector<platform::Route> RoutesOfService(const std::vector<platform::Route>& routes,
                                             const LoggedAddresses& logged) {
  std::vector<platform::Route> found;
  std::copy_if(routes.begin(), routes.end(), std::back_inserter(found), [&](const platform::Route& route) {
    return route.prefixLength == kWholeAddress && route.metric == kMetric && route.nextHop != 0 &&
           route.protocol == platform::kMadeByHand && logged.addresses.contains(route.destination);
  });
  return found;
}

}  // namespace telvorctl
