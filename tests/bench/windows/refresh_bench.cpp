// Routes, their refresh and permits on the real platform layer, beside the bare calls of Windows that they
// take.
//
//     refresh_bench routes|refresh|permits
//
// The first line of standard input holds the addresses, with a blank between two. Prints "ready"; then does
// the work once for each further line, "telvor" or "bare", and prints the nanoseconds that it took, or what
// went wrong. What it made stays: to look at it and to take it away is for who gave the line.
//
// A refresh goes to and fro between two policies that both lack one address, the last or the one before it.
// At first the routes are to be there but for the last. The file of the policy is the service's own.
#include <winsock2.h>
// Behind winsock2.h, which they need.
#include <ws2tcpip.h>
// clang-format off
#include <windows.h>
#include <dpapi.h>
#include <fwpmu.h>
#include <iphlpapi.h>
// clang-format on

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "engine/operations.h"
#include "engine/tunnel_state.h"
#include "firewall/bypass_allowlist.h"
#include "firewall/rule_set.h"
#include "firewall/wfp_session.h"
#include "service/data_files.h"
#include "service/log.h"
#include "service/wide_text.h"
#include "splittunnel/bypass_refresh.h"
#include "splittunnel/routes.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kProtocols = 2;  // that an address is permitted

AddressList gAddresses;  // sorted

bool IsGood(DWORD code) {
  return code == ERROR_SUCCESS;
}

SOCKADDR_INET AddressOf(const std::wstring& text) {
  SOCKADDR_INET address{};
  address.si_family = AF_INET;
  InetPtonW(AF_INET, text.c_str(), &address.Ipv4.sin_addr);
  return address;
}

bool AlwaysGood() {
  return true;
}

// ---- A first install of the routes ----

bool FindGateway() {
  return GetDefaultGatewayIPv4_WinApi();
}

MIB_IPFORWARD_ROW2 RouteTo(const std::wstring& address) {
  MIB_IPFORWARD_ROW2 row;
  InitializeIpForwardEntry(&row);
  row.DestinationPrefix = {AddressOf(address), 32};
  row.NextHop = AddressOf(gDefaultGatewayV4);
  row.InterfaceIndex = gDefaultIfIndex;
  row.Metric = 5;
  row.Protocol = static_cast<NL_ROUTE_PROTOCOL>(MIB_IPPROTO_NETMGMT);
  row.Origin = NlroManual;
  return row;
}

bool RoutesTelvor() {
  return ApplyBypassRoutes(gAddresses);
}

bool RoutesBare() {
  bool good = true;
  for (const std::wstring& address : gAddresses) {
    const MIB_IPFORWARD_ROW2 row = RouteTo(address);
    good = IsGood(CreateIpForwardEntry2(&row)) && good;
  }
  return good;
}

// ---- A refresh in which one address changed ----

struct Policy {
  AddressList addresses;
  std::wstring changed;  // the one that the other does not have
  std::string sealed;    // what is sealed of it: the text as Windows keeps it
};

Policy gPolicies[2];
size_t gPolicyInForce = 0;
std::vector<std::string> gLogLines;

bool NoPermits(const AddressList& /*addresses*/) {
  return true;
}

// Without the address at `missing`.
Policy PolicyWithout(size_t missing, size_t changed) {
  Policy policy{gAddresses, gAddresses[changed], {}};
  policy.addresses.erase(policy.addresses.begin() + static_cast<ptrdiff_t>(missing));
  std::wstring text = L"[ips]\n";
  for (const std::wstring& address : policy.addresses) text += address + L"\n";
  policy.sealed = Utf16LittleEndian(text);
  return policy;
}

const Policy& NextPolicy() {
  return gPolicies[1 - gPolicyInForce];
}

bool SetUpRefresh() {
  if (gAddresses.size() < 2 || !FindGateway()) return false;
  const size_t last = gAddresses.size() - 1;
  gPolicies[0] = PolicyWithout(last, last - 1);
  gPolicies[1] = PolicyWithout(last - 1, last);
  gWorkerOperations.UpdateSplitTunnelBypassAllowlistV4 = &NoPermits;  // they are measured by themselves
  gBypassIpsApplied = gPolicies[0].addresses;
  return true;
}

// The lines are those of the policy that comes.
bool PrepareRefresh() {
  gLogLines = {"[2026-01-01 00:00:00] SplitTunnelV1: RefreshSplitTunnelRoutes ENTER\r\n"};
  for (const std::wstring& address : NextPolicy().addresses) {
    gLogLines.push_back("[2026-01-01 00:00:00] SplitTunnelV1: Update WFP bypass IP = " +
                        std::string(address.begin(), address.end()) + "\r\n");
  }
  DeleteFileW(GetLogFilePath().c_str());
  return ProtectToFile(kRuntimePolicyFile, NextPolicy().sealed);
}

bool RefreshTelvor() {
  RefreshSplitTunnelRoutes();
  return true;
}

bool ReadPolicyBare() {
  const HANDLE file = CreateFileW(kRuntimePolicyFile, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  LARGE_INTEGER size{};
  GetFileSizeEx(file, &size);
  std::vector<BYTE> bytes(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
  CloseHandle(file);
  DATA_BLOB sealed{read, bytes.data()};
  DATA_BLOB plain{};
  const bool good = CryptUnprotectData(&sealed, nullptr, nullptr, nullptr, nullptr, 0, &plain) != 0;
  LocalFree(plain.pbData);
  return good;
}

bool AppendBare(const std::string& line) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t path[MAX_PATH];
  const DWORD length = GetEnvironmentVariableW(L"ProgramData", path, MAX_PATH);
  std::copy_n(L"\\sorvanik-vpn", 14, path + length);
  CreateDirectoryW(path, nullptr);
  std::copy_n(L"\\vpnservice.log", 16, path + length + 13);
  const HANDLE file = CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  DWORD written = 0;
  WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  CloseHandle(file);
  return written == line.size();
}

bool RefreshBare() {
  bool good = AppendBare(gLogLines.front()) && ReadPolicyBare();
  MIB_IPFORWARD_TABLE2* table = nullptr;
  good = IsGood(GetIpForwardTable2(AF_INET, &table)) && good;
  const MIB_IPFORWARD_ROW2 removed = RouteTo(gPolicies[gPolicyInForce].changed);
  good = IsGood(DeleteIpForwardEntry2(&removed)) && good;
  FreeMibTable(table);
  const MIB_IPFORWARD_ROW2 added = RouteTo(NextPolicy().changed);
  good = IsGood(CreateIpForwardEntry2(&added)) && good;
  for (size_t i = 1; i < gLogLines.size(); ++i) good = AppendBare(gLogLines[i]) && good;
  return good;
}

// A failure would have been logged as well.
bool FinishRefresh() {
  size_t expected = 0;
  for (const std::string& line : gLogLines) expected += line.size();
  std::string log;
  gPolicyInForce = 1 - gPolicyInForce;
  gBypassIpsApplied = gPolicies[gPolicyInForce].addresses;
  return ReadWholeFile(GetLogFilePath(), log) && log.size() == expected;
}

// ---- The permits ----

struct BareFilter {
  std::wstring name;
  FWP_V4_ADDR_AND_MASK address;
  FWPM_FILTER_CONDITION0 conditions[2];
  FWPM_FILTER0 filter;
};

std::vector<BareFilter> gFilters;  // for each address one for each protocol
GUID gProvider = std::bit_cast<GUID>(kProviderKey);
UINT64 gWeight = 0xF000000000000000;
HANDLE gEngine = nullptr;

void MakeFilter(const std::wstring& address, uint8_t protocol, BareFilter& made) {
  made = {};
  made.name = kSplitBypassPrefix + address;
  made.address = {AddressOf(address).Ipv4.sin_addr.s_addr, 0xFFFFFFFF};
  made.conditions[0].fieldKey = std::bit_cast<GUID>(kConditionIpRemoteAddress);
  made.conditions[0].conditionValue.type = FWP_V4_ADDR_MASK;
  made.conditions[0].conditionValue.v4AddrMask = &made.address;
  made.conditions[1].fieldKey = std::bit_cast<GUID>(kConditionIpProtocol);
  made.conditions[1].conditionValue.type = FWP_UINT8;
  made.conditions[1].conditionValue.uint8 = protocol;
  made.filter.displayData.name = made.name.data();
  made.filter.providerKey = &gProvider;
  made.filter.layerKey = std::bit_cast<GUID>(kLayerAleAuthConnectV4);
  made.filter.subLayerKey = std::bit_cast<GUID>(kSubLayerKey);
  made.filter.weight.type = FWP_UINT64;
  made.filter.weight.uint64 = &gWeight;
  made.filter.numFilterConditions = 2;
  made.filter.filterCondition = made.conditions;
  made.filter.action.type = FWP_ACTION_PERMIT;
}

bool SetUpPermits() {
  gFilters.resize(kProtocols * gAddresses.size());
  for (size_t i = 0; i < gFilters.size(); ++i) {
    MakeFilter(gAddresses[i / kProtocols], i % kProtocols == 0 ? kProtocolTcp : kProtocolUdp, gFilters[i]);
  }
  return true;
}

bool OpenEngine() {
  return IsGood(OpenWfpEngine(gEngine)) && EnsureProviderAndSublayer(gEngine);
}

bool CloseEngine() {
  return IsGood(FwpmEngineClose0(gEngine));
}

bool PermitsTelvor() {
  return UpdateSplitTunnelBypassAllowlistV4(gAddresses);
}

bool PermitsBare() {
  bool good = IsGood(FwpmTransactionBegin0(gEngine, 0));
  for (size_t i = 0; i < gFilters.size(); ++i) {
    if (i % kProtocols == 0) AddressOf(gAddresses[i / kProtocols]);
    UINT64 id = 0;
    good = IsGood(FwpmFilterAdd0(gEngine, &gFilters[i].filter, nullptr, &id)) && good;
  }
  return IsGood(FwpmTransactionCommit0(gEngine)) && good;
}

// ---- The works ----

// What stands before and behind the two sides is not timed. False is a failure.
struct Work {
  std::string_view name;
  bool (*setUp)();
  bool (*prepare)();
  bool (*telvor)();
  bool (*bare)();
  bool (*finish)();
};

constexpr Work kWorks[] = {
    {"routes", &FindGateway, &AlwaysGood, &RoutesTelvor, &RoutesBare, &AlwaysGood},
    {"refresh", &SetUpRefresh, &PrepareRefresh, &RefreshTelvor, &RefreshBare, &FinishRefresh},
    {"permits", &SetUpPermits, &OpenEngine, &PermitsTelvor, &PermitsBare, &CloseEngine},
};

// The log of the service is left alone.
bool MoveLog() {
  wchar_t folder[MAX_PATH];
  const DWORD length = GetTempPathW(MAX_PATH, folder);
  if (length < 2) return false;
  folder[length - 1] = L'\0';  // it ends in a separator
  return SetEnvironmentVariableW(L"ProgramData", folder) != 0;
}

void ReadAddresses() {
  std::string line;
  std::getline(std::cin, line);
  std::istringstream words(line);
  for (std::string word; words >> word;) gAddresses.emplace_back(word.begin(), word.end());
  SortAndRemoveDuplicates(gAddresses);
}

void Say(const std::string& text) {
  std::puts(text.c_str());
  std::fflush(stdout);
}

std::string DoOnce(const Work& work, const std::string& side) {
  if (!work.prepare()) return "the preparation failed";
  const auto begin = Clock::now();
  const bool good = side == "telvor" ? work.telvor() : work.bare();
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count();
  const bool finished = work.finish();
  if (!good) return "a call failed";
  return finished ? std::to_string(nanoseconds) : "the result is not the right one";
}

}  // namespace

int main(int count, char** words) {
  const std::string_view name = count == 2 ? words[1] : "";
  const auto* work = std::find_if(std::begin(kWorks), std::end(kWorks),
                                  [name](const Work& candidate) { return candidate.name == name; });
  if (work == std::end(kWorks) || !MoveLog()) return 2;
  WSADATA winsock;
  WSAStartup(MAKEWORD(2, 2), &winsock);
  ReadAddresses();
  if (!work->setUp()) {
    Say("the addresses or the gateway are not there");
    return 3;
  }
  Say("ready");
  for (std::string side; std::getline(std::cin, side);) Say(DoOnce(*work, side));
  return 0;
}
