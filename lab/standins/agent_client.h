// The way from a stand-in to the laboratory's agent: JSON lines over loopback TCP. The agent's own page,
// lab/agent/agent.py, tells the operations.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

// One connection. The agent ties an engine session and a held tunnel to the connection that asked for them.
struct AgentConnection {
  SOCKET socket = INVALID_SOCKET;
  std::mutex oneRequestAtATime;
  std::string received;  // bytes behind the last reply
};

// Connects; false if nobody listens.
bool OpenAgent(AgentConnection* connection);

// Closes; harmless on a connection that is not open.
void CloseAgent(AgentConnection* connection);

// Asks and waits for the answer. A connection that breaks, or was never open, answers
// {"code": RPC_S_SERVER_UNAVAILABLE}, as a Windows service that is gone would.
nlohmann::json AskAgent(AgentConnection* connection, const nlohmann::json& request);

// Asks over a connection of its own.
nlohmann::json AskAgentOnce(const nlohmann::json& request);

// The Windows error code of an answer.
uint32_t CodeOf(const nlohmann::json& answer);

// What the answer tells about a failure; may be empty. UTF-8.
std::string ErrorOf(const nlohmann::json& answer);

std::string WideToUtf8(std::wstring_view text);
std::wstring Utf8ToWide(std::string_view text);
