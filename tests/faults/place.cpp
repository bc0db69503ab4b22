#include "tests/faults/place.h"

#include <algorithm>
#include <map>

namespace faults {
namespace {

constexpr size_t kNeighboursAfter = 6;
constexpr size_t kNeighboursBefore = 2;

using Texts = std::vector<std::string>;

Texts Split(const std::string& text, const std::string& separator) {
  Texts parts;
  size_t begin = 0;
  for (size_t at = text.find(separator); at != std::string::npos; at = text.find(separator, begin)) {
    parts.push_back(text.substr(begin, at - begin));
    begin = at + separator.size();
  }
  parts.push_back(text.substr(begin));
  return parts;
}

// "=0x1a4" of every handle that stands in a text of the trace.
Texts HandlesIn(const std::string& text) {
  Texts handles;
  for (size_t at = text.find("=0x"); at != std::string::npos; at = text.find("=0x", at + 1)) {
    handles.push_back(text.substr(at, text.find(' ', at) - at));
  }
  return handles;
}

// The call writes a line of the log, or looks for the file to do so.
bool WritesTheLog(std::string_view operation, const std::string& text) {
  return operation == "GetLocalTime" || operation == "GetEnvironmentVariableW" ||
         text.find("vpnservice.log\" access=0x4 ") != std::string::npos || text.ends_with("sorvanik-vpn\"");
}

// The trace, read from its beginning to its end.
struct Reader {
  std::map<std::string, std::string> makers;      // of handles, as operation and arguments
  std::map<uint32_t, std::string> said;           // by thread
  std::map<uint32_t, std::vector<size_t>> calls;  // by thread, without the log's own
  Texts texts;                                    // of all calls
};

std::string TextOf(const Reader& reader, const sim::TraceEntry& entry) {
  std::string text = entry.arguments;
  for (const std::string& handle : HandlesIn(entry.arguments)) {
    const auto maker = reader.makers.find(handle);
    if (maker != reader.makers.end()) text += " <- " + maker->second;
  }
  return text;
}

void Read(Reader& reader, const sim::TraceEntry& entry) {
  const size_t number = reader.texts.size();
  reader.texts.push_back(TextOf(reader, entry));
  const std::string& text = reader.texts.back();
  for (const std::string& handle : HandlesIn(entry.result)) {
    reader.makers.emplace(handle, std::string(entry.operation) + " " + entry.arguments);
  }
  if (!WritesTheLog(entry.operation, text)) {
    reader.calls[entry.thread].push_back(number);
  } else if (entry.operation == "WriteFile") {
    reader.said[entry.thread] = entry.arguments;
  }
}

// The request that is opened on the way on which a WinHTTP call stands.
std::string RequestOf(const sim::TraceEntry& entry, const Texts& following) {
  if (!entry.operation.starts_with("WinHttp") || entry.operation == "WinHttpCloseHandle") return "";
  for (const std::string& call : following) {
    if (call.starts_with("WinHttpOpenRequest ")) return " for " + call;
  }
  return "";
}

void AddNeighbours(const Reader& reader, const std::vector<sim::TraceEntry>& trace, size_t number,
                   Place& place) {
  const std::vector<size_t>& calls = reader.calls.at(trace[number].thread);
  const auto describe = [&](size_t other) {
    return std::string(trace[other].operation) + " " + reader.texts[other];
  };
  const auto here = std::lower_bound(calls.begin(), calls.end(), number);
  for (auto next = std::upper_bound(calls.begin(), calls.end(), number);
       next != calls.end() && place.following.size() < kNeighboursAfter; ++next) {
    place.following.push_back(describe(*next));
  }
  for (auto last = here; last != calls.begin() && place.preceding.size() < kNeighboursBefore;) {
    place.preceding.push_back(describe(*--last));
  }
}

bool AnyFits(const std::string& pattern, const Texts& texts) {
  return std::any_of(texts.begin(), texts.end(),
                     [&](const std::string& text) { return Fits(pattern, text); });
}

// Cuts `mark` and what stands behind it off the pattern; everything fits what is not given.
std::string TakeSection(std::string& pattern, const std::string& mark) {
  const size_t at = pattern.find(mark);
  if (at == std::string::npos) return "";
  std::string section = pattern.substr(at + mark.size());
  pattern.erase(at);
  return section;
}

}  // namespace

std::vector<Place> PlacesOf(const std::vector<sim::TraceEntry>& trace) {
  Reader reader;
  std::vector<Place> places(trace.size());
  for (size_t i = 0; i < trace.size(); ++i) {
    places[i].said = reader.said[trace[i].thread];
    Read(reader, trace[i]);
  }
  for (size_t i = 0; i < trace.size(); ++i) {
    AddNeighbours(reader, trace, i, places[i]);
    places[i].call = reader.texts[i] + RequestOf(trace[i], places[i].following);
  }
  return places;
}

bool Fits(const std::string& pattern, const Place& place) {
  std::string rest = pattern;
  const std::string said = TakeSection(rest, " said ");
  const std::string after = TakeSection(rest, " after ");
  const std::string later = TakeSection(rest, " later ");
  const std::string then = TakeSection(rest, " then ");
  return Fits(rest, place.call) && (said.empty() || Fits(said, place.said)) &&
         (after.empty() || AnyFits(after, place.preceding)) &&
         (later.empty() || AnyFits(later, place.following)) &&
         (then.empty() || (!place.following.empty() && Fits(then, place.following.front())));
}

bool Fits(const std::string& pattern, const std::string& text) {
  const Texts parts = Split(pattern, "*");
  if (parts.size() == 1) return pattern == text;
  if (!text.starts_with(parts.front())) return false;
  size_t at = parts.front().size();
  for (size_t i = 1; i + 1 < parts.size(); ++i) {
    at = text.find(parts[i], at);
    if (at == std::string::npos) return false;
    at += parts[i].size();
  }
  return text.size() >= at + parts.back().size() && text.ends_with(parts.back());
}

std::vector<std::string> Alternatives(const std::string& text) {
  return Split(text, "|");
}

}  // namespace faults
