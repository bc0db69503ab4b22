// Adapters, the IPv4 route table, the resolver, and address texts.
#include "network.h"

#include <algorithm>
#include <map>
#include <optional>

#include "case.h"
#include "device.h"
#include "engine/platform.h"
#include "service/platform.h"

namespace sim {
namespace {

constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorNoData = 232;
constexpr uint32_t kErrorNetworkUnreachable = 1231;
constexpr int kWsaAddressFamilyNotSupported = 10047;
constexpr int kWsaHostNotFound = 11001;
constexpr uint32_t kBytesPerAdapter = 448;  // IP_ADAPTER_ADDRESSES, without the texts behind it
constexpr uint16_t kUnspecifiedFamily = 0;
constexpr uint32_t kNoMetric = 0xFFFFFFFF;

constexpr uint32_t kBootIfIndex = 7;
constexpr uint32_t kBootMetric = 25;

struct HostAnswers {
  std::vector<std::vector<uint32_t>> answers;  // the last one stays
  uint32_t milliseconds = 0;
  size_t lookups = 0;
};

struct RouteTable : Object {
  RouteTable() : Object("memory") {}
};

std::vector<platform::AdapterAddresses> gAdapters;
std::vector<platform::MibIpForwardRow2> gRoutes;
std::optional<platform::MibIpForwardRow2> gBestRoute;
std::map<std::wstring, HostAnswers> gHosts;  // by name in lower case
std::map<std::wstring, size_t> gLookups;

void Boot() {
  gAdapters.clear();
  gRoutes.clear();
  gBestRoute.reset();
  gHosts.clear();
  gLookups.clear();
  AddAdapter(L"Ethernet", kBootIfIndex);
  AddRoute(Route("0.0.0.0", 0, "192.168.1.1", kBootIfIndex, kBootMetric));
}

const Device kDevice("network", &Boot);

// In network byte order: the first octet lies in the lowest byte.
std::string AddressText(uint32_t address) {
  return std::to_string(address & 0xFF) + '.' + std::to_string(address >> 8 & 0xFF) + '.' +
         std::to_string(address >> 16 & 0xFF) + '.' + std::to_string(address >> 24);
}

// Four decimal numbers without leading zeros.
bool ParseAddress(const std::string& text, uint32_t& address) {
  uint32_t value = 0;
  size_t at = 0;
  for (uint32_t octet = 0; octet < 4; ++octet) {
    if (octet > 0 && (at == text.size() || text[at++] != '.')) return false;
    const size_t from = at;
    uint32_t number = 0;
    while (at < text.size() && at - from < 3 && text[at] >= '0' && text[at] <= '9') {
      number = number * 10 + static_cast<uint32_t>(text[at++] - '0');
    }
    if (at == from || number > 255 || (at - from > 1 && text[from] == '0')) return false;
    value |= number << (8 * octet);
  }
  if (at != text.size()) return false;
  address = value;
  return true;
}

uint32_t AddressOf(const std::string& text) {
  uint32_t address = 0;
  if (!ParseAddress(text, address)) ReportFailure("no IPv4 address: " + text);
  return address;
}

uint64_t LuidOf(uint32_t ifIndex) {
  constexpr uint64_t kEthernetType = 6;
  return kEthernetType << 48 | uint64_t{ifIndex} << 24;
}

bool AdapterExists(uint32_t ifIndex) {
  return std::any_of(gAdapters.begin(), gAdapters.end(),
                     [ifIndex](const auto& adapter) { return adapter.ifIndex == ifIndex; });
}

// A given LUID goes before the index.
uint32_t InterfaceOf(const platform::MibIpForwardRow2& row) {
  return row.interfaceLuid ? static_cast<uint32_t>(row.interfaceLuid >> 24 & 0xFFFFFF) : row.interfaceIndex;
}

bool SamePrefix(const platform::MibIpForwardRow2& a, const platform::MibIpForwardRow2& b) {
  return a.destinationPrefix == b.destinationPrefix && a.destinationPrefixLength == b.destinationPrefixLength;
}

bool Covers(const platform::MibIpForwardRow2& row, uint32_t address) {
  for (uint32_t bit = 0; bit < row.destinationPrefixLength; ++bit) {
    const uint32_t mask = 0x80U >> (bit % 8) << (8 * (bit / 8));
    if ((address & mask) != (row.destinationPrefix.v4Address & mask)) return false;
  }
  return true;
}

std::string RouteText(const platform::MibIpForwardRow2& row) {
  return AddressText(row.destinationPrefix.v4Address) + '/' + std::to_string(row.destinationPrefixLength) +
         " via " + AddressText(row.nextHop.v4Address) + " if " + std::to_string(row.interfaceIndex) +
         " metric " + std::to_string(row.metric);
}

// Every field of a row, for the trace.
std::string RowArguments(const platform::MibIpForwardRow2& row) {
  return Args("luid", Hex{row.interfaceLuid}, "interfaceIndex", row.interfaceIndex, "prefix",
              AddressText(row.destinationPrefix.v4Address), "prefixFamily", row.destinationPrefix.family,
              "prefixLength", row.destinationPrefixLength, "nextHop", AddressText(row.nextHop.v4Address),
              "nextHopFamily", row.nextHop.family, "sitePrefixLength", row.sitePrefixLength, "validLifetime",
              row.validLifetime, "preferredLifetime", row.preferredLifetime, "metric", row.metric, "protocol",
              row.protocol, "loopback", row.loopback, "autoconfigureAddress", row.autoconfigureAddress,
              "publish", row.publish, "immortal", row.immortal, "age", row.age, "origin", row.origin);
}

const platform::MibIpForwardRow2* LongestMatch(uint32_t address) {
  const platform::MibIpForwardRow2* best = nullptr;
  for (const auto& row : gRoutes) {
    if (!Covers(row, address)) continue;
    const bool better =
        !best || row.destinationPrefixLength > best->destinationPrefixLength ||
        (row.destinationPrefixLength == best->destinationPrefixLength && row.metric < best->metric);
    if (better) best = &row;
  }
  return best;
}

HostAnswers AnswersOf(const std::vector<std::vector<std::string>>& texts, uint32_t milliseconds) {
  HostAnswers host;
  host.milliseconds = milliseconds;
  for (const auto& answer : texts) {
    std::vector<uint32_t> addresses;
    addresses.reserve(answer.size());
    for (const std::string& text : answer) addresses.push_back(AddressOf(text));
    host.answers.push_back(addresses);
  }
  return host;
}

uint32_t BytesNeeded() {
  uint32_t size = 0;
  for (const auto& adapter : gAdapters) {
    size += kBytesPerAdapter + static_cast<uint32_t>(2 * (adapter.friendlyName.size() + 1));
  }
  return size;
}

}  // namespace

// ---- Controls ----

void AddAdapter(const std::wstring& friendlyName, uint32_t ifIndex) {
  Guard guard;
  gAdapters.push_back({friendlyName, ifIndex});
}

void RemoveAdapter(const std::wstring& friendlyName) {
  Guard guard;
  std::erase_if(gAdapters, [&friendlyName](const auto& adapter) {
    return LowerCase(adapter.friendlyName) == LowerCase(friendlyName);
  });
  std::erase_if(gRoutes, [](const auto& row) { return !AdapterExists(row.interfaceIndex); });
}

bool HasAdapter(const std::wstring& friendlyName) {
  Guard guard;
  return std::any_of(gAdapters.begin(), gAdapters.end(), [&friendlyName](const auto& adapter) {
    return LowerCase(adapter.friendlyName) == LowerCase(friendlyName);
  });
}

void ClearAdapters() {
  Guard guard;
  gAdapters.clear();
}

platform::MibIpForwardRow2 Route(const std::string& prefix, uint8_t length, const std::string& nextHop,
                                 uint32_t ifIndex, uint32_t metric) {
  platform::MibIpForwardRow2 row;
  row.interfaceLuid = LuidOf(ifIndex);
  row.interfaceIndex = ifIndex;
  row.destinationPrefix = {platform::kAfInet, AddressOf(prefix)};
  row.destinationPrefixLength = length;
  row.nextHop = {platform::kAfInet, AddressOf(nextHop)};
  row.validLifetime = UINT32_MAX;
  row.preferredLifetime = UINT32_MAX;
  row.metric = metric;
  row.protocol = platform::kMibIpProtoNetMgmt;
  row.immortal = true;
  return row;
}

void AddRoute(const platform::MibIpForwardRow2& row) {
  Guard guard;
  gRoutes.push_back(row);
}

void ClearRoutes() {
  Guard guard;
  gRoutes.clear();
}

const std::vector<platform::MibIpForwardRow2>& Routes() {
  return gRoutes;
}

std::vector<std::string> RouteTexts() {
  Guard guard;
  std::vector<std::string> texts;
  texts.reserve(gRoutes.size());
  for (const auto& row : gRoutes) texts.push_back(RouteText(row));
  return texts;
}

std::vector<std::string> HostRouteTexts() {
  Guard guard;
  std::vector<std::string> texts;
  for (const auto& row : gRoutes) {
    if (row.destinationPrefixLength == 32) texts.push_back(RouteText(row));
  }
  return texts;
}

void SetBestRoute(const platform::MibIpForwardRow2& row) {
  Guard guard;
  gBestRoute = row;
}

void SetHost(const std::wstring& name, const std::vector<std::string>& addresses, uint32_t milliseconds) {
  Guard guard;
  gHosts[LowerCase(name)] = AnswersOf({addresses}, milliseconds);
}

void SetHostSequence(const std::wstring& name, const std::vector<std::vector<std::string>>& answers) {
  Guard guard;
  gHosts[LowerCase(name)] = AnswersOf(answers, 0);
}

size_t LookupCount(const std::wstring& name) {
  Guard guard;
  const auto found = gLookups.find(LowerCase(name));
  return found == gLookups.end() ? 0 : found->second;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

// ---- Winsock ----

int WSAStartup(uint16_t version) {
  Call call("WSAStartup", Args("version", sim::Hex{version}));
  return call.Faulted() ? static_cast<int>(call.FaultCode()) : 0;
}

int GetAddrInfoW(const std::wstring& host, int family, int socketType, std::vector<uint32_t>& addresses) {
  Call call("GetAddrInfoW", Args("host", host, "family", family, "socketType", socketType));
  addresses.clear();
  if (call.Faulted()) return static_cast<int>(call.FaultCode());
  const std::wstring name = sim::LowerCase(host);
  ++sim::gLookups[name];
  uint32_t numeric = 0;
  if (sim::ParseAddress(sim::Narrow(host), numeric)) {
    addresses = {numeric};
    return 0;
  }
  if (const auto known = sim::gHosts.find(name); known != sim::gHosts.end()) {
    call.WaitFor([] { return false; }, known->second.milliseconds);
  }
  // Looked up again: the answer may have changed meanwhile.
  const auto found = sim::gHosts.find(name);
  if (found != sim::gHosts.end()) {
    sim::HostAnswers& answers = found->second;
    if (!answers.answers.empty()) {
      addresses = answers.answers[std::min(answers.lookups++, answers.answers.size() - 1)];
    }
  }
  if (addresses.empty()) {
    call.Fail(static_cast<uint32_t>(sim::kWsaHostNotFound));
    return sim::kWsaHostNotFound;
  }
  std::string texts;
  for (const uint32_t address : addresses) texts += (texts.empty() ? "" : ",") + sim::AddressText(address);
  call.SetResult(texts);
  return 0;
}

bool InetNtopW(int family, uint32_t address, uint32_t capacity, std::wstring& text) {
  Call call("InetNtopW", Args("family", family, "address", sim::AddressText(address), "capacity", capacity));
  if (call.Faulted()) return false;
  if (family != kAfInet) return call.Fail(static_cast<uint32_t>(sim::kWsaAddressFamilyNotSupported));
  const std::string narrow = sim::AddressText(address);
  if (narrow.size() + 1 > capacity) return call.Fail(sim::kErrorInvalidParameter);
  text = sim::Widen(narrow);
  return true;
}

int InetPtonW(int family, const std::wstring& text, uint32_t& address) {
  Call call("InetPtonW", Args("family", family, "text", text));
  if (call.Faulted()) return -1;
  if (family != kAfInet) {
    call.Fail(static_cast<uint32_t>(sim::kWsaAddressFamilyNotSupported));
    return -1;
  }
  const bool parsed = sim::ParseAddress(sim::Narrow(text), address);
  call.SetResult(parsed ? "1" : "0");
  return parsed ? 1 : 0;
}

// ---- IP Helper ----

uint32_t GetAdaptersAddresses(uint32_t family, uint32_t flags, uint32_t& size,
                              std::vector<AdapterAddresses>* adapters) {
  Call call("GetAdaptersAddresses",
            Args("family", family, "flags", flags, "size", size, "buffer", adapters ? "given" : "none"));
  if (call.Faulted()) return call.FaultCode();
  const uint32_t needed = sim::BytesNeeded();
  if (needed == 0) return call.Status(sim::kErrorNoData);
  const bool fits = adapters && size >= needed;
  size = needed;
  if (!fits) return call.Status(kErrorBufferOverflow);
  *adapters = sim::gAdapters;
  return call.Status(0);
}

uint32_t GetIpForwardTable2(uint16_t family, MibIpForwardTable2& table) {
  Call call("GetIpForwardTable2", Args("family", family));
  if (call.Faulted()) return call.FaultCode();
  if (family != kAfInet && family != sim::kUnspecifiedFamily) return call.Status(sim::kErrorInvalidParameter);
  table.rows = sim::gRoutes;
  table.memory = sim::OpenHandle(std::make_shared<sim::RouteTable>());
  call.SetResult(Args("rows", table.rows.size(), "memory", table.memory));
  return 0;
}

void FreeMibTable(MibIpForwardTable2& table) {
  Call call("FreeMibTable", Args("memory", table.memory), Call::Kind::kReleasing);
  if (call.Dead() || !table.memory) return;
  if (sim::Use<sim::RouteTable>("FreeMibTable", table.memory)) sim::CloseObject(table.memory);
  table = MibIpForwardTable2{};
}

uint32_t GetBestRoute2(uint32_t interfaceIndex, const SockaddrInet& destination, uint32_t sortOptions,
                       MibIpForwardRow2& bestRoute) {
  Call call("GetBestRoute2",
            Args("interfaceIndex", interfaceIndex, "destination", sim::AddressText(destination.v4Address),
                 "family", destination.family, "sortOptions", sortOptions));
  if (call.Faulted()) return call.FaultCode();
  const MibIpForwardRow2* best =
      sim::gBestRoute ? &*sim::gBestRoute : sim::LongestMatch(destination.v4Address);
  if (!best) return call.Status(sim::kErrorNetworkUnreachable);
  bestRoute = *best;
  call.SetResult(sim::RouteText(bestRoute));
  return 0;
}

void InitializeIpForwardEntry(MibIpForwardRow2& row) {
  Call call("InitializeIpForwardEntry", "");
  row = MibIpForwardRow2{};
  row.validLifetime = UINT32_MAX;
  row.preferredLifetime = UINT32_MAX;
  row.metric = sim::kNoMetric;
  row.protocol = kMibIpProtoNetMgmt;
  row.loopback = true;
  row.autoconfigureAddress = true;
  row.publish = true;
  row.immortal = true;
}

uint32_t CreateIpForwardEntry2(const MibIpForwardRow2& row) {
  Call call("CreateIpForwardEntry2", sim::RowArguments(row));
  if (call.Faulted()) return call.FaultCode();
  MibIpForwardRow2 added = row;
  added.interfaceIndex = sim::InterfaceOf(row);
  if (!sim::AdapterExists(added.interfaceIndex)) return call.Status(sim::kErrorInvalidParameter);
  const bool exists = std::any_of(sim::gRoutes.begin(), sim::gRoutes.end(), [&added](const auto& other) {
    return sim::SamePrefix(other, added) && other.interfaceIndex == added.interfaceIndex;
  });
  if (exists) return call.Status(kErrorObjectAlreadyExists);
  added.interfaceLuid = sim::LuidOf(added.interfaceIndex);
  sim::gRoutes.push_back(added);
  return call.Status(0);
}

uint32_t SetIpForwardEntry2(const MibIpForwardRow2& row) {
  Call call("SetIpForwardEntry2", sim::RowArguments(row));
  if (call.Faulted()) return call.FaultCode();
  auto& routes = sim::gRoutes;
  const auto find = [&](bool onInterface) {
    return std::find_if(routes.begin(), routes.end(), [&](const auto& other) {
      return sim::SamePrefix(other, row) && (!onInterface || other.interfaceIndex == sim::InterfaceOf(row));
    });
  };
  auto place = find(true);
  if (place == routes.end()) place = find(false);
  if (place == routes.end()) return call.Status(kErrorNotFound);
  *place = row;
  place->interfaceLuid = sim::LuidOf(row.interfaceIndex);
  return call.Status(0);
}

uint32_t DeleteIpForwardEntry2(const MibIpForwardRow2& row) {
  Call call("DeleteIpForwardEntry2", sim::RowArguments(row));
  if (call.Faulted()) return call.FaultCode();
  const auto removed = std::erase_if(sim::gRoutes, [&row](const auto& other) {
    return sim::SamePrefix(other, row) && other.interfaceIndex == sim::InterfaceOf(row) &&
           other.nextHop == row.nextHop;
  });
  return call.Status(removed == 0 ? kErrorNotFound : 0);
}

}  // namespace platform
