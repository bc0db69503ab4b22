// The simulated HTTP endpoint behind WinHTTP.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace sim {

struct HttpRequest {
  std::string verb;
  std::wstring host;
  uint16_t port = 0;
  bool secure = false;
  std::wstring path;     // with the query
  std::string path8;     // the same in UTF-8
  std::wstring headers;  // the product's own, in the order and form in which they were given
  std::string body;
  std::wstring userAgent;
  uint32_t accessType = 0;  // proxy mode given to WinHttpOpen
  std::string bearer;       // token of an Authorization header, empty without one
};
struct HttpResponse {
  uint32_t status = 200;
  std::string body{};
  // Until the response arrives. WinHTTP gives up after 30000, with 12002.
  uint32_t milliseconds = 5;
  // WinHttpSendRequest fails with this code; for a request whose body follows by WinHttpWriteData, the write
  // of its last byte does.
  uint32_t failSend = 0;
  // WinHttpReceiveResponse fails with this code.
  uint32_t failReceive = 0;
  // After this many body bytes WinHttpQueryDataAvailable fails with 12030.
  uint32_t failReadAfter = UINT32_MAX;
  // What WinHttpQueryDataAvailable reports, in order, then the whole rest; also more than is there. Empty: at
  // most 8192 at a time.
  std::vector<uint32_t> chunks{};
};
using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;
// Called once a request is complete. The endpoint's only handler; without one every send fails with 12029
// (cannot connect).
void SetHttpHandler(HttpHandler handler);
const std::vector<HttpRequest>& HttpRequests();  // all that were sent, in order
void ClearHttpRequests();

// A small control plane for whole runs: one account, servers, profile; answers all paths a connection needs.
struct ControlPlane {
  std::string email = "user@example.com";
  std::string password = "secret";
  std::string accessToken = "access-1";
  std::string refreshToken = "refresh-1";
  int64_t lifetimeSeconds = 3600;
  std::string locationsBody;  // presets: two online servers "srv-a" and "srv-b"
  std::string profileBody;    // preset: a profile for assignedServer; {assigned} in it stands for its id
  std::string assignedServer = "srv-a";  // changed by the wg-server request
  std::string devicePublicKey;           // of the last wg-key request
  // The first whose text is contained in "VERB path" wins.
  std::vector<std::pair<std::string, HttpResponse>> overrides;
};
// Installs it as the handler, and 10.99.0.1 as the resolver's answer for cp.telvor.test.
ControlPlane& UseControlPlane();
HttpResponse ControlPlaneAnswer(const HttpRequest& request);  // its handler, to be called from another

}  // namespace sim
