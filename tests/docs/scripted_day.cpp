#include "tests/docs/scripted_day.h"

#include <set>

#include "tests/docs/scripted_control_plane.h"
#include "tests/support/system_run.h"

namespace {

constexpr int64_t kMidnight = 1'767'225'600;  // 2026-01-01 00:00:00 UTC, when the machine boots
constexpr wchar_t kLogFile[] = L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log";
constexpr char kUser[] = R"("email":"user@example.com","password":"secret")";

// The day while it is lived.
struct Diary {
  ScriptedDay day;
  std::set<std::string> before;  // the files of the machine before the service ran
  std::set<std::string> made;
  int lastId = 0;
};

std::string WithoutLineFeed(std::string reply) {
  if (reply.ends_with('\n')) reply.pop_back();
  return reply;
}

void Send(Diary& diary, const std::string& method, const std::string& line) {
  diary.day.pipe.push_back({method, line, WithoutLineFeed(sim::Ask(line).value_or("(no reply)"))});
}

// A request as the desktop program writes it; each has its own id, by which the pages are compared.
void Call(Diary& diary, const std::string& method, const std::string& parameters = "") {
  const std::string rest = parameters.empty() ? "" : ",\"params\":{" + parameters + "}";
  const std::string id = std::to_string(++diary.lastId);
  Send(diary, method, R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":")" + method + "\"" + rest + "}");
}

std::set<std::string> FilesNow() {
  std::set<std::string> files;
  for (const std::wstring& path : sim::AllFiles()) files.insert(sim::Narrow(path));
  return files;
}

// The worker has taken the tunnel down. The routes of a connect that failed stay, so it is not asked for
// them.
bool WaitForNoTunnel() {
  return sim::RunUntil(
      [] { return gTunnelStatus == kStatusDisconnected && !sim::ServiceInstalled(kTunnelService); }, kMinute);
}

void NoteFiles(Diary& diary) {
  for (const std::string& path : FilesNow()) {
    if (!diary.before.contains(path)) diary.made.insert(path);
  }
}

// What the dispatcher and the pipe server answer themselves.
void OddLines(Diary& diary) {
  Send(diary, "", R"({"jsonrpc":"2.0","id":0})");
  Send(diary, "", R"({"jsonrpc":"2.0","id":"7","method":"GetStatus"})");
  Send(diary, "", R"({"method" : "GetState"})");
  Send(diary, "", R"({"params":{"method":"GET /ui/quota"},"method":"GetState"})");
  constexpr size_t kTooMuch = 204'800;
  sim::PipeClient client;
  client.Write(std::string(kTooMuch, 'x'));
  diary.day.pipe.push_back(
      {"", "x, 204800 times, and no line feed", WithoutLineFeed(client.ReadToEnd().value_or("(no reply)"))});
}

void LoggedOut(Diary& diary) {
  Call(diary, "GetState");
  Call(diary, "GET /ui/status");
  Call(diary, "GET /ui/locations");
  Call(diary, "GET /ui/entitlement");
  Call(diary, "GET /ui/quota");
  Call(diary, "POST /ui/billing/checkout");
  Call(diary, "GET /ui/account-page-url");
  Call(diary, "Connect");
  sim::Run(2000);
  Call(diary, "GetState");
  Ask("Disconnect");
  ASSERT_TRUE(WaitForIdle());
}

void Accounts(Diary& diary) {
  Call(diary, "GET /ui/is-registered", R"("email":"user+tag@example.com")");
  AnswerOnce("GET /v1/auth/registered?", 503, R"({"error":"server_unreachable"})");
  Call(diary, "GET /ui/is-registered", R"("email":"user@example.com")");
  Call(diary, "GET /ui/is-registered");
  Call(diary, "POST /ui/register", kUser);
  AnswerOnce("POST /v1/auth/register", 409, R"({"error":"already_registered"})");
  Call(diary, "POST /ui/register", kUser);
  AnswerOnce("POST /v1/auth/register", 422, R"({"error":"weak_password"})");
  Call(diary, "POST /ui/register", R"("email":"user@example.com","password":"1")");
  Call(diary, "POST /ui/logout");
  Call(diary, "POST /ui/password-reset/start", R"("email":"user@example.com")");
  AnswerOnce("POST /v1/auth/password/reset/start", 429, R"({"error":"too_many_requests","detail":"wait"})");
  Call(diary, "POST /ui/password-reset/start", R"("email":"user@example.com")");
  constexpr char kConfirmation[] =
      R"("email":"user@example.com","request_id":"r-1","code":"123456","new_password":"secret")";
  AnswerOnce("POST /v1/auth/password/reset/confirm", 400, R"({"error":"invalid_code"})");
  Call(diary, "POST /ui/password-reset/confirm", kConfirmation);
  Call(diary, "POST /ui/password-reset/confirm", kConfirmation);
  Call(diary, "POST /ui/password-reset/confirm", R"("email":"user@example.com","code":"123456")");
  AnswerOnce("POST /v1/auth/login", 401, R"({"error":"invalid_credentials"})");
  Call(diary, "POST /ui/login", R"("email":"user@example.com","password":"wrong")");
  Call(diary, "POST /ui/login", R"("email":"user@example.com")");
  Call(diary, "POST /ui/login", kUser);
}

void Subscription(Diary& diary) {
  Call(diary, "GET /ui/entitlement");
  AnswerOnce("GET /v1/me/entitlement", 401, R"({"error":"unauthorized"})");
  Call(diary, "GET /ui/entitlement");
  Call(diary, "GET /ui/quota");
  AnswerOnce("GET /v1/me/quota", 500, "");
  Call(diary, "GET /ui/quota");
  Call(diary, "POST /ui/billing/checkout");
  AnswerOnce("POST /v1/billing/checkout", 402, R"({"error":"card_declined"})");
  Call(diary, "POST /ui/billing/checkout");
  Call(diary, "GET /ui/account-page-url");
  Call(diary, "GET /ui/locations");
  Call(diary, "POST /ui/select-location");
}

void Connected(Diary& diary) {
  AnswerOnce("GET /v1/devices/desktop-ab12/wg-profile", 200, kProfileWithPlace);
  Call(diary, "Connect");
  Call(diary, "GetState");
  ASSERT_TRUE(WaitForStatus(kStatusConnected));
  sim::SetTransfer(1000, 2000);
  Call(diary, "Connect");
  Call(diary, "GetState");
  Call(diary, "GET /ui/status");
  Call(diary, "GetRecentLogs", R"("limit":2)");
  Call(diary, "GET /ui/logs", R"("limit":1)");
  sim::SetHost(L"bypass.example", {"198.51.100.21", "198.51.100.30"});
  sim::Run(kMinute);
  for (const std::wstring& name : sim::FilterNames()) diary.day.filterNames.push_back(sim::Narrow(name));
  NoteFiles(diary);
  Call(diary, "POST /ui/select-location", R"("server_id":"srv-b")");
  ASSERT_TRUE(WaitForIdle());
  // The old way of choosing a server, and the oldest.
  AnswerOnce("PUT /v1/devices/desktop-ab12/wg-server", 404, R"({"error":"not_found"})");
  AnswerOnce("PUT /v1/devices/desktop-ab12/server", 404, R"({"error":"not_found"})");
  Ask("Connect");
  ASSERT_TRUE(WaitForStatus(kStatusConnected));
  Call(diary, "Disconnect");
  ASSERT_TRUE(WaitForIdle());
}

// The control plane loses the device's key and the session, and the server does not answer.
void Trouble(Diary& diary) {
  AnswerOnce("POST /v1/devices", 401, R"({"error":"unauthorized"})");
  AnswerOnce("PUT /v1/devices/desktop-ab12/wg-key", 401, R"({"error":"unauthorized"})");
  AnswerOnce("GET /v1/devices/desktop-ab12/wg-profile", 401, R"({"error":"unauthorized"})");
  sim::HandshakeAnswers(false);
  Ask("Connect");
  ASSERT_TRUE(WaitForStatus(kStatusError, 10 * kMinute));
  Call(diary, "GetState");
  Ask("Disconnect");
  ASSERT_TRUE(WaitForNoTunnel());
  sim::HandshakeAnswers(true);
}

void SessionEnds(Diary& diary) {
  constexpr int64_t kHour = 3600;
  sim::SetUnixTime(kMidnight + kHour);
  Call(diary, "GET /ui/quota");
  sim::SetUnixTime(kMidnight + 2 * kHour);
  AnswerOnce("POST /v1/auth/refresh", 401, R"({"error":"refresh_expired"})");
  Call(diary, "GET /ui/quota");
  AnswerOnce("POST /v1/auth/refresh", 401, R"({"error":"refresh_expired"})");
  Ask("Connect");
  sim::Run(500);
  Call(diary, "GetState");
  Ask("Disconnect");
  ASSERT_TRUE(WaitForNoTunnel());
}

void Evening(Diary& diary) {
  sim::HoldFile(kLogFile);
  Call(diary, "GET /ui/logs");
  sim::ReleaseFile(kLogFile);
  Ask("POST /ui/logout");
  NoteFiles(diary);
  sim::Fail({.operation = "OpenSCManagerW", .argumentsContain = "access=1"});
  LetTheProcessLiveOn(500);
  Call(diary, "StopService");
  Call(diary, "StopService");
  ASSERT_TRUE(WaitForEnd());
  NoteFiles(diary);
}

void Live(Diary& diary) {
  SystemRun run;
  UseScriptedControlPlane(diary.day.http);
  diary.before = FilesNow();
  run.Start();
  OddLines(diary);
  LoggedOut(diary);
  Accounts(diary);
  Subscription(diary);
  Connected(diary);
  Trouble(diary);
  SessionEnds(diary);
  Evening(diary);
  ExpectNothingLeft();
  diary.day.log = sim::LogLines();
  diary.day.files.assign(diary.made.begin(), diary.made.end());
}

}  // namespace

const ScriptedDay& TheDay() {
  static const ScriptedDay day = [] {
    Diary diary;
    Live(diary);
    return diary.day;
  }();
  return day;
}
