// The session's plain text, from the file or from an answer of the control plane.
#include "controlplane/session.h"

#include "controlplane/text.h"
#include "fuzz/naive_json.h"
#include "fuzz/target.h"
#include "service/data_files.h"
#include "sim/files.h"
#include "sim/kernel.h"

namespace fuzz {
namespace {

std::string TokenOf(const std::optional<std::string>& value) {
  return NaiveTrim(value.value_or(""));
}

// The first field that is missing, or none.
std::string Missing(const std::string& text) {
  if (!NaiveString(text, "access_token") && !NaiveString(text, "token")) return "access_token";
  if (!NaiveString(text, "refresh_token")) return "refresh_token";
  return NaiveInt64(text, "expires_at") ? "" : "expires_at";
}

void HoldFields(const std::string& text, const SessionRecord& session) {
  auto access = NaiveString(text, "access_token");
  if (!access) access = NaiveString(text, "token");
  Require(session.access_token == Utf8ToWide(TokenOf(access)), "access_token");
  Require(session.refresh_token == Utf8ToWide(TokenOf(NaiveString(text, "refresh_token"))), "refresh_token");
  Require(session.expires_at == NaiveInt64(text, "expires_at").value_or(0), "expires_at");
}

// A token with escapes is read back with them, and one that is a later field's name hides that field.
bool ComesBack(const std::wstring& token) {
  for (const wchar_t unit : token) {
    if (unit < 32 || unit == L'"' || unit == L'\\') return false;
  }
  return token != L"refresh_token" && token != L"expires_at";
}

// A session that was read, saved and loaded again is the same.
void HoldReturn(const SessionRecord& session) {
  if (!ComesBack(session.access_token) || !ComesBack(session.refresh_token)) return;
  SessionRecord again;
  Require(SaveSession(session) && LoadSession(again), "a good session is saved and loaded");
  Require(again.access_token == session.access_token && again.refresh_token == session.refresh_token &&
              again.expires_at == session.expires_at,
          "a saved session comes back");
  Require(IsJson(SerializeSession(session)), "a saved session is JSON");
}

}  // namespace

void RunSession(const std::string& bytes) {
  const std::string missing = Missing(bytes);
  SessionRecord read{L"kept", L"kept", 7};
  const wchar_t* said = ReadSessionFields(bytes, RefreshTokenField::kRequired, read);
  Require(sim::Narrow(said ? said : L"") == missing, "ReadSessionFields names the missing field");
  Require(missing.empty() || read.access_token == L"kept", "a session that is not whole changes nothing");
  if (missing.empty()) HoldFields(bytes, read);
  SessionRecord partial;
  const wchar_t* without = ReadSessionFields(bytes, RefreshTokenField::kOptional, partial);
  Require((without == nullptr) == (missing.empty() || (missing == "refresh_token" &&
                                                       NaiveInt64(bytes, "expires_at").has_value())),
          "a refresh token may be missing");
  const sim::Machine machine;
  sim::PutFile(kSessionFile, sim::Seal(bytes));
  SessionRecord loaded{L"left", L"over", 7};
  const bool good = LoadSession(loaded);
  Require(good == (missing.empty() && !read.access_token.empty() && !read.refresh_token.empty() &&
                   read.expires_at >= 1),
          "LoadSession says what is a session");
  if (good) HoldReturn(loaded);
}

}  // namespace fuzz
