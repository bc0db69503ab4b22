// What the tests of the account methods share: a machine with a control plane whose answers a test can
// replace, and the replies that several methods have in common.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <system_error>

#include "controlplane/base_url.h"
#include "controlplane/session.h"
#include "tests/controlplane/controlplane_fixture.h"
#include "tests/ipc/ipc_fixture.h"

namespace ipc_test {

// A machine with a control plane and without an account.
struct AccountMachine {
  AccountMachine() : plane((WireRecordedOperations(), sim::UseControlPlane())) {}
  sim::Machine machine;
  sim::ControlPlane& plane;

  // From now on requests whose "VERB path" contains `part` get this answer.
  void AnswerTo(const std::string& part, const sim::HttpResponse& answer) {
    plane.overrides.insert(plane.overrides.begin(), {part, answer});
  }
};

inline const std::string kLoggedIn =
    ResultText(R"({"ok":true,"auth_state":"AUTH_OK","message":"registered"})");

// What a lock that fails throws, as the reply shows it.
inline const std::string kLockFailed =
    ErrorText(std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur)).what());

// The failure that has nothing but a message; `message` as it stands in the reply.
inline std::string Refused(const std::string& message) {
  return ResultText(R"({"ok":false,"message":")" + message + "\"}");
}

// A request with the parameters given as JSON members.
inline std::string CallWith(const std::string& method, const std::string& members) {
  return ReplyTo(R"({"jsonrpc":"2.0","id":7,"method":")" + method + R"(","params":{)" + members + "}}");
}

// HandleIpcRequest says so of every reply but a few; the account methods are not among these.
inline void ExpectTrueReply(const std::string& line, const std::string& expected) {
  std::string reply;
  EXPECT_TRUE(HandleIpcRequest(line, reply));
  EXPECT_EQ(reply, expected);
}

// That each of the members is missed by itself, also when it is no text, and that nothing was sent then.
inline void ExpectMissed(const std::string& method, const Lines& keys, const std::string& message) {
  for (const std::string& missed : keys) {
    for (const std::string& value : Lines{"", ":5", ":null", ":\"open", R"(:"\u12")"}) {
      SCOPED_TRACE(missed + value);
      std::string line = R"({"id":7,"method":")" + method + '"';
      for (const std::string& key : keys) {
        if (key != missed) line += ",\"" + key + R"(":"x")";
      }
      if (!value.empty()) line += ",\"" + missed + '"' + value;
      AccountMachine machine;
      ExpectTrueReply(line, ErrorText(message));
      EXPECT_EQ(Sent(), Lines());
      EXPECT_EQ(gOperations.calls, Lines());
    }
  }
}

// What a failed call must leave as it was.
inline std::string AccountState() {
  return StoredSession() + sim::Narrow(L" " + gCachedAccessToken + L" " + gLastError) +
         (gAuthRequired ? " required " : " ok ") + State();
}

// A state that no machine begins with.
inline void SetAccountState() {
  SetState(1, 5, 3, true);
  gAuthRequired = true;
  gLastError = L"HANDSHAKE_TIMEOUT";
  gCachedAccessToken = L"access-0";
}

}  // namespace ipc_test
