// JSON as the service writes it, read without trust: a member that is missing or of another kind reads as
// empty.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace telvorctl {

// Keeps the members in the order in which they came.
using Json = nlohmann::ordered_json;

// Null if there is no such member.
inline const Json& Member(const Json& object, const char* key) {
  static const Json kNull;
  const auto found = object.is_object() ? object.find(key) : object.end();
  return found == object.end() ? kNull : *found;
}

// The empty text for all that is no text. Not yet fit for a terminal.
inline std::string TextMember(const Json& object, const char* key) {
  const Json& member = Member(object, key);
  return member.is_string() ? member.get<std::string>() : std::string();
}

// 0 for all that is no number, and for one below 0.
inline uint64_t NumberMember(const Json& object, const char* key) {
  const Json& member = Member(object, key);
  return member.is_number_unsigned() ? member.get<uint64_t>() : 0;
}

// False for all that is not true.
inline bool TruthMember(const Json& object, const char* key) {
  const Json& member = Member(object, key);
  return member.is_boolean() && member.get<bool>();
}

}  // namespace telvorctl
