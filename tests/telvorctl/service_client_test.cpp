// The road to the service and back: opening, waiting, broken and odd replies, and what each of them ends
// with.
#include "telvorctl/service_client.h"

#include "ipc/request_fields.h"
#include "tests/telvorctl/telvorctl_fixture.h"

namespace {

using namespace telvorctl_test;
using telvorctl::platform::kErrorAccessDenied;
using telvorctl::platform::kErrorFileNotFound;
using telvorctl::platform::kErrorOperationAborted;
using telvorctl::platform::kErrorPipeBusy;
using telvorctl::platform::kErrorTimeout;

constexpr uint32_t kErrorBrokenPipe = 109;

class ServiceClient : public Telvorctl {
 protected:
  static void ExpectFailure(int code, const std::string& complaint) {
    EXPECT_EQ(Run({"status", "--brief"}), code);
    EXPECT_EQ(gScript.errors, complaint.empty() ? "" : "telvorctl: " + complaint + "\n");
    EXPECT_EQ(gScript.output, "");
  }
};

TEST_F(ServiceClient, AsksAgainWhileTheServerHasNoInstanceToOffer) {
  CannotOpen(kGetState, kErrorFileNotFound);
  CannotOpen(kGetState, kErrorPipeBusy);
  Result(kGetState, State("connected"));
  EXPECT_EQ(Run({"status", "--brief"}), 0);
  EXPECT_EQ(gScript.output, "connected, received 2.0 KiB, sent 10 B\n");
  EXPECT_EQ(gScript.errors, "");
  EXPECT_EQ(gScript.now, 1020u);
}

TEST_F(ServiceClient, SaysThatTheServiceIsNotThere) {
  CannotOpen(kGetState, kErrorFileNotFound, true);
  ExpectFailure(3, "the TELVOR service is not there. Start it from an elevated prompt: sc start TELVOR");
  EXPECT_EQ(gScript.now, 2000u);
}

TEST_F(ServiceClient, SaysThatTheServiceIsBusy) {
  CannotOpen(kGetState, kErrorPipeBusy, true);
  ExpectFailure(4,
                "the TELVOR service is busy: all of its sixteen connections are taken. Close other programs "
                "that watch it, or try again in a moment");
  EXPECT_EQ(gScript.now, 4000u);
}

TEST_F(ServiceClient, SaysThatThePipeRefusesAccess) {
  CannotOpen(kGetState, kErrorAccessDenied);
  ExpectFailure(
      1, "the TELVOR service's pipe refuses access. Run this as a user who has logged on, not as a guest");
}

TEST_F(ServiceClient, NamesAnyOtherErrorOfOpening) {
  CannotOpen(kGetState, 53);
  ExpectFailure(1, "the TELVOR service's pipe cannot be opened: Windows error 53");
}

TEST_F(ServiceClient, EndsOnCtrlCWhileItTriesToOpen) {
  CannotOpen(kGetState, kErrorFileNotFound, true);
  InterruptInPause(3);
  ExpectFailure(130, "");
}

TEST_F(ServiceClient, EndsOnCtrlCWhileItWaitsForTheReply) {
  Broken(kGetState, kErrorOperationAborted, "");
  ExpectFailure(130, "");
}

TEST_F(ServiceClient, DoesNotWaitForEverForTheReply) {
  Broken(kGetState, kErrorTimeout, "");
  ExpectFailure(5, "the TELVOR service has not answered for 3 minutes; see telvorctl logs");
}

TEST_F(ServiceClient, TellsAMissingReplyFromOneThatIsCut) {
  Broken(kGetState, kErrorBrokenPipe, "");
  ExpectFailure(1, "the TELVOR service ended the connection without a reply; try again");
  gScript.errors.clear();
  Broken(kGetState, kErrorBrokenPipe, R"({"jsonrpc":"2.0","id":1,"resu)");
  ExpectFailure(1, "the TELVOR service's reply was cut off; try again");
}

TEST_F(ServiceClient, TakesNoReplyOfAnotherShape) {
  const std::string kComplaint =
      "the TELVOR service's reply is no JSON of the expected shape; telvorctl request shows it";
  for (const char* reply : {"", "hello", "[]", "7", R"({"result":1})", R"({"error":null})",
                            R"({"jsonrpc":"2.0","id":1,"result":,"error":null})"}) {
    gScript.errors.clear();
    Raw(kGetState, std::string(reply) + "\n");
    ExpectFailure(1, kComplaint);
  }
}

TEST_F(ServiceClient, TellsWhyTheServiceRefused) {
  Refusal(kGetState, "IPC: unknown method");
  ExpectFailure(1, "IPC: unknown method");
  gScript.errors.clear();
  Raw(kGetState, R"({"jsonrpc":"2.0","id":1,"result":null,"error":{}})"
                 "\n");
  ExpectFailure(1, "the TELVOR service refused without a reason");
}

TEST_F(ServiceClient, ReadsAReplyWithBytesThatAreNoUtf8) {
  Result(kGetState, State("error", "caf\xE9"));
  EXPECT_EQ(Run({"status", "--brief"}), 0);
  EXPECT_EQ(gScript.output, "error, received 2.0 KiB, sent 10 B, last error: caf\uFFFD\n");
}

TEST_F(ServiceClient, LetsNoTextOfTheServiceDriveTheTerminal) {
  Refusal(kGetState, R"(gone\u001b[2J)");
  ExpectFailure(1, "gone?[2J");
}

TEST_F(ServiceClient, ReadsMembersOfAnotherKindAsEmpty) {
  Result(kGetState, R"({"state":7,"rxBytes":"many","txBytes":-1,"lastError":[]})");
  EXPECT_EQ(Run({"status", "--brief"}), 0);
  EXPECT_EQ(gScript.output, ", received 0 B, sent 0 B\n");
}

// The service searches the line as flat text: what is written must be what it finds.
TEST(RequestLine, IsReadBackByTheServicesOwnReader) {
  for (const std::string password :
       {R"(plain)", R"("id":9,"method":"Connect")", R"(back\slash\)", "tab\tand \x01",
        "Zürich \xF0\x9F\x98\x80", R"({"email":"other"})", " "}) {
    const std::string line =
        telvorctl::RequestLine("POST /ui/login", {{"email", "a&b@x"}, {"password", password}});
    std::string read;
    ASSERT_TRUE(ReadRequestString(line, "password", read)) << line;
    EXPECT_EQ(read, password);
    ASSERT_TRUE(ReadRequestString(line, "email", read));
    EXPECT_EQ(read, "a&b@x");
    ASSERT_TRUE(ReadRequestString(line, "method", read));
    EXPECT_EQ(read, "POST /ui/login");
    int32_t id = 0;
    ASSERT_TRUE(ReadRequestInt(line, "id", id));
    EXPECT_EQ(id, 1);
    EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos);
  }
}

TEST(Explained, AddsWhatToDo) {
  EXPECT_EQ(telvorctl::Explained("no session: C:\\x"),
            "no session: C:\\x (nobody is logged in; see telvorctl login)");
  EXPECT_EQ(telvorctl::Explained("quota transport failure"),
            "quota transport failure (the control plane cannot be reached, or it refused)");
  EXPECT_EQ(telvorctl::Explained("login ok but active WG key rotation failed"),
            "login ok but active WG key rotation failed (the keys' folder may not be writable; see telvorctl "
            "logs)");
  EXPECT_EQ(telvorctl::Explained("something else"), "something else");
}

TEST(SpeaksOfLogin, KnowsTheTextsOfTheTokenStep) {
  for (const char* text : {"AUTH_REQUIRED", "SESSION_EXPIRED", "auth required", "no session: C:\\x",
                           "session access token empty"}) {
    EXPECT_TRUE(telvorctl::SpeaksOfLogin(text)) << text;
  }
  for (const char* text : {"", "HANDSHAKE_TIMEOUT", "quota transport failure", "login non-2xx: 401"}) {
    EXPECT_FALSE(telvorctl::SpeaksOfLogin(text)) << text;
  }
}

}  // namespace
