// The filtering engine's records as the trace shows them, field by field.
#pragma once

#include <cstdint>
#include <string>

#include "firewall/platform.h"

namespace sim {

std::string Text(const platform::Guid& guid);
std::string Text(const platform::FwpmDisplayData& display);
std::string Text(const platform::FwpmFilterCondition& condition);
std::string Text(const platform::FwpmFilter& filter);
std::string BytesText(const uint8_t* bytes, size_t size);

}  // namespace sim
