// The records of the filtering engine, between the FWPM structures and the agent's JSON. Members keep their
// names; lab/agent/records.py tells the form.
#pragma once

// agent_client.h brings winsock2.h, which must come before the headers behind it.
#include "agent_client.h"
// clang-format off
#include <fwpmu.h>
// clang-format on

// Memory that is released all at once. Every batch and app id that leaves this library is one, found again by
// the pointer that the caller got.
struct Batch {
  HANDLE heap;
};

// Makes a batch; nullptr when there is no memory.
Batch* MakeBatch();

// Room in the batch, zeroed.
void* Reserve(Batch* batch, size_t bytes);

// The caller's pointer: room that ReleaseBatch knows again.
void* ReserveRoot(Batch* batch, size_t bytes);

// Releases a batch by the pointer that ReserveRoot gave; nullptr is harmless.
void ReleaseBatch(void* root);

std::string GuidToText(const GUID& guid);

// To JSON. A value of a type that is not carried throws std::invalid_argument.
nlohmann::json ToJson(const FWPM_SESSION0& record);
nlohmann::json ToJson(const FWPM_PROVIDER0& record);
nlohmann::json ToJson(const FWPM_SUBLAYER0& record);
nlohmann::json ToJson(const FWPM_CALLOUT0& record);
nlohmann::json ToJson(const FWPM_FILTER0& record);

// From JSON, with everything that the record points to in the batch.
void FromJson(const nlohmann::json& json, Batch* batch, FWPM_PROVIDER0* record);
void FromJson(const nlohmann::json& json, Batch* batch, FWPM_SUBLAYER0* record);
void FromJson(const nlohmann::json& json, Batch* batch, FWPM_CALLOUT0* record);
void FromJson(const nlohmann::json& json, Batch* batch, FWPM_FILTER0* record);
