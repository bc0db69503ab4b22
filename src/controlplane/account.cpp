#include "controlplane/account.h"

#include "controlplane/base_url.h"
#include "controlplane/device.h"
#include "controlplane/http_transport.h"
#include "controlplane/json_text.h"
#include "controlplane/text.h"
#include "service/log.h"
#include "service/paths.h"

namespace {

constexpr uint32_t kHttpUnauthorized = 401;
constexpr uint32_t kHttpConflict = 409;
constexpr int64_t kDefaultResetSeconds = 900;
constexpr int64_t kMostResetSeconds = 86400;
constexpr char kCheckoutRequest[] = R"({"provider":"stripe","plan_id":"basic_monthly"})";
constexpr char kHttpsScheme[] = "https://";
constexpr wchar_t kNoAccessToken[] = L"";

struct Answer {
  uint32_t status = 0;
  std::string body;
};

bool Fail(std::wstring& error, const std::wstring& reason) {
  error = reason;
  return false;
}

std::wstring Non2xx(const wchar_t* call, uint32_t status) {
  return std::wstring(call) + L" non-2xx: " + std::to_wstring(status);
}

std::string QueryEncoded(const std::string& text) {
  std::string encoded;
  for (const char byte : text) {
    switch (byte) {
      case '@':
        encoded += "%40";
        break;
      case '+':
        encoded += "%2B";
        break;
      case ' ':
        encoded += "%20";
        break;
      default:
        encoded += byte;  // wanted: the whole encoding
    }
  }
  return encoded;
}

bool Get(const std::wstring& path, const std::wstring& token, const wchar_t* call, Answer& answer,
         std::wstring& error) {
  if (HttpGet(CpUrl(gCpBaseUrl, path), token, answer.status, answer.body)) return true;
  return Fail(error, std::wstring(call) + L" transport failure");
}

bool Post(const wchar_t* path, const std::wstring& token, const std::string& request, const wchar_t* call,
          Answer& answer, std::wstring& error) {
  if (HttpPostUtf8(CpUrl(gCpBaseUrl, path), token, request, kJsonContentType, answer.status, answer.body))
    return true;
  return Fail(error, std::wstring(call) + L" transport failure");
}

// A GET with a token whose answer is in the 2xx range.
bool GetMine(const wchar_t* path, const std::wstring& token, const wchar_t* call, Answer& answer,
             std::wstring& error) {
  error.clear();
  if (!Get(path, token, call, answer, error)) return false;
  if (answer.status == kHttpUnauthorized) return Fail(error, L"unauthorized");
  return Is2xx(answer.status) || Fail(error, Non2xx(call, answer.status));
}

std::string TrimmedField(const Answer& answer, const char* key) {
  std::string value;
  JsonGetString(answer.body, key, value);
  return TrimAscii(value);
}

std::wstring RefusalOfReset(const wchar_t* call, const Answer& answer) {
  std::string refusal = TrimmedField(answer, "error");
  const std::string detail = TrimmedField(answer, "detail");
  if (!refusal.empty() && !detail.empty()) refusal += ": ";
  refusal += detail;
  return refusal.empty() ? Non2xx(call, answer.status) : Utf8ToWide(refusal);
}

// A POST of a password reset whose answer is in the 2xx range.
bool PostReset(const wchar_t* path, const std::string& request, const wchar_t* call, Answer& answer,
               std::wstring& error) {
  error.clear();
  if (!Post(path, kNoAccessToken, request, call, answer, error)) return false;
  return Is2xx(answer.status) || Fail(error, RefusalOfReset(call, answer));
}

bool FailRegistration(std::wstring& error, const wchar_t* reason, const wchar_t* logged) {
  LogLine(std::wstring(L"/v1/auth/register: ") + logged);
  return Fail(error, reason);
}

bool ReadTrimmedDeviceId(std::wstring& deviceId, std::wstring& error) {
  if (!LoadOrCreateDeviceId(kDeviceIdFile, deviceId)) {
    return FailRegistration(error, L"failed to load/create device id", L"failed to load/create device_id");
  }
  deviceId = TrimWide(deviceId);
  return !deviceId.empty() || FailRegistration(error, L"device id is empty", L"device_id empty");
}

}  // namespace

bool CpIsRegistered(const std::wstring& email, bool& registered, std::wstring& error) {
  constexpr wchar_t kCall[] = L"is-registered";
  registered = false;
  error.clear();
  const std::wstring query = Utf8ToWide(QueryEncoded(WideToUtf8(email)));
  Answer answer;
  if (!Get(L"/v1/auth/registered?email=" + query, kNoAccessToken, kCall, answer, error)) return false;
  if (!Is2xx(answer.status)) return Fail(error, Non2xx(kCall, answer.status));
  uint8_t found = 0;
  if (!JsonGetBool(answer.body, "registered", found))
    return Fail(error, L"is-registered response missing registered");
  registered = found != 0;
  return true;
}

bool CpRegister(const std::wstring& email, const std::wstring& password, std::wstring& error) {
  constexpr wchar_t kCall[] = L"register";
  error.clear();
  std::wstring deviceId;
  if (!ReadTrimmedDeviceId(deviceId, error)) return false;
  const std::string request = "{" + JsonMember("email", email) + "," + JsonMember("password", password) +
                              "," + JsonMember("device_id", deviceId) + "}";
  LogLine(L"/v1/auth/register: User:" + email + L", device_id=" + deviceId);
  Answer answer;
  if (!Post(L"/v1/auth/register", kNoAccessToken, request, kCall, answer, error)) return false;
  if (Is2xx(answer.status)) return true;
  if (answer.status == kHttpConflict) {
    return FailRegistration(error, L"User already exists. Please log in or reset your password.",
                            L"already registered (409)");
  }
  LogLine(L"/v1/auth/register: HTTP " + std::to_wstring(answer.status) + L", resp=" +
          Utf8ToWide(answer.body));
  return Fail(error, Non2xx(kCall, answer.status));
}

bool CpPasswordResetStart(const std::wstring& email, std::string& requestId, std::string& maskedEmail,
                          uint32_t& expiresInSeconds, std::wstring& error) {
  requestId.clear();
  maskedEmail.clear();
  expiresInSeconds = 0;
  Answer answer;
  if (!PostReset(L"/v1/auth/password/reset/start", "{" + JsonMember("email", email) + "}",
                 L"password reset start", answer, error)) {
    return false;
  }
  if (!JsonGetString(answer.body, "request_id", requestId))
    return Fail(error, L"password reset start response missing request_id");
  JsonGetString(answer.body, "masked_email", maskedEmail);
  int64_t seconds = 0;
  const bool given = JsonGetInt64(answer.body, "expires_in_seconds", seconds);
  if (!given || seconds < 1 || seconds > kMostResetSeconds) seconds = kDefaultResetSeconds;
  expiresInSeconds = static_cast<uint32_t>(seconds);
  return true;
}

bool CpPasswordResetConfirm(const std::wstring& email, const std::wstring& requestId,
                            const std::wstring& code, const std::wstring& newPassword, std::wstring& error) {
  const std::string request = "{" + JsonMember("email", email) + "," + JsonMember("request_id", requestId) +
                              "," + JsonMember("code", code) + "," + JsonMember("new_password", newPassword) +
                              "}";
  Answer answer;
  return PostReset(L"/v1/auth/password/reset/confirm", request, L"password reset confirm", answer, error);
}

bool CpGetQuota(const std::wstring& accessToken, bool& quotaCurrent, std::wstring& error) {
  quotaCurrent = false;
  Answer answer;
  if (!GetMine(L"/v1/me/quota", accessToken, L"quota", answer, error)) return false;
  uint8_t found = 0;
  JsonGetBool(answer.body, "quota_current", found);
  quotaCurrent = found != 0;
  return true;
}

bool CpGetEntitlement(const std::wstring& accessToken, bool& paymentCurrent, std::string& status,
                      std::string& periodEnd, std::wstring& error) {
  paymentCurrent = false;
  status.clear();
  periodEnd.clear();
  Answer answer;
  if (!GetMine(L"/v1/me/entitlement", accessToken, L"entitlement", answer, error)) return false;
  uint8_t found = 0;
  JsonGetBool(answer.body, "payment_current", found);
  paymentCurrent = found != 0;
  status = TrimmedField(answer, "status");
  periodEnd = TrimmedField(answer, "period_end");
  return true;
}

bool CpBillingCheckout(const std::wstring& accessToken, std::string& checkoutUrl, std::wstring& error) {
  constexpr wchar_t kCall[] = L"checkout";
  checkoutUrl.clear();
  error.clear();
  Answer answer;
  if (!Post(L"/v1/billing/checkout", accessToken, kCheckoutRequest, kCall, answer, error)) return false;
  if (answer.status == kHttpUnauthorized) return Fail(error, L"unauthorized");
  if (!Is2xx(answer.status))
    return Fail(error, Non2xx(kCall, answer.status) + L" resp=" + Utf8ToWideLenient(answer.body));
  return ExtractCheckoutUrl(answer.body, checkoutUrl) || Fail(error, L"checkout response missing url");
}

bool ExtractCheckoutUrl(const std::string& answer, std::string& url) {
  for (const char* key : {"checkout_url", "checkoutUrl", "url"}) {
    if (ExtractJsonUrlField(answer, key, url)) return true;  // wanted: no scheme is asked for
  }
  url.clear();
  const size_t start = answer.find(kHttpsScheme);
  if (start == std::string::npos) return false;
  url = TrimAscii(answer.substr(start, answer.find_first_of("\t\n\r \"", start) - start));
  return !url.empty();
}
