// Login, token refresh, and the gate through which every authenticated call gets its token. On false the
// error text says why, in fixed English words.
#pragma once

#include <string>

#include "controlplane/session.h"

// Logs in at gCpBaseUrl, saves the session and rotates the WireGuard key pair. Does not touch
// gCachedAccessToken.
bool Login(const std::wstring& email, const std::wstring& password, SessionRecord& session,
           std::wstring& error);

// Exchanges the refresh token and saves the session. "SESSION_EXPIRED" when the control plane says
// refresh_expired.
bool RefreshSession(const std::wstring& baseUrl, SessionRecord& session, std::wstring& error);

// A token with at least 300 seconds left by the local clock: the cached one, the file's, or a refreshed one.
bool EnsureValidAccessToken(const std::wstring& baseUrl, std::wstring& token, std::wstring& error);
