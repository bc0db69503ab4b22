// The account's session: its tokens in one sealed file, C:\ProgramData\TELVOR\auth\session.dat, and logout.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct SessionRecord {
  std::wstring access_token;
  std::wstring refresh_token;
  int64_t expires_at = 0;  // seconds since 1970-01-01 UTC, as the server sent it
};

// The plain text of the file, JSON in UTF-8 on one line.
std::string SerializeSession(const SessionRecord& session);

// Reads a session's fields from the file's plain text or from an answer of the control plane; the access
// token may also stand under "token". Tokens come trimmed. Null if all fields were found, else the name of
// the first that is missing, with `session` untouched. A refresh token that may be missing is empty then.
enum class RefreshTokenField { kRequired, kOptional };
const wchar_t* ReadSessionFields(std::string_view text, RefreshTokenField refreshToken,
                                 SessionRecord& session);

// Writes the file, in place; does not touch gCachedAccessToken.
bool SaveSession(const SessionRecord& session);

// True only with both tokens non-empty and expires_at at least 1; fields that fail this test stay filled. A
// file that cannot be read is left alone.
bool LoadSession(SessionRecord& session);

// Forgets the token, the session files, the catalogue and the selection, and writes the disconnect intent;
// then opens the firewall. Sends nothing to the control plane.
void Logout();
