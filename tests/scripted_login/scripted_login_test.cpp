// The login method over a login that fails without a reason, as the real one never does: this program has a
// Login of its own, which stands before the library's.
#include <gtest/gtest.h>

#include "controlplane/auth.h"
#include "engine/tunnel_state.h"
#include "ipc/dispatch.h"
#include "service/wiring.h"
#include "sim/kernel.h"
#include "tests/support/sim_failures.h"

namespace {

std::wstring gEmail, gPassword;

}  // namespace

bool Login(const std::wstring& email, const std::wstring& password, SessionRecord&, std::wstring&) {
  gEmail = email;
  gPassword = password;
  return false;
}
bool RefreshSession(const std::wstring&, SessionRecord&, std::wstring&) {
  return false;
}
bool EnsureValidAccessToken(const std::wstring&, std::wstring&, std::wstring&) {
  return false;
}

namespace {

// The words are wanted, though nobody registers here.
TEST(LoginMethod, SpeaksOfRegistrationWhenALoginFailsWithoutAReason) {
  sim::Machine machine;
  WireSubsystems();
  gLastError = L"HANDSHAKE_TIMEOUT";
  std::string reply;
  EXPECT_TRUE(HandleIpcRequest(R"({"id":1,"method":"POST /ui/login","email":"me","password":"x"})", reply));
  EXPECT_EQ(reply, R"({"jsonrpc":"2.0","id":1,"result":{"ok":false,)"
                   R"("message":"login failed after registration"},"error":null})");
  EXPECT_EQ(gEmail, L"me");
  EXPECT_EQ(gPassword, L"x");
  EXPECT_EQ(gLastError, L"HANDSHAKE_TIMEOUT");
}

// Neither a reason of the token step nor one of the tunnel: nothing to show.
TEST(StatusMethod, ShowsNoErrorWhenTheTokenStepGivesNone) {
  sim::Machine machine;
  WireSubsystems();
  std::string reply;
  EXPECT_TRUE(HandleIpcRequest(R"({"id":1,"method":"GET /ui/status"})", reply));
  EXPECT_NE(reply.find(R"({"auth_state":"AUTH_REQUIRED","last_error":null,)"), std::string::npos) << reply;
}

}  // namespace
