#include "telvorctl/account_commands.h"

#include <string>
#include <vector>

#include "telvorctl/conclusion.h"
#include "telvorctl/platform.h"
#include "telvorctl/rendering.h"
#include "telvorctl/service_client.h"
#include "telvorctl/terminal.h"
#include "telvorctl/text.h"

namespace telvorctl {

namespace {

// The log does not tell of it.
constexpr char kSessionStays[] =
    "the session could not be removed: the service must be able to delete files in "
    "C:\\ProgramData\\TELVOR\\auth; then log out again";

Reply StartResetFor(const std::string& email) {
  return AskForOk("POST /ui/password-reset/start", {{"email", email}});
}

std::string ResetStartedText(const Json& result) {
  return "A code was sent to " + TextMember(result, "masked_email") + "; it is valid for " +
         SpanText(NumberMember(result, "expires_in_seconds")) + ".";
}

ExitCode ConfirmResetOf(const Options& options, const std::string& requestId) {
  std::string code;
  std::string password;
  ExitCode asked = AskSecret("code", options.passwordFromInput, code);
  if (asked == kDone) asked = AskNewPassword("new password", options.passwordFromInput, password);
  if (asked != kDone) return asked;
  const Reply reply = AskForOk(
      "POST /ui/password-reset/confirm",
      {{"email", options.email}, {"request_id", requestId}, {"code", code}, {"new_password", password}});
  return Finish(options, reply, {"The password was changed. Log in with the new one: telvorctl login"});
}

// The service says ok also if the session's file stays. Its word for the account may be that of a token it
// remembers: what needs the file decides.
Reply LogOutAndLook() {
  Reply reply = AskForOk("POST /ui/logout");
  if (reply.code != kDone) return reply;
  const Reply session = LookForSession();
  if (session.code == kLoginNeeded) return reply;
  const bool isThere = session.result.is_object();
  reply.code = isThere ? kFailed : session.code;
  reply.message = isThere ? kSessionStays : session.message;
  return reply;
}

}  // namespace

ExitCode LogIn(const Options& options) {
  std::string password;
  const ExitCode asked = AskSecret("password", options.passwordFromInput, password);
  if (asked != kDone) return asked;
  const Reply reply = AskForOk("POST /ui/login", {{"email", options.email}, {"password", password}});
  return Finish(options, reply, {"Logged in as " + options.email + "."});
}

ExitCode Register(const Options& options) {
  std::string password;
  const ExitCode asked = AskNewPassword("password", options.passwordFromInput, password);
  if (asked != kDone) return asked;
  const Reply reply = AskForOk("POST /ui/register", {{"email", options.email}, {"password", password}});
  return Finish(options, reply, {options.email + " is registered and logged in."});
}

ExitCode IsRegistered(const Options& options) {
  Reply reply = Ask("GET /ui/is-registered", {{"email", options.email}});
  // A failed answer holds "registered":false as well, which must not be taken for one.
  if (reply.code != kDone) return Conclude(reply);
  const std::string verdict =
      TruthMember(reply.result, "registered") ? " is registered." : " is not registered.";
  return Finish(options, reply, {TextMember(reply.result, "email") + verdict});
}

ExitCode LogOut(const Options& options) {
  const Reply before = Ask("GetState");
  if (before.code != kDone) return Conclude(before);
  const bool wasUp = IsTunnelUp(before.result);
  return Finish(options, LogOutAndLook(), {wasUp ? "Logged out; the tunnel is taken down." : "Logged out."});
}

ExitCode ResetPassword(const Options& options) {
  if (!platform::IsTerminal(platform::Stream::kInput)) {
    Complain("reset asks at a terminal; in a script use reset-start and reset-confirm");
    return kWrongUsage;
  }
  const Reply started = StartResetFor(options.email);
  if (started.code != kDone) return Finish(options, started, {});
  if (!options.json) Say(ResetStartedText(started.result));
  return ConfirmResetOf(options, TextMember(started.result, "request_id"));
}

ExitCode StartReset(const Options& options) {
  const Reply reply = StartResetFor(options.email);
  const std::string id = TextMember(reply.result, "request_id");
  return Finish(options, reply,
                {ResetStartedText(reply.result),
                 "Go on with: telvorctl reset-confirm " + options.email + " --request-id " + id});
}

ExitCode ConfirmReset(const Options& options) {
  return ConfirmResetOf(options, options.requestId);
}

ExitCode ShowEntitlement(const Options& options) {
  const Reply reply = AskWithSession("GET /ui/entitlement");
  const ExitCode code = Finish(options, reply, EntitlementLines(reply.result));
  if (code == kDone && !options.json && TextMember(reply.result, "status").empty())
    Complain("the control plane told no status: it may not have answered as it should");
  return code;
}

ExitCode ShowQuota(const Options& options) {
  const Reply reply = AskWithSession("GET /ui/quota");
  const bool current = TruthMember(reply.result, "quota_current");
  return Finish(options, reply, {current ? "The quota is current." : "The quota is not current."});
}

ExitCode ShowCheckoutLink(const Options& options) {
  const Reply reply = AskWithSession("POST /ui/billing/checkout");
  return Finish(options, reply, {TextMember(reply.result, "checkout_url")});
}

ExitCode ShowAccountPageLink(const Options& options) {
  const Reply reply = AskWithSession("GET /ui/account-page-url");
  if (reply.code == kDone) Complain("whoever has this link has the account; give it to nobody");
  return Finish(options, reply, {TextMember(reply.result, "account_url")});
}

}  // namespace telvorctl
