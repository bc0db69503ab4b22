#include "agent_client.h"

#include <ws2tcpip.h>

namespace {

constexpr uint16_t kAgentPort = 47100;

bool StartWinsock() {
  WSADATA data;
  static const bool started = WSAStartup(MAKEWORD(2, 2), &data) == 0;
  return started;
}

bool SendAll(SOCKET socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const int sent = send(socket, bytes.data(), static_cast<int>(bytes.size()), 0);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

bool ReceiveLine(AgentConnection* connection, std::string* line) {
  char chunk[65536];
  size_t searched = 0;
  for (;;) {
    const size_t end = connection->received.find('\n', searched);
    if (end != std::string::npos) {
      *line = connection->received.substr(0, end);
      connection->received.erase(0, end + 1);
      return true;
    }
    searched = connection->received.size();
    const int count = recv(connection->socket, chunk, sizeof(chunk), 0);
    if (count <= 0) return false;
    connection->received.append(chunk, static_cast<size_t>(count));
  }
}

}  // namespace

bool OpenAgent(AgentConnection* connection) {
  if (!StartWinsock()) return false;
  // Not inherited, as no engine handle is: a program that the service started may outlive it, and would keep
  // the dead one's session and its open transaction.
  connection->socket = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                  WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (connection->socket == INVALID_SOCKET) return false;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(kAgentPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(connection->socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    CloseAgent(connection);
    return false;
  }
  const BOOL atOnce = TRUE;
  setsockopt(connection->socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&atOnce),
             sizeof(atOnce));
  return true;
}

void CloseAgent(AgentConnection* connection) {
  if (connection->socket != INVALID_SOCKET) closesocket(connection->socket);
  connection->socket = INVALID_SOCKET;
  connection->received.clear();
}

nlohmann::json AskAgent(AgentConnection* connection, const nlohmann::json& request) {
  const std::lock_guard lock(connection->oneRequestAtATime);
  std::string line;
  if (connection->socket != INVALID_SOCKET && SendAll(connection->socket, request.dump() + "\n") &&
      ReceiveLine(connection, &line)) {
    nlohmann::json answer = nlohmann::json::parse(line, nullptr, false);
    if (answer.is_object() && answer.contains("code")) return answer;
  }
  CloseAgent(connection);
  return {{"code", RPC_S_SERVER_UNAVAILABLE}, {"error", "the laboratory's agent does not answer"}};
}

nlohmann::json AskAgentOnce(const nlohmann::json& request) {
  AgentConnection connection;
  OpenAgent(&connection);
  nlohmann::json answer = AskAgent(&connection, request);
  CloseAgent(&connection);
  return answer;
}

uint32_t CodeOf(const nlohmann::json& answer) {
  return answer.at("code").get<uint32_t>();
}

std::string ErrorOf(const nlohmann::json& answer) {
  return answer.value("error", "");
}

std::string WideToUtf8(std::wstring_view text) {
  const int length = static_cast<int>(text.size());
  const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, narrow.data(), size, nullptr, nullptr);
  return narrow;
}

std::wstring Utf8ToWide(std::string_view text) {
  const int length = static_cast<int>(text.size());
  const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
  std::wstring wide(static_cast<size_t>(size), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), size);
  return wide;
}
