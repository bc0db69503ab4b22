#include "filtering_text.h"

#include <array>

#include "trace_text.h"

namespace sim {
namespace {

// Puts so many digits at `place`, and gives the place behind them.
char* PutDigits(char* place, uint32_t number, int count) {
  for (int digit = count - 1; digit >= 0; --digit) *place++ = "0123456789abcdef"[number >> (4 * digit) & 15U];
  return place;
}

}  // namespace

// 8-4-4-4-12 hexadecimal digits.
std::string Text(const platform::Guid& guid) {
  std::array<char, 36> text{};
  char* place = PutDigits(text.data(), guid.data1, 8);
  *place++ = '-';
  place = PutDigits(place, guid.data2, 4);
  *place++ = '-';
  place = PutDigits(place, guid.data3, 4);
  *place++ = '-';
  for (size_t index = 0; index < guid.data4.size(); ++index) {
    if (index == 2) *place++ = '-';
    place = PutDigits(place, guid.data4[index], 2);
  }
  return {text.data(), text.size()};
}

std::string Text(const platform::FwpmDisplayData& display) {
  return Args("name", display.name, "description", display.description);
}

std::string BytesText(const uint8_t* bytes, size_t size) {
  return {reinterpret_cast<const char*>(bytes), size};
}

std::string Text(const platform::FwpmFilterCondition& condition) {
  return Args("field", Text(condition.fieldKey), "match", condition.matchType, "type", condition.type,
              "number", condition.number, "v4Address", Hex{condition.v4Address}, "v4Mask",
              Hex{condition.v4Mask}, "v6Address",
              BytesText(condition.v6Address.data(), condition.v6Address.size()), "v6PrefixLength",
              condition.v6PrefixLength, "blob",
              condition.blob ? BytesText(condition.blob->data, condition.blob->size) : "");
}

std::string Text(const platform::FwpmFilter& filter) {
  std::string text =
      Text(filter.displayData) + ' ' +
      Args("key", Text(filter.filterKey), "flags", filter.flags, "provider", Text(filter.providerKey),
           "layer", Text(filter.layerKey), "subLayer", Text(filter.subLayerKey), "weight", Hex{filter.weight},
           "action", Hex{filter.actionType}, "rawContext", filter.rawContext);
  for (const auto& condition : filter.conditions) text += " condition={" + Text(condition) + '}';
  return text;
}

}  // namespace sim
