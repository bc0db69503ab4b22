// The envelope, the table of methods, and what becomes of exceptions.
#include "ipc/dispatch.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <system_error>

#include "ipc/methods.h"
#include "tests/ipc/ipc_fixture.h"

namespace {

using namespace ipc_test;

const Lines kMethodNames = {
    "GetState",
    "GetRecentLogs",
    "Connect",
    "Disconnect",
    "StopService",
    "POST /ui/login",
    "GET /ui/is-registered",
    "POST /ui/register",
    "POST /ui/password-reset/start",
    "POST /ui/password-reset/confirm",
    "GET /ui/entitlement",
    "GET /ui/quota",
    "POST /ui/billing/checkout",
    "GET /ui/account-page-url",
    "POST /ui/logout",
    "GET /ui/status",
    "GET /ui/logs",
    "GET /ui/locations",
    "POST /ui/select-location",
};

// Methods that answer with the request line, or with an exception.
bool EchoMethod(const PipeRequest& request, std::string& reply) {
  reply = "echo " + std::to_string(request.id) + " " + request.line;
  return true;
}
bool ThrowingMethod(const PipeRequest&, std::string&) {
  throw std::runtime_error("bad \"thing\"\tat \\");
}

// ---- The table ----

TEST(PipeMethods, StandInDispatchOrder) {
  Lines names;
  for (const PipeMethod& method : gPipeMethods) names.push_back(method.name);
  EXPECT_EQ(names, kMethodNames);
}

TEST(PipeMethods, WithoutABodyAnswerAsUnknown) {
  sim::Machine machine;
  for (const std::string& name : kMethodNames) {
    SCOPED_TRACE(name);
    PlugPipeMethod(name.c_str(), EchoMethod);
    EXPECT_EQ(Call(name).substr(0, 6), "echo 7");
    PlugPipeMethod(name.c_str(), nullptr);
    EXPECT_EQ(Call(name), ErrorText("IPC: unknown method"));
  }
}

TEST(PipeMethods, AreAllWired) {
  sim::Machine machine;
  WireSubsystems();
  Lines unknown;
  for (const PipeMethod& method : gPipeMethods) {
    if (!method.body) unknown.push_back(method.name);
  }
  EXPECT_EQ(unknown, Lines());
}

// ---- The envelope ----

TEST(HandleIpcRequest, EchoesTheId) {
  sim::Machine machine;
  WireRecordedOperations();
  const struct {
    std::string line;
    int32_t id;
  } rows[] = {{R"({"id":-5,"method":"Nope"})", -5},
              {R"({"id":"abc","method":"Nope"})", 0},
              {R"({"id":"12","method":"Nope"})", 0},
              {R"({"id":null,"method":"Nope"})", 0},
              {R"({"method":"Nope"})", 0},
              {R"({"id" :3,"method":"Nope"})", 0},
              {R"({"method":"Nope","id":2147483647})", 2147483647},
              {R"({"id":2147483648,"method":"Nope"})", INT32_MIN},
              {R"({"id":99999999999,"method":"Nope"})", 1410065407}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(ReplyTo(row.line), ErrorText("IPC: unknown method", row.id));
  }
}

TEST(HandleIpcRequest, EchoesAnIdThatIsNoNumberAs0InAResultToo) {
  sim::Machine machine;
  WireRecordedOperations();
  EXPECT_EQ(ReplyTo(R"({"id":"abc","method":"GetState"})").substr(0, 41),
            R"({"jsonrpc":"2.0","id":0,"result":{"device)");
  EXPECT_EQ(ReplyTo(R"({"id":99999999999,"method":"GetState"})").substr(0, 50),
            R"({"jsonrpc":"2.0","id":1410065407,"result":{"device)");
}

TEST(HandleIpcRequest, MissesTheMethod) {
  sim::Machine machine;
  WireRecordedOperations();
  const struct {
    std::string line;
    int32_t id;
  } rows[] = {{"", 0},
              {"{}", 0},
              {R"({"id":4})", 4},
              {R"({"id":4,"method":5})", 4},
              {R"({"id":4,"method":null})", 4},
              {R"({"id":4,"method" : "GetState"})", 4},
              {R"({"id":4,"method":"Get\u00"})", 4},
              {R"({"id":4,"method":"GetState)", 4}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    std::string reply;
    EXPECT_FALSE(HandleIpcRequest(row.line, reply));
    EXPECT_EQ(reply, ErrorText("IPC: missing method", row.id));
  }
}

TEST(HandleIpcRequest, KnowsMethodsByTheirWholeNameOnly) {
  sim::Machine machine;
  WireRecordedOperations();
  for (const std::string name : {"Nope", "getstate", "GetState ", " GetState", "GET /ui/status/",
                                 "/ui/status", "GetStat", "GetState\\u0000", ""}) {
    SCOPED_TRACE(name);
    std::string reply;
    EXPECT_FALSE(HandleIpcRequest(R"({"id":7,"method":")" + name + "\"}", reply));
    EXPECT_EQ(reply, ErrorText("IPC: unknown method"));
  }
}

TEST(HandleIpcRequest, FindsTheMethodWhereverItsKeyStands) {
  sim::Machine machine;
  PlugPipeMethod("GetState", EchoMethod);
  for (const std::string line :
       {R"({"method":  "GetState"})", R"({"params":{"method":"GetState"}})",
        R"({"note":"\"method\":\"Connect\"","method":"GetState"})", R"("method":"GetState")",
        R"({"method":"Get\u0053tate"})", R"({"jsonrpc":"1.0","method":"GetState","method":"Connect"})"}) {
    SCOPED_TRACE(line);
    EXPECT_EQ(ReplyTo(line), "echo 0 " + line);
  }
}

TEST(HandleIpcRequest, ReplacesTheReply) {
  sim::Machine machine;
  WireRecordedOperations();
  std::string reply = "something old";
  EXPECT_TRUE(HandleIpcRequest(R"({"id":1,"method":"Connect"})", reply));
  EXPECT_EQ(reply, R"({"jsonrpc":"2.0","id":1,"result":true,"error":null})");
}

// ---- Exceptions ----

TEST(HandleIpcRequest, TurnsAStandardExceptionIntoAReply) {
  sim::Machine machine;
  PlugPipeMethod("GetState", ThrowingMethod);
  std::string reply;
  EXPECT_TRUE(HandleIpcRequest(R"({"id":-3,"method":"GetState"})", reply));
  EXPECT_EQ(reply, R"({"jsonrpc":"2.0","id":-3,"result":null,"error":{"message":"bad \"thing\"\tat \\"}})");
}

TEST(HandleIpcRequest, TurnsALockFailureIntoAReplyAndLeavesTheLocksFree) {
  sim::Machine machine;
  WireRecordedOperations();
  sim::FailLock(gLastErrorMutex);
  const std::string text =
      std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur)).what();
  EXPECT_EQ(Call("GetState"), ErrorText(text));
  EXPECT_EQ(Call("GetState").substr(0, 33), R"({"jsonrpc":"2.0","id":7,"result":)");
}

TEST(HandleIpcRequest, KeepsStateChangesMadeBeforeTheException) {
  sim::Machine machine;
  WireRecordedOperations();
  gWorkerOperations.Bootstrap = []() -> bool { throw std::runtime_error("no bootstrap"); };
  SetState(1, 5, 2, true);
  gSelectedServerValid = true;
  EXPECT_EQ(ReplyTo(R"({"id":7,"method":"POST /ui/select-location","server_id":"srv-b"})"),
            ErrorText("no bootstrap"));
  EXPECT_EQ(gSelectedServerId, "srv-b");
  EXPECT_FALSE(gSelectedServerValid);
  EXPECT_EQ(State(), "desired=1 epoch=5 status=2 up=true");
  EXPECT_EQ(gOperations.calls, Lines{});
}

// ---- The log methods' parameter ----

TEST(HandleIpcRequest, TakesTheFirstLimitOfTheLine) {
  sim::Machine machine;
  WireRecordedOperations();
  sim::PutFile(L"C:\\ProgramData\\sorvanik-vpn\\vpnservice.log", "a\r\nb\r\nc\r\n");
  const std::string last = R"([{"ts":"","level":"INFO","msg":"c"}])";
  EXPECT_EQ(ReplyTo(R"({"id":7,"note":"limit":1,"method":"GetRecentLogs","params":{"limit":3}})"),
            ResultText(last));
  EXPECT_EQ(ReplyTo(R"({"id":7,"method":"GET /ui/logs","params":{"limit":1}})"), ResultText(last));
}

}  // namespace
