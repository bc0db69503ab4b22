#include "ipc/dispatch.h"

#include <exception>

#include "ipc/methods.h"
#include "ipc/replies.h"
#include "ipc/request_fields.h"

namespace {

bool RunMethod(const PipeRequest& request, std::string& reply) {
  std::string name;
  if (!ReadRequestString(request.line, "method", name)) {
    reply = ErrorReply(request.id, "IPC: missing method");
    return false;
  }
  for (const PipeMethod& method : gPipeMethods) {
    if (method.body && name == method.name) return method.body(request, reply);
  }
  reply = ErrorReply(request.id, "IPC: unknown method");
  return false;
}

}  // namespace

bool HandleIpcRequest(const std::string& line, std::string& reply) {
  int32_t id = 0;
  try {
    ReadRequestInt(line, "id", id);
    return RunMethod({line, id}, reply);
  } catch (const std::exception& exception) {
    reply = ErrorReply(id, exception.what());
    return true;
  }
}
