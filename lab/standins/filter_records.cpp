#include "filter_records.h"

#include <rpc.h>

#include <cstring>
#include <stdexcept>

namespace {

using nlohmann::json;

// A root has a line of its own before it, so that it stays aligned for any record.
struct alignas(16) RootHeader {
  HANDLE heap;
};

struct TypeName {
  FWP_DATA_TYPE type;
  const char* name;
};

constexpr TypeName kTypeNames[] = {
    {FWP_EMPTY, "FWP_EMPTY"},
    {FWP_UINT8, "FWP_UINT8"},
    {FWP_UINT16, "FWP_UINT16"},
    {FWP_UINT32, "FWP_UINT32"},
    {FWP_UINT64, "FWP_UINT64"},
    {FWP_BYTE_ARRAY16_TYPE, "FWP_BYTE_ARRAY16_TYPE"},
    {FWP_BYTE_BLOB_TYPE, "FWP_BYTE_BLOB_TYPE"},
    {FWP_V4_ADDR_MASK, "FWP_V4_ADDR_MASK"},
    {FWP_V6_ADDR_MASK, "FWP_V6_ADDR_MASK"},
};

const char* NameOf(FWP_DATA_TYPE type) {
  for (const TypeName& entry : kTypeNames) {
    if (entry.type == type) return entry.name;
  }
  throw std::invalid_argument("a value of this type is not carried");
}

FWP_DATA_TYPE TypeOf(const std::string& name) {
  for (const TypeName& entry : kTypeNames) {
    if (name == entry.name) return entry.type;
  }
  return FWP_EMPTY;
}

std::string HexOf(const UINT8* bytes, size_t size) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(size * 2);
  for (size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

UINT8 DigitOf(char digit) {
  return static_cast<UINT8>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

// Writes the bytes of a hexadecimal text that HexOf made.
void BytesOf(const std::string& hex, UINT8* bytes) {
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes[i / 2] = static_cast<UINT8>(DigitOf(hex[i]) << 4 | DigitOf(hex[i + 1]));
  }
}

GUID GuidFromText(const std::string& text) {
  GUID guid = {};
  std::string copy = text;
  UuidFromStringA(reinterpret_cast<RPC_CSTR>(copy.data()), &guid);
  return guid;
}

json GuidOrNull(const GUID* guid) {
  return guid ? json(GuidToText(*guid)) : json(nullptr);
}

json TextOrNull(const wchar_t* text) {
  return text ? json(WideToUtf8(text)) : json(nullptr);
}

json BlobOrNull(const FWP_BYTE_BLOB& blob) {
  return blob.data ? json(HexOf(blob.data, blob.size)) : json(nullptr);
}

json DisplayDataToJson(const FWPM_DISPLAY_DATA0& data) {
  return {{"name", TextOrNull(data.name)}, {"description", TextOrNull(data.description)}};
}

// The members that FWP_VALUE0 and FWP_CONDITION_VALUE0 share.
template <typename Value>
json SharedValueToJson(const Value& value) {
  switch (value.type) {
    case FWP_UINT8:
      return value.uint8;
    case FWP_UINT16:
      return value.uint16;
    case FWP_UINT32:
      return value.uint32;
    case FWP_UINT64:
      return *value.uint64;
    case FWP_BYTE_ARRAY16_TYPE:
      return HexOf(value.byteArray16->byteArray16, sizeof(value.byteArray16->byteArray16));
    case FWP_BYTE_BLOB_TYPE:
      return HexOf(value.byteBlob->data, value.byteBlob->size);
    default:
      return nullptr;
  }
}

json ValueToJson(const FWP_VALUE0& value) {
  return {{"type", NameOf(value.type)}, {"value", SharedValueToJson(value)}};
}

json ValueToJson(const FWP_CONDITION_VALUE0& value) {
  json content = SharedValueToJson(value);
  if (value.type == FWP_V4_ADDR_MASK) {
    content = {{"addr", value.v4AddrMask->addr}, {"mask", value.v4AddrMask->mask}};
  } else if (value.type == FWP_V6_ADDR_MASK) {
    content = {{"addr", HexOf(value.v6AddrMask->addr, sizeof(value.v6AddrMask->addr))},
               {"prefixLength", value.v6AddrMask->prefixLength}};
  }
  return {{"type", NameOf(value.type)}, {"value", content}};
}

template <typename T>
T* New(Batch* batch) {
  return static_cast<T*>(Reserve(batch, sizeof(T)));
}

GUID* NewGuid(const json& value, Batch* batch) {
  if (value.is_null()) return nullptr;
  GUID* const guid = New<GUID>(batch);
  *guid = GuidFromText(value);
  return guid;
}

wchar_t* NewText(const json& value, Batch* batch) {
  if (value.is_null()) return nullptr;
  const std::wstring text = Utf8ToWide(value.get<std::string>());
  auto* const copy = static_cast<wchar_t*>(Reserve(batch, (text.size() + 1) * sizeof(wchar_t)));
  std::memcpy(copy, text.c_str(), text.size() * sizeof(wchar_t));
  return copy;
}

FWP_BYTE_BLOB NewBlob(const json& value, Batch* batch) {
  if (value.is_null()) return {0, nullptr};
  const auto hex = value.get<std::string>();
  const FWP_BYTE_BLOB blob = {static_cast<UINT32>(hex.size() / 2),
                              static_cast<UINT8*>(Reserve(batch, hex.size() / 2))};
  BytesOf(hex, blob.data);
  return blob;
}

FWPM_DISPLAY_DATA0 NewDisplayData(const json& value, Batch* batch) {
  return {NewText(value.at("name"), batch), NewText(value.at("description"), batch)};
}

template <typename Value>
void SharedValueFromJson(const json& content, Batch* batch, Value* value) {
  switch (value->type) {
    case FWP_UINT8:
      value->uint8 = content.get<UINT8>();
      break;
    case FWP_UINT16:
      value->uint16 = content.get<UINT16>();
      break;
    case FWP_UINT32:
      value->uint32 = content.get<UINT32>();
      break;
    case FWP_UINT64:
      value->uint64 = New<UINT64>(batch);
      *value->uint64 = content.get<UINT64>();
      break;
    case FWP_BYTE_ARRAY16_TYPE:
      value->byteArray16 = New<FWP_BYTE_ARRAY16>(batch);
      BytesOf(content, value->byteArray16->byteArray16);
      break;
    case FWP_BYTE_BLOB_TYPE:
      value->byteBlob = New<FWP_BYTE_BLOB>(batch);
      *value->byteBlob = NewBlob(content, batch);
      break;
    default:
      break;
  }
}

void ValueFromJson(const json& value, Batch* batch, FWP_VALUE0* result) {
  result->type = TypeOf(value.at("type"));
  SharedValueFromJson(value.at("value"), batch, result);
}

void ValueFromJson(const json& value, Batch* batch, FWP_CONDITION_VALUE0* result) {
  const json& content = value.at("value");
  result->type = TypeOf(value.at("type"));
  SharedValueFromJson(content, batch, result);
  if (result->type == FWP_V4_ADDR_MASK) {
    result->v4AddrMask = New<FWP_V4_ADDR_AND_MASK>(batch);
    *result->v4AddrMask = {content.at("addr").get<UINT32>(), content.at("mask").get<UINT32>()};
  } else if (result->type == FWP_V6_ADDR_MASK) {
    result->v6AddrMask = New<FWP_V6_ADDR_AND_MASK>(batch);
    BytesOf(content.at("addr"), result->v6AddrMask->addr);
    result->v6AddrMask->prefixLength = content.at("prefixLength").get<UINT8>();
  }
}

}  // namespace

Batch* MakeBatch() {
  const HANDLE heap = HeapCreate(0, 0, 0);
  if (!heap) return nullptr;
  auto* const batch = static_cast<Batch*>(HeapAlloc(heap, HEAP_ZERO_MEMORY, sizeof(Batch)));
  batch->heap = heap;
  return batch;
}

void* Reserve(Batch* batch, size_t bytes) {
  void* const room = HeapAlloc(batch->heap, HEAP_ZERO_MEMORY, bytes);
  if (!room) throw std::bad_alloc();
  return room;
}

void* ReserveRoot(Batch* batch, size_t bytes) {
  auto* const header = static_cast<RootHeader*>(Reserve(batch, sizeof(RootHeader) + bytes));
  header->heap = batch->heap;
  return header + 1;
}

void ReleaseBatch(void* root) {
  if (root) HeapDestroy((static_cast<RootHeader*>(root) - 1)->heap);
}

std::string GuidToText(const GUID& guid) {
  RPC_CSTR text = nullptr;
  UUID id = guid;
  UuidToStringA(&id, &text);
  std::string copy = reinterpret_cast<const char*>(text);
  RpcStringFreeA(&text);
  return copy;
}

json ToJson(const FWPM_SESSION0& record) {
  return {{"sessionKey", GuidToText(record.sessionKey)},
          {"displayData", DisplayDataToJson(record.displayData)},
          {"flags", record.flags},
          {"txnWaitTimeoutInMSec", record.txnWaitTimeoutInMSec},
          {"processId", record.processId},
          {"sid", record.sid ? json("given") : json(nullptr)},
          {"username", TextOrNull(record.username)},
          {"kernelMode", record.kernelMode}};
}

json ToJson(const FWPM_PROVIDER0& record) {
  return {{"providerKey", GuidToText(record.providerKey)},
          {"displayData", DisplayDataToJson(record.displayData)},
          {"flags", record.flags},
          {"providerData", BlobOrNull(record.providerData)},
          {"serviceName", TextOrNull(record.serviceName)}};
}

json ToJson(const FWPM_SUBLAYER0& record) {
  return {{"subLayerKey", GuidToText(record.subLayerKey)},
          {"displayData", DisplayDataToJson(record.displayData)},
          {"flags", record.flags},
          {"providerKey", GuidOrNull(record.providerKey)},
          {"providerData", BlobOrNull(record.providerData)},
          {"weight", record.weight}};
}

json ToJson(const FWPM_CALLOUT0& record) {
  return {{"calloutKey", GuidToText(record.calloutKey)},
          {"displayData", DisplayDataToJson(record.displayData)},
          {"flags", record.flags},
          {"providerKey", GuidOrNull(record.providerKey)},
          {"providerData", BlobOrNull(record.providerData)},
          {"applicableLayer", GuidToText(record.applicableLayer)},
          {"calloutId", record.calloutId}};
}

json ToJson(const FWPM_FILTER0& record) {
  json conditions = json::array();
  for (UINT32 i = 0; i < record.numFilterConditions; ++i) {
    const FWPM_FILTER_CONDITION0& condition = record.filterCondition[i];
    conditions.push_back({{"fieldKey", GuidToText(condition.fieldKey)},
                          {"matchType", static_cast<UINT32>(condition.matchType)},
                          {"conditionValue", ValueToJson(condition.conditionValue)}});
  }
  return {{"filterKey", GuidToText(record.filterKey)},
          {"displayData", DisplayDataToJson(record.displayData)},
          {"flags", record.flags},
          {"providerKey", GuidOrNull(record.providerKey)},
          {"providerData", BlobOrNull(record.providerData)},
          {"layerKey", GuidToText(record.layerKey)},
          {"subLayerKey", GuidToText(record.subLayerKey)},
          {"weight", ValueToJson(record.weight)},
          {"filterCondition", conditions},
          {"action", {{"type", record.action.type}, {"calloutKey", GuidToText(record.action.calloutKey)}}},
          {"rawContext", record.rawContext},
          {"filterId", record.filterId},
          {"effectiveWeight", ValueToJson(record.effectiveWeight)}};
}

void FromJson(const json& value, Batch* batch, FWPM_PROVIDER0* record) {
  record->providerKey = GuidFromText(value.at("providerKey"));
  record->displayData = NewDisplayData(value.at("displayData"), batch);
  record->flags = value.at("flags").get<UINT32>();
  record->providerData = NewBlob(value.at("providerData"), batch);
  record->serviceName = NewText(value.at("serviceName"), batch);
}

void FromJson(const json& value, Batch* batch, FWPM_SUBLAYER0* record) {
  record->subLayerKey = GuidFromText(value.at("subLayerKey"));
  record->displayData = NewDisplayData(value.at("displayData"), batch);
  record->flags = value.at("flags").get<UINT16>();
  record->providerKey = NewGuid(value.at("providerKey"), batch);
  record->providerData = NewBlob(value.at("providerData"), batch);
  record->weight = value.at("weight").get<UINT16>();
}

void FromJson(const json& value, Batch* batch, FWPM_CALLOUT0* record) {
  record->calloutKey = GuidFromText(value.at("calloutKey"));
  record->displayData = NewDisplayData(value.at("displayData"), batch);
  record->flags = value.at("flags").get<UINT32>();
  record->providerKey = NewGuid(value.at("providerKey"), batch);
  record->providerData = NewBlob(value.at("providerData"), batch);
  record->applicableLayer = GuidFromText(value.at("applicableLayer"));
  record->calloutId = value.at("calloutId").get<UINT32>();
}

void FromJson(const json& value, Batch* batch, FWPM_FILTER0* record) {
  const json& conditions = value.at("filterCondition");
  record->filterKey = GuidFromText(value.at("filterKey"));
  record->displayData = NewDisplayData(value.at("displayData"), batch);
  record->flags = value.at("flags").get<UINT32>();
  record->providerKey = NewGuid(value.at("providerKey"), batch);
  record->providerData = NewBlob(value.at("providerData"), batch);
  record->layerKey = GuidFromText(value.at("layerKey"));
  record->subLayerKey = GuidFromText(value.at("subLayerKey"));
  ValueFromJson(value.at("weight"), batch, &record->weight);
  record->numFilterConditions = static_cast<UINT32>(conditions.size());
  record->filterCondition = static_cast<FWPM_FILTER_CONDITION0*>(
      Reserve(batch, conditions.size() * sizeof(FWPM_FILTER_CONDITION0)));
  for (size_t i = 0; i < conditions.size(); ++i) {
    FWPM_FILTER_CONDITION0& condition = record->filterCondition[i];
    condition.fieldKey = GuidFromText(conditions[i].at("fieldKey"));
    condition.matchType = static_cast<FWP_MATCH_TYPE>(conditions[i].at("matchType").get<int>());
    ValueFromJson(conditions[i].at("conditionValue"), batch, &condition.conditionValue);
  }
  record->action.type = value.at("action").at("type").get<FWP_ACTION_TYPE>();
  record->action.calloutKey = GuidFromText(value.at("action").at("calloutKey"));
  record->rawContext = value.at("rawContext").get<UINT64>();
  record->filterId = value.at("filterId").get<UINT64>();
  ValueFromJson(value.at("effectiveWeight"), batch, &record->effectiveWeight);
}
