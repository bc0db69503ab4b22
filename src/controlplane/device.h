// The installation's identity at the control plane: a device id in a clear text file with a sealed copy, the
// registration of the device, and the upload of its WireGuard key.
#pragma once

#include <string>

// The id from `path`, verified against and restored from `path`.protected; made from the computer's name when
// neither exists. A sealed copy that does not open is a failure. Logs what it does wrong.
bool LoadOrCreateDeviceId(const std::wstring& path, std::wstring& deviceId);

// POST /v1/devices. After a 401 once more with a token from EnsureValidAccessToken, which then replaces
// `token`. True also when that finds no session.
bool EnsureDeviceRegistered(const std::wstring& baseUrl, std::wstring& token, const std::wstring& deviceId);

// PUT /v1/devices/<id>/wg-key. After a 401 once more with the same token. True also when there is no session
// then.
bool EnsureWgKeyUploaded(const std::wstring& baseUrl, const std::wstring& token, const std::wstring& deviceId,
                         const std::string& publicKey);
