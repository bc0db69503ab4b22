// The readers of a request line.
#include "ipc/request_fields.h"

#include "fuzz/naive_request.h"
#include "fuzz/target.h"

namespace fuzz {

void RunRequestFields(const std::string& bytes) {
  for (const char* key : {"id", "limit", "method", "email"}) {
    int32_t number = 4711;
    const bool counted = ReadRequestInt(bytes, key, number);
    const auto expected = NaiveRequestInt(bytes, key);
    Require(counted == expected.has_value() && number == expected.value_or(4711), "ReadRequestInt");
    std::string text = "kept";
    const bool found = ReadRequestString(bytes, key, text);
    const auto value = NaiveRequestString(bytes, key);
    Require(found == value.has_value() && text == value.value_or("kept"), "ReadRequestString");
  }
}

}  // namespace fuzz
