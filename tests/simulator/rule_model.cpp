#include "rule_model.h"

#include <algorithm>
#include <vector>

#include "firewall/rule_set.h"
#include "firewall/wfp_session.h"
#include "sim/filtering.h"
#include "sim/kernel.h"

namespace simulator {
namespace {

constexpr uint64_t kWeight = 0xF000000000000000;
constexpr uint32_t kIfIndex = 0;  // stands for any: the tunnel's adapter
constexpr wchar_t kProgram[] = L"C:\\Program Files\\WireGuard\\wireguard.exe";

// What a filter's conditions ask for.
enum class Asks { kLoopback4, kLoopback6, kProgramUdp, kPort, kInterface };

struct Rule {
  const wchar_t* name;
  bool v6;
  Asks asks;
  uint32_t protocol;
  uint32_t number;  // port or interface
};

constexpr Rule kBaseline[] = {
    {L"ALLOW loopback v4", false, Asks::kLoopback4, 0, 0},
    {L"ALLOW loopback v6", true, Asks::kLoopback6, 0, 0},
    {L"ALLOW wireguard.exe UDP (v4)", false, Asks::kProgramUdp, 17, 0},
    {L"ALLOW wireguard.exe UDP (v6)", true, Asks::kProgramUdp, 17, 0},
    {L"ALLOW DNS UDP/53 (v4)", false, Asks::kPort, 17, 53},
    {L"ALLOW DNS TCP/53 (v4)", false, Asks::kPort, 6, 53},
    {L"ALLOW wireguard.exe UDP (v4)", false, Asks::kProgramUdp, 17, 0},
    {L"ALLOW wireguard.exe UDP (v6)", true, Asks::kProgramUdp, 17, 0},
    {L"ALLOW WireGuard UDP dst-port (v4)", false, Asks::kPort, 17, 51820},
    {L"ALLOW ALL outbound connect via WG interface (v4)", false, Asks::kInterface, 0, kIfIndex},
    {L"ALLOW ALL outbound connect via WG interface (v6)", true, Asks::kInterface, 0, kIfIndex},
    {L"ALLOW ALL outbound connect via WG interface (v4)", false, Asks::kInterface, 0, kIfIndex},
    {L"ALLOW ALL outbound connect via WG interface (v6)", true, Asks::kInterface, 0, kIfIndex},
};
constexpr std::wstring_view kPrefixes[] = {L"TELVOR:ALLOW cp-pinned v4:", L"TELVOR:ALLOW split-bypass v4:"};

using Filters = std::vector<const sim::EngineFilter*>;

Filters OwnFilters() {
  Filters own;
  for (const sim::EngineFilter& filter : sim::FiltersInForce()) {
    if (filter.hasProviderKey && filter.filter.providerKey == kProviderKey) own.push_back(&filter);
  }
  return own;
}

bool IsProtocol(const platform::FwpmFilterCondition& condition, uint32_t protocol) {
  return condition.fieldKey == kConditionIpProtocol && condition.type == platform::kFwpUint8 &&
         condition.number == protocol;
}

// 127.0.0.1 with the lowest byte first in memory, and all bits of the mask.
bool IsLoopback4(const platform::FwpmFilterCondition& condition) {
  return condition.fieldKey == kConditionIpRemoteAddress && condition.type == platform::kFwpV4AddrMask &&
         condition.v4Address == 0x0100007F && condition.v4Mask == 0xFFFFFFFF;
}

bool IsLoopback6(const platform::FwpmFilterCondition& condition) {
  std::array<uint8_t, 16> address{};
  address.back() = 1;
  return condition.fieldKey == kConditionIpRemoteAddress && condition.type == platform::kFwpV6AddrMask &&
         condition.v6Address == address && condition.v6PrefixLength == 128;
}

bool AsksForProgram(const sim::EngineFilter& filter) {
  const auto& conditions = filter.filter.conditions;
  return conditions.size() == 2 && conditions[0].fieldKey == kConditionAleAppId &&
         conditions[0].type == platform::kFwpByteBlobType && filter.blobs[0] == sim::AppIdFor(kProgram) &&
         IsProtocol(conditions[1], 17);
}

bool AsksForPort(const sim::EngineFilter& filter, const Rule& rule) {
  const auto& conditions = filter.filter.conditions;
  return conditions.size() == 2 && IsProtocol(conditions[0], rule.protocol) &&
         conditions[1].fieldKey == kConditionIpRemotePort && conditions[1].type == platform::kFwpUint16 &&
         conditions[1].number == rule.number;
}

bool AsksForInterface(const sim::EngineFilter& filter) {
  const auto& conditions = filter.filter.conditions;
  return conditions.size() == 1 && conditions[0].fieldKey == kConditionInterfaceIndex &&
         conditions[0].type == platform::kFwpUint32 && conditions[0].number != 0;
}

bool Fits(const sim::EngineFilter& filter, const Rule& rule) {
  const auto& conditions = filter.filter.conditions;
  if (filter.filter.displayData.name != rule.name) return false;
  if (filter.filter.layerKey != (rule.v6 ? kLayerAleAuthConnectV6 : kLayerAleAuthConnectV4)) return false;
  switch (rule.asks) {
    case Asks::kLoopback4:
      return conditions.size() == 1 && IsLoopback4(conditions[0]);
    case Asks::kLoopback6:
      return conditions.size() == 1 && IsLoopback6(conditions[0]);
    case Asks::kProgramUdp:
      return AsksForProgram(filter);
    case Asks::kPort:
      return AsksForPort(filter, rule);
    default:
      return AsksForInterface(filter);
  }
}

// What every filter of the system has in common.
bool IsPlainPermit(const platform::FwpmFilter& filter) {
  return filter.actionType == platform::kFwpActionPermit && filter.flags == 0 && filter.weight == kWeight &&
         filter.subLayerKey == kSubLayerKey && filter.rawContext == 0 &&
         filter.displayData.description.empty();
}

// The permit's address text; empty if it is none.
std::wstring PermitOf(const platform::FwpmFilter& filter, uint32_t protocol) {
  const auto& conditions = filter.conditions;
  const bool asks = conditions.size() == 2 && conditions[0].fieldKey == kConditionIpRemoteAddress &&
                    conditions[0].type == platform::kFwpV4AddrMask && conditions[0].v4Mask == 0xFFFFFFFF &&
                    IsProtocol(conditions[1], protocol) && filter.layerKey == kLayerAleAuthConnectV4;
  const std::wstring& name = filter.displayData.name;
  const bool named = std::any_of(std::begin(kPrefixes), std::end(kPrefixes),
                                 [&name](std::wstring_view prefix) { return name.starts_with(prefix); });
  return asks && named ? name : L"";
}

std::string Described(const sim::EngineFilter& filter) {
  return "'" + sim::Narrow(filter.filter.displayData.name) + "'";
}

bool StartsBaseline(const Filters& own) {
  return !own.empty() && own.front()->filter.displayData.name.starts_with(L"ALLOW ");
}

std::string BaselineFault(const Filters& own) {
  for (size_t index = 0; index < std::size(kBaseline); ++index) {
    if (index >= own.size()) return "the baseline has only " + std::to_string(index) + " filters";
    if (!Fits(*own[index], kBaseline[index])) return "not the baseline's filter: " + Described(*own[index]);
  }
  return "";
}

std::string PairsFault(const Filters& own, size_t from, bool halfPairs) {
  for (size_t index = from; index < own.size(); ++index) {
    const std::wstring tcp = PermitOf(own[index]->filter, 6);
    if (tcp.empty()) return "not the first half of a pair: " + Described(*own[index]);
    const bool whole = index + 1 < own.size() && PermitOf(own[index + 1]->filter, 17) == tcp;
    if (whole) ++index;
    if (!whole && !halfPairs) return "half of a pair: " + Described(*own[index]);
  }
  return "";
}

}  // namespace

size_t OwnFilterCount() {
  return OwnFilters().size();
}

std::string RuleSetFault(bool halfPairs) {
  const Filters own = OwnFilters();
  for (const sim::EngineFilter* filter : own) {
    if (!IsPlainPermit(filter->filter)) return "no plain permit: " + Described(*filter);
  }
  const bool baseline = StartsBaseline(own);
  std::string fault = baseline ? BaselineFault(own) : "";
  if (!fault.empty()) return fault;
  return PairsFault(own, baseline ? std::size(kBaseline) : 0, halfPairs);
}

bool BaselineInForce() {
  const Filters own = OwnFilters();
  return StartsBaseline(own) && BaselineFault(own).empty();
}

}  // namespace simulator
