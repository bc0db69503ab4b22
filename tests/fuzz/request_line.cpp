// A whole request on a machine without a network: whatever the line, the reply is one line of JSON with the
// request's id.
#include "engine/operations.h"
#include "fuzz/naive_json.h"
#include "fuzz/naive_request.h"
#include "fuzz/target.h"
#include "ipc/dispatch.h"
#include "ipc/methods.h"
#include "service/log.h"
#include "service/wiring.h"
#include "sim/files.h"
#include "sim/kernel.h"

namespace fuzz {
namespace {

bool IsMethod(const std::string& name) {
  for (const PipeMethod& method : gPipeMethods) {
    if (name == method.name) return true;
  }
  return false;
}

void HoldReply(const std::string& line, const std::string& reply, bool result) {
  const std::string head =
      R"({"jsonrpc":"2.0","id":)" + std::to_string(NaiveRequestInt(line, "id").value_or(0)) + ",";
  Require(reply.starts_with(head), "the reply begins with the request's id: " + reply);
  Require(reply.find_first_of(std::string("\n\r\0", 3)) == std::string::npos, "the reply is one line");
  Require(IsJson(reply), "the reply is JSON: " + reply);
  const auto method = NaiveRequestString(line, "method");
  const std::string refused = !method              ? "IPC: missing method"
                              : !IsMethod(*method) ? "IPC: unknown method"
                                                   : "";
  const bool known = refused.empty();
  Require(known || reply == head + R"("result":null,"error":{"message":")" + refused + R"("}})",
          "a line without a known method is refused: " + reply);
  Require(known || !result, "a refused line is no success");
  Require(!known || reply.find(R"("message":"IPC: )") == std::string::npos,
          "a known method is run: " + reply);
}

}  // namespace

void RunRequestLine(const std::string& bytes) {
  const sim::Machine machine;
  WireSubsystems();
  // There is no service manager to stop the service, and a log, without which a log method's reply is no
  // JSON.
  gWorkerOperations.StopOwnService = [] { return false; };
  sim::PutFile(GetLogFilePath(), "[2026-01-01 00:00:00] first\r\n");
  std::string reply = "not replaced";
  const bool result = HandleIpcRequest(bytes, reply);
  HoldReply(bytes, reply, result);
}

}  // namespace fuzz
