#include "fault_operations.h"

#include <iterator>

namespace simulator {
namespace {

constexpr uint32_t kAccessDenied = 5;
constexpr uint32_t kNoMemory = 8;
constexpr uint32_t kSharing = 32;
constexpr uint32_t kDiskFull = 112;
constexpr uint32_t kNoSuchName = 11001;
constexpr uint32_t kTimeout = 12002;
constexpr uint32_t kEngineDown = 1722;  // RPC_S_SERVER_UNAVAILABLE

constexpr FaultOperation kOperations[] = {
    {"CreateDirectoryW", kAccessDenied, true},
    {"CreateFileW", kSharing, true},
    {"WriteFile", kDiskFull, true},
    {"ReadFile", kAccessDenied, true},
    {"MoveFileExW", kAccessDenied, true},
    {"DeleteFileW", kAccessDenied, true},
    {"FlushFileBuffers", kDiskFull, true},
    {"GetFileSizeEx", kAccessDenied, true},
    {"GetFileAttributesW", kAccessDenied, true},
    {"CryptUnprotectData", 13, true},
    {"CryptProtectData", kNoMemory, true},
    {"CryptStringToBinaryA", 13, true},
    {"CryptBinaryToStringA", kNoMemory, true},
    {"BCryptGenRandom", 0xC0000001, true},
    {"GetComputerNameW", kAccessDenied, true},
    {"WinHttpOpen", kNoMemory, true},
    {"WinHttpConnect", kNoMemory, true},
    {"WinHttpOpenRequest", kNoMemory, true},
    {"WinHttpSetTimeouts", kNoMemory, true},
    {"WinHttpSendRequest", kTimeout, true},
    {"WinHttpWriteData", kTimeout, true},
    {"WinHttpReceiveResponse", kTimeout, true},
    {"WinHttpQueryHeaders", kNoMemory, true},
    {"WinHttpQueryDataAvailable", kTimeout, true},
    {"WinHttpReadData", kTimeout, true},
    {"WinHttpCrackUrl", 12005, true},
    {"OpenSCManagerW", kAccessDenied, true},
    {"OpenServiceW", kAccessDenied, true},
    {"QueryServiceStatusEx", kAccessDenied, true},
    {"StartServiceW", kAccessDenied, true},
    {"ControlService", kAccessDenied, true},
    {"EnumServicesStatusExW", kAccessDenied, true},
    {"CreateProcessW", kNoMemory, true},
    {"CreatePipe", kNoMemory, true},
    {"SetHandleInformation", kAccessDenied, true},
    {"GetExitCodeProcess", kAccessDenied, true},
    {"GetAddrInfoW", kNoSuchName, true},
    {"InetPtonW", kNoMemory, true},
    {"InetNtopW", kNoMemory, true},
    {"GetAdaptersAddresses", kNoMemory, true},
    {"GetIpForwardTable2", kNoMemory, true},
    {"GetBestRoute2", kNoMemory, true},
    {"CreateIpForwardEntry2", kAccessDenied, true},
    {"SetIpForwardEntry2", kAccessDenied, true},
    {"DeleteIpForwardEntry2", kAccessDenied, true},
    {"FwpmEngineOpen0", kEngineDown, true},
    {"FwpmTransactionBegin0", kEngineDown, true},
    {"FwpmTransactionCommit0", kEngineDown, true},
    {"FwpmTransactionAbort0", kEngineDown, true},
    {"FwpmFilterAdd0", kEngineDown, true},
    {"FwpmProviderAdd0", kEngineDown, true},
    {"FwpmSubLayerAdd0", kEngineDown, true},
    {"FwpmFilterCreateEnumHandle0", kEngineDown, true},
    {"FwpmFilterEnum0", kEngineDown, true},
    {"FwpmFilterDeleteByKey0", kEngineDown, true},
    {"FwpmFilterDeleteById0", kEngineDown, true},
    {"FwpmSubLayerDeleteByKey0", kEngineDown, true},
    {"FwpmProviderDeleteByKey0", kEngineDown, true},
    {"FwpmCalloutCreateEnumHandle0", kEngineDown, true},
    {"FwpmCalloutEnum0", kEngineDown, true},
    {"FwpmGetAppIdFromFileName0", 2, true},
    {"GetEnvironmentVariableW", 203, true},
    {"MultiByteToWideChar", 1113, false},
    {"WideCharToMultiByte", 1113, false},
    {"FormatMessageW", 317, true},
    {"FindFirstFileW", kAccessDenied, true},
    {"GetNamedSecurityInfoW", kAccessDenied, true},
    {"SetNamedSecurityInfoW", kAccessDenied, true},
    {"WSAStartup", 10091, false},
    {"CreateThread", kNoMemory, false},
    {"CreateEventW", kNoMemory, false},
    {"SetEvent", 6, false},
    {"SetServiceStatus", 6, false},
    {"RegisterServiceCtrlHandlerExW", 1060, false},
    {"WaitForSingleObject", 6, false},
    {"WaitForMultipleObjects", 6, false},
    {"CreateNamedPipeW", kAccessDenied, true},
    {"ConnectNamedPipe", 232, true},
    {"DisconnectNamedPipe", 233, false},
    {"_time64", 0, false},
};

}  // namespace

const FaultOperation& FaultOperationAt(size_t index) {
  return kOperations[index % std::size(kOperations)];
}

size_t FaultOperationCount() {
  return std::size(kOperations);
}

}  // namespace simulator
