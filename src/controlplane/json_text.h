// JSON as flat text: readers that search the raw bytes for a quoted key and take what stands after the next
// colon. They know no nesting, no types and, but for ExtractJsonUrlField, no escapes, and callers depend on
// just that. None of them logs; on false the output is at its cleared state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The raw bytes between the first two double quotes behind the key's colon.
bool JsonGetString(std::string_view text, const char* key, std::string& value);

// The text behind the key's colon: white space is skipped, the next byte must be its opening quote, a missing
// closing one is tolerated, escapes are undone and the ends trimmed. False if nothing is left.
bool ExtractJsonUrlField(std::string_view text, const char* key, std::string& value);

// Digits behind the colon, blanks and tabs skipped; wraps silently.
bool JsonGetInt64(std::string_view text, const char* key, int64_t& value);

// 1 or 0; a longer word that begins with true or false counts.
bool JsonGetBool(std::string_view text, const char* key, uint8_t& value);

// The second half of JsonGetBool, for a colon that is known already.
bool JsonBoolBehind(std::string_view text, size_t colon, uint8_t& value);

// The key is persistent_keepalive. Sets the output to 0 before it looks.
bool JsonGetPersistentKeepalive(std::string_view text, uint32_t& value);

// All quoted texts between the first '[' behind the key and the first ']' behind that.
bool JsonGetStringArray(std::string_view text, const char* key, std::vector<std::string>& values);

// Escapes the two quoting characters and everything below 32; bytes from 128 up go through. No quotes around
// it.
std::string JsonEscape(std::string_view text);
void AppendJsonEscaped(std::string_view text, std::string& escaped);

// A member of a request's object: the key and the value, in UTF-8 and escaped, each in quotes.
std::string JsonMember(const char* key, const std::wstring& value);
