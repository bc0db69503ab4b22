#include "ipc/replies.h"

#include "controlplane/json_text.h"
#include "controlplane/text.h"

namespace {

std::string Envelope(int32_t id, const std::string& result, const std::string& error) {
  return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"result\":" + result +
         ",\"error\":" + error + "}";
}

}  // namespace

std::string JsonQuote(std::string_view text) {
  return "\"" + JsonEscape(text) + "\"";
}

std::string JsonQuoteOrNull(const std::string& text) {
  return text.empty() ? "null" : JsonQuote(text);
}

const char* JsonWord(bool value) {
  return value ? "true" : "false";
}

std::string QuotedMessage(const std::wstring& error, const char* fallback) {
  return JsonQuote(error.empty() ? fallback : WideToUtf8(error));
}

std::string ResultReply(int32_t id, const std::string& result) {
  return Envelope(id, result, "null");
}

std::string ErrorReply(int32_t id, const std::string& message) {
  return ResultAndErrorReply(id, "null", JsonQuote(message));
}

std::string ResultAndErrorReply(int32_t id, const std::string& result, const std::string& quotedMessage) {
  return Envelope(id, result, "{\"message\":" + quotedMessage + "}");
}
