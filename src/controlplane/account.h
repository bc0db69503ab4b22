// The account side of the control plane: registration, password reset, quota, entitlement, checkout. Nothing
// of it is needed for a tunnel and nothing is stored. All give true for success; on false the error text, in
// fixed English words or the server's own, is shown to the user; it can be empty. The texts given out are
// cleared first.
//
// The three GET calls see a refused request as a transport failure, because HttpGet is true for 200 alone;
// that their other texts are out of reach is wanted, and so is the order of their tests.
#pragma once

#include <cstdint>
#include <string>

// GET /v1/auth/registered, without a token. Of the email's bytes '@', '+' and the blank are percent-encoded,
// no other.
bool CpIsRegistered(const std::wstring& email, bool& registered, std::wstring& error);

// POST /v1/auth/register, with the device id. Logs the email, never the password; a refusal with its whole
// body.
bool CpRegister(const std::wstring& email, const std::wstring& password, std::wstring& error);

// POST /v1/auth/password/reset/start. The lifetime is 900 where the answer holds none from 1 to 86400.
bool CpPasswordResetStart(const std::wstring& email, std::string& requestId, std::string& maskedEmail,
                          uint32_t& expiresInSeconds, std::wstring& error);

// POST /v1/auth/password/reset/confirm.
bool CpPasswordResetConfirm(const std::wstring& email, const std::wstring& requestId,
                            const std::wstring& code, const std::wstring& newPassword, std::wstring& error);

// GET /v1/me/quota. An answer without a boolean is success with false.
bool CpGetQuota(const std::wstring& accessToken, bool& quotaCurrent, std::wstring& error);

// GET /v1/me/entitlement. What the answer lacks is false or empty.
bool CpGetEntitlement(const std::wstring& accessToken, bool& paymentCurrent, std::string& status,
                      std::string& periodEnd, std::wstring& error);

// POST /v1/billing/checkout, for the one plan there is.
bool CpBillingCheckout(const std::wstring& accessToken, std::string& checkoutUrl, std::wstring& error);

// The address to pay at: the first of the keys checkout_url, checkoutUrl and url that ExtractJsonUrlField
// reads, else the first "https://" in the answer up to a blank or quote.
bool ExtractCheckoutUrl(const std::string& answer, std::string& url);
