#include "filtering_text.h"

#include "trace_text.h"

namespace sim {
namespace {

std::string Digits(uint32_t number, int count) {
  std::string text;
  for (int digit = count - 1; digit >= 0; --digit) text += "0123456789abcdef"[number >> (4 * digit) & 15U];
  return text;
}

}  // namespace

// 8-4-4-4-12 hexadecimal digits.
std::string Text(const platform::Guid& guid) {
  std::string text = Digits(guid.data1, 8) + '-' + Digits(guid.data2, 4) + '-' + Digits(guid.data3, 4) + '-';
  for (size_t index = 0; index < guid.data4.size(); ++index) {
    if (index == 2) text += '-';
    text += Digits(guid.data4[index], 2);
  }
  return text;
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
