// The shapes of replies, JSON-RPC 2.0 in outward form, without line end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// A double quote, JsonEscape of the text, a double quote.
std::string JsonQuote(std::string_view text);

// The bare word null for an empty text, else JsonQuote.
std::string JsonQuoteOrNull(const std::string& text);

// The bare word true or false.
const char* JsonWord(bool value);

// JsonQuote of the error text, or of `fallback` if that is empty.
std::string QuotedMessage(const std::wstring& error, const char* fallback);

// `result` stands as given behind "result":, even when it is empty.
std::string ResultReply(int32_t id, const std::string& result);

// A null result and an error with the message.
std::string ErrorReply(int32_t id, const std::string& message);

// Both members as given; `quotedMessage` is a quoted text.
std::string ResultAndErrorReply(int32_t id, const std::string& result, const std::string& quotedMessage);
