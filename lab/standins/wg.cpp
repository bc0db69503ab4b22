// A stand-in for WireGuard's wg.exe: the laboratory's real wg is run by the agent, and what it wrote and how
// it ended are given on byte for byte.
#include <fcntl.h>
#include <io.h>

#include <cstdio>

#include "agent_client.h"

namespace {

void WriteBytes(FILE* stream, const std::string& bytes) {
  fwrite(bytes.data(), 1, bytes.size(), stream);
  fflush(stream);
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
  nlohmann::json request = {{"op", "wg"}, {"args", nlohmann::json::array()}};
  for (int i = 1; i < count; ++i) request["args"].push_back(WideToUtf8(arguments[i]));
  const nlohmann::json answer = AskAgentOnce(request);
  if (CodeOf(answer) != ERROR_SUCCESS) {
    WriteBytes(stderr, "wg: " + ErrorOf(answer) + "\n");
    return static_cast<int>(CodeOf(answer));
  }
  WriteBytes(stdout, answer.at("stdout").get<std::string>());
  WriteBytes(stderr, answer.at("stderr").get<std::string>());
  return answer.at("exit_code").get<int>();
}
