// The address to pay at.
#include "controlplane/account.h"
#include "fuzz/naive_json.h"
#include "fuzz/target.h"

namespace fuzz {
namespace {

std::string NaiveCheckout(const std::string& answer) {
  for (const char* key : {"checkout_url", "checkoutUrl", "url"}) {
    if (const auto url = NaiveUrl(answer, key)) return *url;
  }
  const size_t start = answer.find("https://");
  std::string url;
  for (size_t at = start; at < answer.size(); ++at) {
    const char byte = answer[at];
    if (byte == ' ' || byte == '"' || byte == '\t' || byte == '\n' || byte == '\r') break;
    url += byte;
  }
  return url;
}

}  // namespace

void RunCheckout(const std::string& bytes) {
  std::string url = "left over";
  const bool found = ExtractCheckoutUrl(bytes, url);
  const std::string expected = NaiveCheckout(bytes);
  Require(found == !expected.empty() && url == expected, "ExtractCheckoutUrl gave " + url);
}

}  // namespace fuzz
