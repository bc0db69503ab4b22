#include "telvorctl/conclusion.h"

#include "telvorctl/terminal.h"

namespace telvorctl {

ExitCode Conclude(const Reply& reply) {
  if (reply.code != kDone && !reply.message.empty()) Complain(reply.message);
  return reply.code;
}

ExitCode Finish(const Options& options, const Reply& reply, const std::vector<std::string>& lines) {
  if (options.json && !reply.result.is_null()) {
    SayJson(reply.result);
  } else if (!options.json && reply.code == kDone) {
    SayAll(lines);
  }
  return Conclude(reply);
}

}  // namespace telvorctl
