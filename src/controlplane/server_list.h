// The two scanners for the catalogue's `servers` array.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "engine/tunnel_state.h"

// The texts of the objects of the array behind `"servers":`, braces included. True if the array was walked to
// its closing bracket.
bool ExtractServersArrayObjects(std::string_view body, std::vector<std::string_view>& objects);

// A bare JSON number without exponent. On false `value` is untouched.
bool ExtractJsonNumberField(std::string_view object, const char* key, double& value);

// The records of the array, in its order, also those without an id. False, and no records, where
// ExtractServersArrayObjects is.
bool ReadServerRecords(std::string_view body, std::vector<ServerRecord>& servers);

// The fields that an object of the catalogue shares with the tunnel profile.
void ReadServerFields(std::string_view text, ServerRecord& server);
