// What the tests of the account calls share: a machine with a session, looks at the one request that was
// sent, and the answers that refuse a call.
#pragma once

#include <string>
#include <vector>

#include "controlplane/account.h"
#include "controlplane/base_url.h"
#include "controlplane_fixture.h"
#include "engine/tunnel_state.h"

inline constexpr wchar_t kGetHeaders[] = L"Accept: application/json\r\n";
inline constexpr wchar_t kPostHeaders[] = L"Accept: application/json\r\nContent-Type: application/json\r\n";
inline constexpr wchar_t kToken[] = L"token-1";
inline constexpr wchar_t kBearer[] = L"Authorization: Bearer token-1\r\n";

// A machine whose account and tunnel show traces of being used.
struct AccountMachine {
  AccountMachine() {
    gCpBaseUrl = kBase;
    gCachedAccessToken = L"cached";
    gLastError = L"HANDSHAKE_TIMEOUT";
    gTunnelDesired = 1;
    gTunnelStatus = 2;
    gTunnelEpoch = 5;
    StoreSession("access-1", 1000);
  }
  sim::Machine machine;
};

// All that the account calls must leave alone. The device id and the log are not of it.
inline std::string StateText() {
  std::string text =
      StoredSession() + sim::Narrow(gCachedAccessToken + L' ' + gLastError + L' ' + gCpBaseUrl);
  for (const int64_t number : {int64_t{gTunnelDesired}, int64_t{gTunnelStatus}, int64_t{gAuthRequired}})
    text += ' ' + std::to_string(number);
  text += ' ' + std::to_string(gTunnelEpoch) + ' ' + gSelectedServerId;
  for (const std::wstring& file : sim::AllFiles()) {
    const bool counts = file.find(L"device_id") == std::wstring::npos && !file.ends_with(L".log");
    if (counts) text += ' ' + sim::Narrow(file);
  }
  return text;
}

// That one request went out, and what of it reached the control plane.
inline void ExpectSent(const std::string& verbAndPath, const std::wstring& headers, const std::string& body) {
  ASSERT_EQ(Sent(), Lines{verbAndPath});
  const sim::HttpRequest& request = sim::HttpRequests()[0];
  EXPECT_EQ(request.host, L"plane.test");
  EXPECT_EQ(request.port, 9443);
  EXPECT_TRUE(request.secure);
  EXPECT_EQ(request.headers, headers);
  EXPECT_EQ(request.body, body);
}

// Makes a call that must be refused and gives its error text.
using RefusedCall = std::wstring (*)();

inline void ExpectRefused(RefusedCall call, const sim::HttpResponse& answer, const std::wstring& error) {
  SCOPED_TRACE(std::to_string(answer.status) + " " + answer.body);
  AccountMachine machine;
  AnswerInTurn({answer});
  const std::string before = StateText();
  EXPECT_EQ(call(), error);
  EXPECT_EQ(StateText(), before);
  EXPECT_EQ(sim::HttpRequests().size(), 1U);
}

// No answer, or one that breaks off, whatever it began with.
inline void ExpectTransportFailure(RefusedCall call, const std::wstring& error) {
  ExpectRefused(call, NoAnswer(), error);
  ExpectRefused(call, BrokenAnswer(200, "{\"a\":1}"), error);
  ExpectRefused(call, BrokenAnswer(401, "{\"error\":\"no\"}"), error);
  ExpectRefused(call, BrokenAnswer(409, "{"), error);
}

// A GET that is not answered with exactly 200 reads as a transport failure, also where it has another text
// for the status. That is wanted.
inline void ExpectEveryRefusedGetIsATransportFailure(RefusedCall call, const std::wstring& error) {
  ExpectTransportFailure(call, error);
  for (const uint32_t status : {199U, 201U, 204U, 299U, 301U, 400U, 401U, 403U, 404U, 409U, 500U, 503U})
    ExpectRefused(call, Answer(status, R"({"registered":true,"quota_current":true,"error":"no"})"), error);
}
