#include "tests/faults/expectation.h"

#include <cstring>
#include <string_view>

#include "tests/faults/place.h"

namespace faults {
namespace {

constexpr Aftermath kNewProcess = Aftermath::kNewProcess;
constexpr Aftermath kOperator = Aftermath::kOperator;

constexpr char kNotLookedAt[] = "its result is not looked at";
constexpr char kPrimitive[] = "rights never fail a caller";
constexpr char kLostLine[] = "a line that cannot be written is lost";
constexpr char kEmptyText[] = "the text counts as empty; what it is for fails in its own words";
constexpr char kTriedAgain[] = "it is tried again after a pause";
constexpr char kMarker[] = "a marker that cannot be written changes nothing";
constexpr char kMadeAnew[] = "what cannot be read counts as not there";
constexpr char kBrokenOff[] = "what arrived so far counts as all";

constexpr char kNoSession[] = "no session: C:";
constexpr char kSaveFailed[] =
    "Auth: SaveSession failed after /v1/auth/login|save session failed|\"refresh failed\"|"
    "refresh ok but failed to save session";

constexpr char kNoProbe[] = "WgHandshakeSeen: failed to run wg.exe latest-handshakes. iface=\"telvor\"";
constexpr char kNoTotals[] = "WgGetRxTxBytes: failed to run wg.exe";
constexpr char kNoInstall[] = "wireguard.exe installtunnelservice failed ec=0";
constexpr char kNoUninstall[] = "wireguard.exe uninstalltunnelservice failed to execute for tunnel=telvor";

const std::vector<Expectation> kLog = {
    {"GetEnvironmentVariableW", "* then CreateFileW *vpnservice.log\" access=0x80000000*",
     "\"result\":,\"error\"", ""},
    {"GetEnvironmentVariableW", "*", "", "the line goes to a log in the working directory"},
    {"CreateDirectoryW", "*sorvanik-vpn\"*", "", "the folder is there already"},
    {"CreateFileW", "*vpnservice.log\" access=0x80000000*", "\"result\":,\"error\"", ""},
    {"ReadFile", "*vpnservice.log*", "\"result\":[],", ""},
    {"CreateFileW|WriteFile", "*vpnservice.log\"*", "", kLostLine},
};

const std::vector<Expectation> kServiceHost = {
    {"RegisterServiceCtrlHandlerExW", "*", "", "there is nothing to report to", kNewProcess},
    {"SetServiceStatus", "*", "", kNotLookedAt, kNewProcess},
    {"StartServiceCtrlDispatcherW", "*", "", "told by a marker and the exit code", kNewProcess},
    {"CreateEventW", "*", "CreateEvent failed.", "", kNewProcess},
    {"CreateThread", "*<- CreateNamedPipeW*", "", "the accept loop serves the client itself"},
    {"CreateThread", "* said *Service starting.*", "CreateThread(worker) failed.", "", kNewProcess},
    {"CreateThread", "*", "CreateThread(IPC) failed.", "", kNewProcess},
    {"WaitForMultipleObjects", "*", "ServiceMain: WaitForMultipleObjects failed. GLE={code}", "",
     kNewProcess},
    {"SetEvent", "*", "SetEvent(gStopEvent) ok=false GLE={code}", "", kNewProcess},
    {"WaitForSingleObject", "*milliseconds=0 <-* then ReadFile*", "IPC: no request", ""},
    {"WaitForSingleObject", "*milliseconds=0 <-* then CreateNamedPipeW*", "",
     "the accept loop takes it for a stop", kNewProcess},
    {"WaitForSingleObject", "*milliseconds=0 *", "ServiceMain: worker exited. exitCode=0", ""},
    {"WaitForSingleObject", "*", "", "a wait that fails counts as over, and has no line"},
    {"WSAStartup", "*", "WSAStartup failed rc={code}; continuing", ""},
    {"CreateFileW|WriteFile|FlushFileBuffers", "*\\VPN\\stage\\*", "", kMarker},
    {"CreateFileW|WriteFile|FlushFileBuffers", "*\\after_entered.txt*", "", kMarker},
    {"CreateFileW|WriteFile|FlushFileBuffers", "*\\step1.txt*", "", kMarker},
    {"CreateFileW", "*\"...\\step4.txt*", "", kMarker},
    {"GetNamedSecurityInfoW|SetEntriesInAclW|SetNamedSecurityInfoW", "*", "", kPrimitive},
    {"FindFirstFileW|FindNextFileW", "*", "", kPrimitive},
    {"DeleteFileW", "*", "", kNotLookedAt},
};

const std::vector<Expectation> kPipe = {
    {"ConvertStringSecurityDescriptorToSecurityDescriptorW", "*",
     "ERROR: failed to build pipe security descriptor", "", kNewProcess},
    {"CreateNamedPipeW|ConnectNamedPipe", "*", "", kTriedAgain},
    {"DisconnectNamedPipe", "*", "", kNotLookedAt},
    {"ReadFile", "*size=512 <- CreateNamedPipeW*", "IPC: no request", ""},
    {"WriteFile|FlushFileBuffers", "*<- CreateNamedPipeW*", "", "the reply is lost"},
};

const std::vector<Expectation> kFiles = {
    {"CreateDirectoryW", "*\\auth\" then CreateFileW *\\session.dat\"*", kSaveFailed, ""},
    {"CreateDirectoryW", "*\\auth\" then CreateDirectoryW *\\auth\"*",
     "RotateActiveBootstrapWgKeypair: failed creating parent dir for private key path", ""},
    {"CreateDirectoryW", "*\\auth\" then BCryptGenRandom *",
     "RotateActiveBootstrapWgKeypair: failed creating parent dir for public key path", ""},
    {"CreateDirectoryW", "*\\auth\" then CreateFileW *\\wg_client_privatekey.txt\"*",
     "Bootstrap: wg private key failed", ""},
    {"CreateDirectoryW", "*\\auth\" then CreateFileW *\\wg_client_publickey.txt\"*",
     "Bootstrap: wg public key failed", ""},
    // The folder is made by the first login.
    {"CreateDirectoryW", "*\\auth\" then GetNamedSecurityInfoW * after MultiByteToWideChar *",
     "LoadOrCreateDeviceId: EnsureParentDirForFile failed", ""},
    {"CreateDirectoryW", "*\\auth\" then CreateFileW *\\device_id.txt\"*",
     "LoadOrCreateDeviceId: EnsureParentDirForFile failed", ""},
    {"CreateDirectoryW", "*\\auth\" then CreateFileW *\\device_id.txt.protected\"*",
     "LoadOrCreateDeviceId: failed writing protected verifier", ""},
    {"CreateDirectoryW", "*\\TELVOR\"* after CryptProtectData *", "", "the policy is sealed next time"},
    {"CreateDirectoryW", "*\\TELVOR*", "Bootstrap not ready|Unable to pull bootstrap state", ""},
    {"CreateFileW|WriteFile|MoveFileExW", "*\\telvor.conf.tmp\"*", "Bootstrap: failed writing wg conf", ""},
    {"CreateFileW|WriteFile|MoveFileExW", "*\\wg_client_privatekey.txt.tmp\"*",
     "RotateActiveBootstrapWgKeypair: failed writing wg_client_privatekey.txt", ""},
    {"CreateFileW|WriteFile|MoveFileExW", "*\\wg_client_publickey.txt.tmp\"*",
     "RotateActiveBootstrapWgKeypair: failed writing wg_client_publickey.txt|Bootstrap: wg public key failed",
     ""},
    {"CreateFileW|ReadFile", "*\\\\wg_client_publickey.txt\"*", "\"wgPublicKey\":null", ""},
    {"CreateFileW|ReadFile", "*\\wg_client_p*key.txt\"*", "", kMadeAnew},
    {"CryptProtectData", "*plain=\"desktop-ab12\"*",
     "LoadOrCreateDeviceId: failed writing protected verifier", ""},
    // What is left is an empty verifier.
    {"WriteFile", "*\\device_id.txt.protected\" access=0x40000000*",
     "LoadOrCreateDeviceId: failed writing protected verifier", "", kOperator},
    {"CreateFileW", "*\\device_id.txt.protected\" access=0x40000000*",
     "LoadOrCreateDeviceId: failed writing protected verifier", ""},
    {"CreateFileW|ReadFile", "*\\device_id.txt.protected\"*",
     "LoadOrCreateDeviceId: protected verifier present but could not be decrypted", ""},
    {"GetFileAttributesW", "*", "", "the clear text is sealed anew"},
    {"CreateFileW|WriteFile", "*\\device_id.txt\" access=0x40000000*",
     "LoadOrCreateDeviceId: failed writing device_id.txt", ""},
    {"CreateFileW|ReadFile|GetFileSizeEx",
     "*\\device_id.txt\"* later CreateFileW *\\\\wg_client_publickey.txt\"*", "\"deviceId\":null", ""},
    {"CreateFileW|ReadFile|GetFileSizeEx", "*\\device_id.txt\"*", "", "the verifier brings it back"},
    {"GetComputerNameW", "*", "LoadOrCreateDeviceId: GetComputerNameW failed", ""},
    {"CreateFileW|WriteFile", "*\\session.dat\" access=0x40000000*", kSaveFailed, ""},
    {"CryptProtectData", "*\"access_token\"*", kSaveFailed, ""},
    {"CreateFileW|ReadFile", "*\\session.dat\"*", kNoSession, ""},
    {"CreateFileW|ReadFile|GetFileSizeEx", "*\\runtime.seed\"*", "SplitTunnelV1: runtime source=empty", ""},
    {"GetModuleFileNameW", "*", "SplitTunnelV1: runtime source=empty", ""},
    {"WriteFile", "*\\runtime.dat\"*", "", "an empty file is an empty policy", kOperator},
    {"CreateFileW|ReadFile|GetFileSizeEx", "*\\runtime.dat\"*", "", "the seed is read instead"},
    {"CryptProtectData", "*description=\"TELVOR runtime\"*", "", "the policy is sealed next time"},
    {"CryptUnprotectData", "* after *\\device_id.txt.protected\"*",
     "LoadOrCreateDeviceId: protected verifier present but could not be decrypted", ""},
    {"CryptUnprotectData", "* after *\\session.dat\"*", kNoSession, ""},
    {"CryptUnprotectData", "* after *\\runtime.dat\"*", "", "the seed is read instead"},
    {"FlushFileBuffers", "*", "", kNotLookedAt},
};

const std::vector<Expectation> kKeysAndTexts = {
    {"BCryptGenRandom", "*", "WgGenerateKeypairBase64 failed: BCryptGenRandom failed: 0x{code}", ""},
    {"CryptBinaryToStringA", "*size=0", "CryptBinaryToStringA(size) failed: {code}", ""},
    {"CryptBinaryToStringA", "*", "CryptBinaryToStringA(data) failed: {code}", ""},
    {"CryptStringToBinaryA", "*size=0", "CryptStringToBinaryA(size) failed: {code}", ""},
    {"CryptStringToBinaryA", "*", "CryptStringToBinaryA(data) failed: {code}", ""},
    {"MultiByteToWideChar", "*[domains]*", "SplitTunnelV1: runtime source=empty", ""},
    {"WideCharToMultiByte", "*text=\"desktop-ab12\" * later CryptProtectData *", "", "an empty id is sealed",
     kOperator},
    {"MultiByteToWideChar|WideCharToMultiByte", "*", "", kEmptyText},
    {"_mkgmtime64", "*", "", "the catalogue's word for being online counts"},
};

const std::vector<Expectation> kTunnel = {
    {"OpenSCManagerW", "*access=5", "OpenSCManagerW(enum) failed: {code} (", ""},
    {"OpenSCManagerW", "* then OpenServiceW *name=\"TELVOR\"*", "\"result\":false", "", kNewProcess},
    {"OpenServiceW|QueryServiceStatusEx", "*name=\"TELVOR\"*", "\"result\":false", "", kNewProcess},
    {"ControlService", "*name=\"TELVOR\"*", "", kNotLookedAt, kNewProcess},
    {"OpenSCManagerW", "* then OpenServiceW *access=4 <-* later QueryServiceStatusEx *access=4",
     "OpenSCManagerW failed: {code} (", ""},
    {"OpenSCManagerW", "* then OpenServiceW *access=4 <-*", "", "the service counts as not there"},
    {"OpenSCManagerW", "*", "OpenSCManagerW failed: {code} (", ""},
    {"OpenServiceW", "*access=4 * then QueryServiceStatusEx *",
     "Tunnel service not running after start; retrying.", ""},
    {"OpenServiceW", "*access=4 *", "", "the service counts as not there"},
    {"OpenServiceW", "*access=36 *", "", "what cannot be opened leaves nothing to stop"},
    {"OpenServiceW", "*", "OpenServiceW failed: {code} (", ""},
    {"QueryServiceStatusEx", "*access=4", "Tunnel service not running after start; retrying.", ""},
    {"QueryServiceStatusEx", "*", "QueryServiceStatusEx failed: {code} (", ""},
    {"ControlService", "*", "ControlService(STOP) failed: {code} (", ""},
    {"StartServiceW", "*", "StartServiceW failed: {code} (", ""},
    {"EnumServicesStatusExW", "*bufferSize=0 *", "", "nothing is known to stop"},
    {"EnumServicesStatusExW", "*", "EnumServicesStatusExW failed: {code} (", ""},
    {"CreateProcessW", "*latest-handshakes*", kNoProbe, ""},
    {"CreatePipe|SetHandleInformation", "* later CreateProcessW *latest-handshakes*", kNoProbe, ""},
    {"CreateProcessW", "*telvor transfer*", kNoTotals, ""},
    {"CreatePipe|SetHandleInformation", "* later CreateProcessW *telvor transfer*", kNoTotals, ""},
    {"CreateProcessW", "*/installtunnelservice*", kNoInstall, ""},
    {"CreatePipe|SetHandleInformation", "* later CreateProcessW */installtunnelservice*", kNoInstall, ""},
    {"CreateProcessW", "*/uninstalltunnelservice*", kNoUninstall, ""},
    {"CreatePipe|SetHandleInformation", "* later CreateProcessW */uninstalltunnelservice*", kNoUninstall, ""},
    {"GetStdHandle", "*", "", kNotLookedAt},
    {"GetExitCodeProcess", "*", "", "the exit code stays 0"},
    {"ReadFile", "*<- CreatePipe*", "", "the output ends there"},
};

const std::vector<Expectation> kNetwork = {
    {"GetAddrInfoW|InetNtopW", "* said *CP immediate DNS refresh (baseline): base=*",
     "CP immediate DNS refresh (baseline): host=cp.telvor.test count=0", ""},
    {"GetAddrInfoW|InetNtopW", "* said *CP immediate DNS refresh (update): base=*",
     "CP immediate DNS refresh: host=cp.telvor.test count=0", ""},
    {"GetAddrInfoW", "* said *SplitTunnelV1: RefreshSplitTunnelRoutes ENTER*", "",
     "the name has no addresses now"},
    {"InetNtopW", "* said *SplitTunnelV1: RefreshSplitTunnelRoutes ENTER*", "", "the address is left out"},
    {"GetAddrInfoW", "*\"bypass.example\"*", "SplitTunnelV1: resolve bypass.example -> 0 IPs", ""},
    {"InetNtopW", "*\"198.51.100.*",
     "SplitTunnelV1: resolve bypass.example -> 1 IPs|SplitTunnelV1: resolve bypass.example -> 0 IPs", ""},
    {"GetAddrInfoW", "*\"cp.telvor.test\"*", "", kTriedAgain},
    {"InetNtopW", "*\"10.99.0.1\"*", "", kTriedAgain},
    {"InetNtopW", "*\"192.168.1.1\"*", "InetNtopW failed failed: {code} (", ""},
    {"InetPtonW", "*text=\"1.1.1.1\"*", "GetDefaultGatewayIPv4_WinApi: InetPtonW failed for 1.1.1.1", ""},
    {"InetPtonW", "* after GetIpForwardTable2 *", "", "a route that is not found is not deleted"},
    {"InetPtonW", "*text=\"192.168.1.1\" then InitializeIpForwardEntry *",
     "AddRouteV4_32: invalid gw=192.168.1.1", ""},
    {"InetPtonW", "* then InetPtonW * later InitializeIpForwardEntry *",
     "AddRouteV4_32: invalid ip=198.51.100.", ""},
    {"InetPtonW", "*text=\"10.99.0.1\" said *(baseline)*", "CP pinned ALLOW FAILED (baseline) host=", ""},
    {"InetPtonW", "*text=\"10.99.0.1\"*", "CP pinned ALLOW FAILED for host=", ""},
    {"InetPtonW", "* then FwpmFilterAdd0 *", "", "the list of permits ends there"},
    {"GetAdaptersAddresses", "* said *pre-tunnel route install ENTER*", "",
     "no tunnel is left out of the choice"},
    {"GetAdaptersAddresses", "*", "WFP: unable to resolve WireGuard adapter ifIndex for tunnelName='telvor'",
     ""},
    {"GetBestRoute2", "*", "GetBestRoute2 failed failed: {code} (", ""},
    {"GetIpForwardTable2", "* after CreateIpForwardEntry2 *",
     "AddRouteV4_32: GetIpForwardTable2 failed failed: {code} (", ""},
    {"GetIpForwardTable2", "*", " GetIpForwardTable2 failed failed: {code} (", ""},
    {"CreateIpForwardEntry2", "*", "SplitTunnelV1: add route failed for raw=[198.51.100.", ""},
    {"SetIpForwardEntry2", "*", "AddRouteV4_32: SetIpForwardEntry2 failed failed: {code} (", ""},
    {"DeleteIpForwardEntry2", "*", "DeleteIpForwardEntry2 failed failed: {code} (", ""},
};

const std::vector<Expectation> kFirewall = {
    {"FwpmEngineOpen0", "*", "WFP: FwpmEngineOpen0 failed: {code} (", ""},
    {"FwpmProviderAdd0", "*", "WFP: FwpmProviderAdd0 failed: {code} (", ""},
    {"FwpmSubLayerAdd0", "*", "WFP: FwpmSubLayerAdd0 failed: {code} (", ""},
    {"FwpmTransactionBegin0", "* said *EnsureProviderAndSublayer OK*",
     "WFP: WFP: FwpmTransactionBegin0 failed failed: {code} (", ""},
    {"FwpmTransactionBegin0", "*", "WFP: FwpmTransactionBegin0 failed: {code} (", ""},
    {"FwpmTransactionCommit0", "* said *refresh summary (baseline)*",
     "WFP: WFP: FwpmTransactionCommit0 failed failed: {code} (", ""},
    {"FwpmTransactionCommit0", "* said *refresh summary: *",
     "WFP: WFP: UpdateSplitTunnelBypassAllowlistV4 commit FAILED failed: {code} (", ""},
    {"FwpmTransactionCommit0", "*", "WFP: FwpmTransactionCommit0 failed: {code} (", ""},
    {"FwpmFilterAdd0", "*name=\"ALLOW loopback v4\"*",
     "WFP: FwpmFilterAdd0 failed (ALLOW loopback v4) failed: {code} (", ""},
    {"FwpmFilterAdd0", "*name=\"ALLOW loopback v6\"*", "WFP: AddAllowLoopbackV6 FAILED", ""},
    {"FwpmFilterAdd0", "*name=\"ALLOW DNS *", "WFP: FwpmFilterAdd0 failed (ALLOW DNS v4) failed: {code} (",
     ""},
    {"FwpmFilterAdd0", "*name=\"ALLOW WireGuard UDP *",
     "WFP: FwpmFilterAdd0 failed (ALLOW WireGuard UDP port v4) failed: {code} (", ""},
    {"FwpmFilterAdd0", "* said *AddAllowWireGuardAppUdpV4(*",
     "WFP: FwpmFilterAdd0 failed (ALLOW wireguard.exe UDP v4) failed: {code} (", ""},
    {"FwpmFilterAdd0", "* said *AddAllowWireGuardAppUdpV6(*",
     "WFP: FwpmFilterAdd0 failed (ALLOW wireguard.exe UDP v6) failed: {code} (", ""},
    {"FwpmFilterAdd0", "* said *AddAllowAppUdpV4(*",
     "WFP: FwpmFilterAdd0 failed (ALLOW app UDP v4) failed: {code} (", ""},
    {"FwpmFilterAdd0", "* said *AddAllowAppUdpV6(*",
     "WFP: FwpmFilterAdd0 failed (ALLOW app UDP v6) failed: {code} (", ""},
    {"FwpmFilterAdd0", "* said *AddAllowAllOutboundOnIfIndexV4*",
     "WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v4) failed: {code} (", ""},
    {"FwpmFilterAdd0", "* said *AddAllowAllOutboundOnIfIndexV6*",
     "WFP: FwpmFilterAdd0 failed (ALLOW ALL outbound via WG ifIndex v6) failed: {code} (", ""},
    {"FwpmFilterAdd0", "*name=\"TELVOR:ALLOW *",
     "WFP: FwpmFilterAdd0(ALLOW split-bypass v4) failed: {code} (", ""},
    {"FwpmGetAppIdFromFileName0", "* said *AddAllowWireGuardAppUdpV4(*",
     "WFP: FwpmGetAppIdFromFileName0 failed (wireguard.exe v4) failed: {code} (", ""},
    {"FwpmGetAppIdFromFileName0", "* said *AddAllowWireGuardAppUdpV6(*",
     "WFP: FwpmGetAppIdFromFileName0 failed (wireguard.exe v6) failed: {code} (", ""},
    {"FwpmGetAppIdFromFileName0", "* said *AddAllowAppUdpV4(*",
     "WFP: FwpmGetAppIdFromFileName0 failed (v4) failed: {code} (", ""},
    {"FwpmGetAppIdFromFileName0", "* said *AddAllowAppUdpV6(*",
     "WFP: FwpmGetAppIdFromFileName0 failed (v6) failed: {code} (", ""},
    {"FwpmFilterCreateEnumHandle0", "* said *UpdateSplitTunnelBypassAllowlistV4 ENTER*",
     "WFP: FwpmFilterCreateEnumHandle0 failed: {code} (", ""},
    {"FwpmFilterCreateEnumHandle0", "*", "WFP: WFP: FwpmFilterCreateEnumHandle0 failed failed: {code} (", ""},
    {"FwpmFilterEnum0", "* said *UpdateSplitTunnelBypassAllowlistV4 ENTER*",
     "WFP: FwpmFilterEnum0 failed: {code} (", ""},
    {"FwpmFilterEnum0", "*", "WFP: WFP: FwpmFilterEnum0 failed failed: {code} (", ""},
    {"FwpmFilterDeleteById0", "*", "WFP: FwpmFilterDeleteById0 failed: {code} (", ""},
    {"FwpmFilterDeleteByKey0", "*", "WFP: WFP: Filter delete failed failed: {code} (", ""},
    {"FwpmCalloutCreateEnumHandle0", "*", "WFP: WFP: FwpmCalloutCreateEnumHandle0 failed failed: {code} (",
     ""},
    {"FwpmCalloutEnum0", "*", "WFP: WFP: FwpmCalloutEnum0 failed failed: {code} (", ""},
    {"FwpmCalloutDeleteByKey0", "*", "WFP: WFP: Callout delete failed failed: {code} (", ""},
    {"FwpmSubLayerDeleteByKey0", "*", "WFP: WFP: FwpmSubLayerDeleteByKey0 failed failed: {code} (", ""},
    {"FwpmProviderDeleteByKey0", "*", "WFP: WFP: FwpmProviderDeleteByKey0 failed failed: {code} (", ""},
};

const std::vector<Expectation> kRequests = {
    {"WinHttpCrackUrl", "*verb=\"GET\"*", "CrackUrl: https://cp.telvor.test", ""},
    {"WinHttpOpen", "*verb=\"GET\"*", "WinHttpOpen: https://cp.telvor.test", ""},
    {"WinHttpConnect", "*verb=\"GET\"*", "WinHttpConnect: cp.telvor.test", ""},
    {"WinHttpOpenRequest", "*verb=\"GET\"*", "WinHttpOpenRequest: /v1/", ""},
    {"WinHttpSendRequest", "*verb=\"GET\"*", "WinHttpSendRequest FAILED gle={code} host=cp.telvor.test", ""},
    {"WinHttpReceiveResponse", "*verb=\"GET\"*", "WinHttpReceiveResponse failed GLE={code}", ""},
    {"WinHttpQueryHeaders", "*verb=\"GET\"*", "HTTP GET status=0 body-head=", ""},
    {"*", "*verb=\"GET\" path=\"/v1/auth/registered*", "is-registered transport failure", ""},
    {"*", "*verb=\"GET\" path=\"/v1/me/entitlement\"*", "entitlement transport failure", ""},
    {"*", "*verb=\"GET\" path=\"/v1/me/quota\"*", "quota transport failure", ""},
    {"*", "*verb=\"GET\" path=\"/v1/servers/locations\"*", "CpGetServerLocations: HTTP 200 head=", ""},
    {"*", "*verb=\"GET\" path=\"/v1/devices/*/wg-profile\"*", "Bootstrap: wg-profile HTTP 200 head=", ""},
    {"WinHttpSendRequest", "*verb=\"POST\"*", "HttpPostUtf8 transport failure failed: {code} (", ""},
    {"WinHttpReceiveResponse", "*verb=\"POST\"*", "HttpPostUtf8 transport failure failed: {code} (", ""},
    {"*", "*verb=\"POST\" path=\"/v1/auth/login\"*", "login transport failure|login non-2xx: 0", ""},
    {"*", "*verb=\"POST\" path=\"/v1/auth/register\"*", "register transport failure|register non-2xx: 0", ""},
    {"*", "*verb=\"POST\" path=\"/v1/auth/refresh\"*", "refresh transport failure|refresh non-2xx: 0", ""},
    {"*", "*verb=\"POST\" path=\"/v1/auth/password/reset/start\"*",
     "password reset start transport failure|password reset start non-2xx: 0", ""},
    {"*", "*verb=\"POST\" path=\"/v1/auth/password/reset/confirm\"*",
     "password reset confirm transport failure|password reset confirm non-2xx: 0", ""},
    {"*", "*verb=\"POST\" path=\"/v1/billing/checkout\"*", "checkout transport failure|checkout non-2xx: 0",
     ""},
    {"*", "*verb=\"POST\" path=\"/v1/devices\"*",
     "EnsureDeviceRegistered: failed (transport)|EnsureDeviceRegistered: HTTP 201 head=", ""},
    {"WinHttpQueryDataAvailable|WinHttpReadData", "*verb=\"PUT\"*", "", kBrokenOff},
    {"*", "*verb=\"PUT\" path=\"/v1/devices/*/wg-key\"*", "EnsureWgKeyUploaded: failed (transport)", ""},
    {"*", "*verb=\"PUT\" path=\"/v1/devices/*/wg-server\"*",
     "CpSelectServer: PUT failed HTTP 0 path=|CpSelectServer: PUT non-2xx HTTP 0 path=", ""},
};

// Closing calls: nobody looks at their results, and what stays open goes with the process.
const std::vector<Expectation> kClosing = {
    {"CloseHandle", "*\\telvor.conf.tmp\"*", "Bootstrap: failed writing wg conf", "", kNewProcess},
    {"CloseHandle", "*\\wg_client_privatekey.txt.tmp\"*",
     "RotateActiveBootstrapWgKeypair: failed writing wg_client_privatekey.txt", "", kNewProcess},
    {"CloseHandle", "*\\wg_client_publickey.txt.tmp\"*",
     "RotateActiveBootstrapWgKeypair: failed writing wg_client_publickey.txt|Bootstrap: wg public key failed",
     "", kNewProcess},
    {"CloseHandle", "*<- CreateFileW *\\auth\\*", "", "others find the file in use", kNewProcess},
    {"CloseHandle", "*<- CreateFileW *\\runtime.dat*", "", "others find the file in use", kNewProcess},
    {"CloseHandle", "*<- CreatePipe*", "", "its reader waits for an end that does not come", kNewProcess},
    {"CloseHandle|CloseServiceHandle|FindClose|WinHttpCloseHandle", "*", "", kNotLookedAt},
    {"FwpmEngineClose0|FwpmFilterDestroyEnumHandle0|FwpmCalloutDestroyEnumHandle0", "*", "", kNotLookedAt},
};

bool IsOneOf(const std::string& operation, const char* operations) {
  if (std::string_view(operations) == "*") return operation.starts_with("WinHttp");
  const char* name = operation.c_str();
  for (const char* at = std::strstr(operations, name); at; at = std::strstr(at + 1, name)) {
    const char next = at[operation.size()];
    if ((at == operations || at[-1] == '|') && (next == '|' || next == '\0')) return true;
  }
  return false;
}

}  // namespace

const std::vector<Expectation>& Expectations() {
  static const std::vector<Expectation> gAll = [] {
    std::vector<Expectation> all;
    for (const auto* part : {&kLog, &kServiceHost, &kPipe, &kClosing, &kFiles, &kKeysAndTexts, &kTunnel,
                             &kNetwork, &kFirewall, &kRequests}) {
      all.insert(all.end(), part->begin(), part->end());
    }
    return all;
  }();
  return gAll;
}

const Expectation* FindExpectation(const std::string& operation, const Place& place) {
  for (const Expectation& expectation : Expectations()) {
    if (IsOneOf(operation, expectation.operations) && Fits(expectation.place, place)) return &expectation;
  }
  return nullptr;
}

uint32_t CodeOf(const std::string& operation) {
  static constexpr struct {
    const char* operations;  // a pattern
    uint32_t code;
  } kCodes[] = {
      {"CreateFileW", 32},           // somebody has it open
      {"WriteFile", 112},            // the disk is full
      {"ReadFile", 23},              // the disk is broken
      {"CreateDirectoryW", 5},       // no rights
      {"DeleteFileW", 32},           // somebody has it open
      {"MoveFileExW", 5},            // no rights
      {"CryptUnprotectData", 13},    // not sealed here
      {"CreateThread", 8},           // no memory
      {"CreatePipe", 8},             // no memory
      {"CreateProcessW", 2},         // not installed
      {"OpenSCManagerW", 5},         // no rights
      {"OpenServiceW", 5},           // no rights
      {"EnumServicesStatusExW", 5},  // no rights
      {"StartServiceW", 1058},       // disabled
      {"StartServiceCtrlDispatcherW", 1056},
      {"GetAddrInfoW", 11001},   // no such host
      {"WSAStartup", 10091},     // the network is not ready
      {"Get*2", 1231},           // no network
      {"*IpForwardEntry2", 87},  // no such interface
      {"Fwpm*", 1753},           // the engine does not run
      {"WinHttp*", 12030},       // the connection broke
      {"ConnectNamedPipe", 232},
      {"CreateNamedPipeW", 231},  // all instances are busy
  };
  for (const auto& row : kCodes) {
    if (Fits(row.operations, operation)) return row.code;
  }
  return 31;  // a device does not work
}

size_t HandlesLeftBy(const std::string& operation, bool pipeBefore) {
  // What was made before stays open when a runner's second pipe, or what follows it, fails.
  if (operation == "CreatePipe") return pipeBefore ? 2 : 0;
  if (operation == "SetHandleInformation") return 4;
  // The last rows are those of the calls that close one handle each.
  const bool closes = IsOneOf(operation, kClosing.back().operations) ||
                      IsOneOf(operation, kClosing[kClosing.size() - 2].operations);
  return closes ? 1 : 0;
}

}  // namespace faults
