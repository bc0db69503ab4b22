#include "ipc/subscription_methods.h"

#include "controlplane/account.h"
#include "controlplane/auth.h"
#include "controlplane/base_url.h"
#include "controlplane/text.h"
#include "engine/operations.h"
#include "ipc/replies.h"

namespace {

constexpr char kAuthRequired[] = "auth required";

bool HaveToken(std::wstring& token, std::wstring& error) {
  return EnsureValidAccessToken(gCpBaseUrl, token, error) && !token.empty();
}

// The result of a failed call: `members` stand before its message.
std::string FailureResult(const char* members, const std::wstring& error, const char* fallback) {
  return std::string("{\"ok\":false,") + members + ",\"message\":" + QuotedMessage(error, fallback) + "}";
}

std::string EntitlementResult() {
  std::wstring token;
  std::wstring error;
  if (!HaveToken(token, error)) {
    return FailureResult(R"("payment_current":false,"status":"AUTH_REQUIRED")", error, kAuthRequired);
  }
  bool paymentCurrent = false;
  std::string status;
  std::string periodEnd;
  // A refused token ends here too, as an error and not as AUTH_REQUIRED; wanted.
  if (!CpGetEntitlement(token, paymentCurrent, status, periodEnd, error)) {
    return FailureResult(R"("payment_current":false,"status":"ERROR")", error, "entitlement failed");
  }
  return std::string("{\"ok\":true,\"payment_current\":") + JsonWord(paymentCurrent) +
         ",\"status\":" + JsonQuote(status) + ",\"period_end\":" + JsonQuoteOrNull(TrimAscii(periodEnd)) +
         "}";
}

std::string QuotaResult() {
  constexpr char kMembers[] = R"("quota_current":false)";
  std::wstring token;
  std::wstring error;
  if (!HaveToken(token, error)) return FailureResult(kMembers, error, kAuthRequired);
  bool quotaCurrent = false;
  if (!CpGetQuota(token, quotaCurrent, error)) return FailureResult(kMembers, error, "quota check failed");
  return std::string("{\"ok\":true,\"quota_current\":") + JsonWord(quotaCurrent) + "}";
}

std::string CheckoutResult() {
  constexpr char kMembers[] = R"("checkout_url":null)";
  std::wstring token;
  std::wstring error;
  if (!HaveToken(token, error)) return FailureResult(kMembers, error, kAuthRequired);
  std::string url;
  if (!CpBillingCheckout(token, url, error)) return FailureResult(kMembers, error, "checkout failed");
  return "{\"ok\":true,\"checkout_url\":" + JsonQuote(url) + ",\"message\":\"ok\"}";
}

// Drops all trailing slashes, where NormalizeBaseUrl drops one.
std::string AccountPageBase() {
  std::string base = TrimAscii(WideToUtf8(gCpBaseUrl.empty() ? kDefaultCpBaseUrl : gCpBaseUrl));
  base.erase(base.find_last_not_of('/') + 1);
  return base;
}

std::string AccountPageResult() {
  std::wstring token;
  std::wstring error;
  if (!HaveToken(token, error)) return FailureResult(R"("account_url":null)", error, kAuthRequired);
  const std::string base = AccountPageBase();
  // Wanted: whatever the tunnel's state, and the token as it is, not percent-encoded.
  gWorkerOperations.RefreshSplitTunnelRoutes();
  const std::string url = base + "/account?access_token=" + WideToUtf8(token);
  return "{\"ok\":true,\"account_url\":" + JsonQuote(url) + ",\"message\":\"ok\"}";
}

}  // namespace

bool EntitlementMethod(const PipeRequest& request, std::string& reply) {
  reply = ResultReply(request.id, EntitlementResult());
  return true;
}

bool QuotaMethod(const PipeRequest& request, std::string& reply) {
  reply = ResultReply(request.id, QuotaResult());
  return true;
}

bool BillingCheckoutMethod(const PipeRequest& request, std::string& reply) {
  reply = ResultReply(request.id, CheckoutResult());
  return true;
}

bool AccountPageUrlMethod(const PipeRequest& request, std::string& reply) {
  reply = ResultReply(request.id, AccountPageResult());
  return true;
}
