// A stand-in for fwpuclnt.dll, of which Wine has next to nothing: the filtering engine's functions that the
// service uses, on the engine that the laboratory's agent keeps. One connection to the agent is one engine
// handle, so the end of a process closes its sessions and aborts what they had open.
#include <algorithm>
#include <cwctype>
#include <memory>
#include <stdexcept>

#include "filter_records.h"

namespace {

using nlohmann::json;

constexpr UINT32 kAuthnDefault = 0xFFFFFFFF;
constexpr DWORD kNullPointer = static_cast<DWORD>(FWP_E_NULL_POINTER);
constexpr DWORD kInvalidParameter = static_cast<DWORD>(FWP_E_INVALID_PARAMETER);
constexpr DWORD kOutOfMemory = ERROR_NOT_ENOUGH_MEMORY;

AgentConnection* ConnectionOf(HANDLE engine) {
  return static_cast<AgentConnection*>(engine);
}

json Ask(HANDLE engine, const json& request) {
  return engine ? AskAgent(ConnectionOf(engine), request) : json({{"code", ERROR_INVALID_HANDLE}});
}

DWORD Do(HANDLE engine, const json& request) {
  return CodeOf(Ask(engine, request));
}

template <typename Record, typename Id>
DWORD Add(HANDLE engine, const char* operation, const Record* record, Id* id) try {
  if (!record) return kNullPointer;
  const json answer = Ask(engine, {{"op", operation}, {"record", ToJson(*record)}});
  if (CodeOf(answer) == ERROR_SUCCESS && id) *id = answer.at("id").get<Id>();
  return CodeOf(answer);
} catch (const std::invalid_argument&) {
  return kInvalidParameter;
}

DWORD DeleteByKey(HANDLE engine, const char* operation, const GUID* key) {
  return key ? Do(engine, {{"op", operation}, {"key", GuidToText(*key)}}) : kNullPointer;
}

DWORD DeleteById(HANDLE engine, const char* operation, UINT64 id) {
  return Do(engine, {{"op", operation}, {"id", id}});
}

// Enumerates everything: a template is not carried.
DWORD CreateEnumeration(HANDLE engine, const char* operation, const void* enumTemplate, HANDLE* handle) {
  if (!handle) return kNullPointer;
  if (enumTemplate) return ERROR_NOT_SUPPORTED;
  const json answer = Ask(engine, {{"op", operation}});
  if (CodeOf(answer) == ERROR_SUCCESS) {
    *handle = reinterpret_cast<HANDLE>(answer.at("handle").get<UINT_PTR>());
  }
  return CodeOf(answer);
}

json EnumerationRequest(const char* operation, HANDLE handle) {
  return {{"op", operation}, {"handle", reinterpret_cast<UINT_PTR>(handle)}};
}

// Gives the records as one batch that FwpmFreeMemory0 releases by the pointer in entries.
template <typename Record>
DWORD Enumerate(HANDLE engine, const char* operation, HANDLE handle, UINT32 count, Record*** entries,
                UINT32* returned) {
  if (!entries || !returned) return kNullPointer;
  *entries = nullptr;
  *returned = 0;
  json request = EnumerationRequest(operation, handle);
  request["count"] = count;
  const json answer = Ask(engine, request);
  if (CodeOf(answer) != ERROR_SUCCESS) return CodeOf(answer);
  const json& records = answer.at("entries");
  Batch* const batch = MakeBatch();
  if (!batch) return kOutOfMemory;
  *entries = static_cast<Record**>(ReserveRoot(batch, (records.size() + 1) * sizeof(Record*)));
  for (const json& record : records) {
    (*entries)[*returned] = static_cast<Record*>(Reserve(batch, sizeof(Record)));
    FromJson(record, batch, (*entries)[*returned]);
    ++*returned;
  }
  return ERROR_SUCCESS;
}

DWORD DestroyEnumeration(HANDLE engine, const char* operation, HANDLE handle) {
  return Do(engine, EnumerationRequest(operation, handle));
}

// The device's name for a path with a drive, as the engine knows programs: in small letters.
std::wstring DevicePathOf(const wchar_t* path) {
  wchar_t full[MAX_PATH] = {};
  const DWORD length = GetFullPathNameW(path, MAX_PATH, full, nullptr);
  if (length < 3 || length >= MAX_PATH) return path;
  // The laboratory's machine has one volume; Wine's own name for it is not Windows'.
  std::wstring device = L"\\device\\harddiskvolume1" + std::wstring(full + 2);
  std::transform(device.begin(), device.end(), device.begin(),
                 [](wchar_t letter) { return static_cast<wchar_t>(std::towlower(letter)); });
  return device;
}

}  // namespace

extern "C" {

DWORD WINAPI FwpmEngineOpen0(const wchar_t* serverName, UINT32 authnService, SEC_WINNT_AUTH_IDENTITY_W*,
                             const FWPM_SESSION0* session, HANDLE* engineHandle) {
  if (!engineHandle) return kNullPointer;
  const bool authnKnown = authnService == RPC_C_AUTHN_WINNT || authnService == kAuthnDefault;
  if (serverName || !authnKnown) return ERROR_NOT_SUPPORTED;
  auto connection = std::make_unique<AgentConnection>();
  if (!OpenAgent(connection.get())) return EPT_S_NOT_REGISTERED;
  const FWPM_SESSION0 none = {};
  const DWORD code =
      Do(connection.get(), {{"op", "engine_open"}, {"session", ToJson(session ? *session : none)}});
  if (code != ERROR_SUCCESS) {
    CloseAgent(connection.get());
    return code;
  }
  *engineHandle = connection.release();
  return ERROR_SUCCESS;
}

DWORD WINAPI FwpmEngineClose0(HANDLE engineHandle) {
  const DWORD code = Do(engineHandle, {{"op", "engine_close"}});
  if (!engineHandle) return code;
  CloseAgent(ConnectionOf(engineHandle));
  delete ConnectionOf(engineHandle);
  return code;
}

void WINAPI FwpmFreeMemory0(void** p) {
  if (!p) return;
  ReleaseBatch(*p);
  *p = nullptr;
}

DWORD WINAPI FwpmGetAppIdFromFileName0(const wchar_t* fileName, FWP_BYTE_BLOB** appId) {
  if (!fileName || !appId) return kNullPointer;
  *appId = nullptr;
  if (GetFileAttributesW(fileName) == INVALID_FILE_ATTRIBUTES) return ERROR_FILE_NOT_FOUND;
  const std::wstring path = DevicePathOf(fileName);
  Batch* const batch = MakeBatch();
  if (!batch) return kOutOfMemory;
  auto* const blob = static_cast<FWP_BYTE_BLOB*>(ReserveRoot(batch, sizeof(FWP_BYTE_BLOB)));
  // The engine counts the closing zero.
  blob->size = static_cast<UINT32>((path.size() + 1) * sizeof(wchar_t));
  blob->data = static_cast<UINT8*>(Reserve(batch, blob->size));
  std::copy_n(reinterpret_cast<const UINT8*>(path.c_str()), blob->size, blob->data);
  *appId = blob;
  return ERROR_SUCCESS;
}

DWORD WINAPI FwpmTransactionBegin0(HANDLE engineHandle, UINT32 flags) {
  return Do(engineHandle, {{"op", "transaction_begin"}, {"flags", flags}});
}

DWORD WINAPI FwpmTransactionCommit0(HANDLE engineHandle) {
  return Do(engineHandle, {{"op", "transaction_commit"}});
}

DWORD WINAPI FwpmTransactionAbort0(HANDLE engineHandle) {
  return Do(engineHandle, {{"op", "transaction_abort"}});
}

DWORD WINAPI FwpmProviderAdd0(HANDLE engineHandle, const FWPM_PROVIDER0* provider, PSECURITY_DESCRIPTOR) {
  return Add<FWPM_PROVIDER0, UINT64>(engineHandle, "provider_add", provider, nullptr);
}

DWORD WINAPI FwpmProviderDeleteByKey0(HANDLE engineHandle, const GUID* key) {
  return DeleteByKey(engineHandle, "provider_delete", key);
}

DWORD WINAPI FwpmProviderCreateEnumHandle0(HANDLE engineHandle,
                                           const FWPM_PROVIDER_ENUM_TEMPLATE0* enumTemplate,
                                           HANDLE* enumHandle) {
  return CreateEnumeration(engineHandle, "provider_enum_create", enumTemplate, enumHandle);
}

DWORD WINAPI FwpmProviderEnum0(HANDLE engineHandle, HANDLE enumHandle, UINT32 numEntriesRequested,
                               FWPM_PROVIDER0*** entries, UINT32* numEntriesReturned) {
  return Enumerate(engineHandle, "provider_enum", enumHandle, numEntriesRequested, entries,
                   numEntriesReturned);
}

DWORD WINAPI FwpmProviderDestroyEnumHandle0(HANDLE engineHandle, HANDLE enumHandle) {
  return DestroyEnumeration(engineHandle, "provider_enum_destroy", enumHandle);
}

DWORD WINAPI FwpmSubLayerAdd0(HANDLE engineHandle, const FWPM_SUBLAYER0* subLayer, PSECURITY_DESCRIPTOR) {
  return Add<FWPM_SUBLAYER0, UINT64>(engineHandle, "sublayer_add", subLayer, nullptr);
}

DWORD WINAPI FwpmSubLayerDeleteByKey0(HANDLE engineHandle, const GUID* key) {
  return DeleteByKey(engineHandle, "sublayer_delete", key);
}

DWORD WINAPI FwpmSubLayerCreateEnumHandle0(HANDLE engineHandle,
                                           const FWPM_SUBLAYER_ENUM_TEMPLATE0* enumTemplate,
                                           HANDLE* enumHandle) {
  return CreateEnumeration(engineHandle, "sublayer_enum_create", enumTemplate, enumHandle);
}

DWORD WINAPI FwpmSubLayerEnum0(HANDLE engineHandle, HANDLE enumHandle, UINT32 numEntriesRequested,
                               FWPM_SUBLAYER0*** entries, UINT32* numEntriesReturned) {
  return Enumerate(engineHandle, "sublayer_enum", enumHandle, numEntriesRequested, entries,
                   numEntriesReturned);
}

DWORD WINAPI FwpmSubLayerDestroyEnumHandle0(HANDLE engineHandle, HANDLE enumHandle) {
  return DestroyEnumeration(engineHandle, "sublayer_enum_destroy", enumHandle);
}

DWORD WINAPI FwpmCalloutAdd0(HANDLE engineHandle, const FWPM_CALLOUT0* callout, PSECURITY_DESCRIPTOR,
                             UINT32* id) {
  return Add(engineHandle, "callout_add", callout, id);
}

DWORD WINAPI FwpmCalloutDeleteById0(HANDLE engineHandle, UINT32 id) {
  return DeleteById(engineHandle, "callout_delete", id);
}

DWORD WINAPI FwpmCalloutDeleteByKey0(HANDLE engineHandle, const GUID* key) {
  return DeleteByKey(engineHandle, "callout_delete", key);
}

DWORD WINAPI FwpmCalloutCreateEnumHandle0(HANDLE engineHandle,
                                          const FWPM_CALLOUT_ENUM_TEMPLATE0* enumTemplate,
                                          HANDLE* enumHandle) {
  return CreateEnumeration(engineHandle, "callout_enum_create", enumTemplate, enumHandle);
}

DWORD WINAPI FwpmCalloutEnum0(HANDLE engineHandle, HANDLE enumHandle, UINT32 numEntriesRequested,
                              FWPM_CALLOUT0*** entries, UINT32* numEntriesReturned) {
  return Enumerate(engineHandle, "callout_enum", enumHandle, numEntriesRequested, entries,
                   numEntriesReturned);
}

DWORD WINAPI FwpmCalloutDestroyEnumHandle0(HANDLE engineHandle, HANDLE enumHandle) {
  return DestroyEnumeration(engineHandle, "callout_enum_destroy", enumHandle);
}

DWORD WINAPI FwpmFilterAdd0(HANDLE engineHandle, const FWPM_FILTER0* filter, PSECURITY_DESCRIPTOR,
                            UINT64* id) {
  return Add(engineHandle, "filter_add", filter, id);
}

DWORD WINAPI FwpmFilterDeleteById0(HANDLE engineHandle, UINT64 id) {
  return DeleteById(engineHandle, "filter_delete", id);
}

DWORD WINAPI FwpmFilterDeleteByKey0(HANDLE engineHandle, const GUID* key) {
  return DeleteByKey(engineHandle, "filter_delete", key);
}

DWORD WINAPI FwpmFilterCreateEnumHandle0(HANDLE engineHandle, const FWPM_FILTER_ENUM_TEMPLATE0* enumTemplate,
                                         HANDLE* enumHandle) {
  return CreateEnumeration(engineHandle, "filter_enum_create", enumTemplate, enumHandle);
}

DWORD WINAPI FwpmFilterEnum0(HANDLE engineHandle, HANDLE enumHandle, UINT32 numEntriesRequested,
                             FWPM_FILTER0*** entries, UINT32* numEntriesReturned) {
  return Enumerate(engineHandle, "filter_enum", enumHandle, numEntriesRequested, entries, numEntriesReturned);
}

DWORD WINAPI FwpmFilterDestroyEnumHandle0(HANDLE engineHandle, HANDLE enumHandle) {
  return DestroyEnumeration(engineHandle, "filter_enum_destroy", enumHandle);
}

}  // extern "C"
