// A stand-in for WireGuard's wireguard.exe: installs and removes tunnel services in the service manager, and
// is the process of each of them. The interface itself is made and unmade by the laboratory's agent.
//
//   wireguard /installtunnelservice <conf path>     creates and starts WireGuardTunnel$<name of the file>
//   wireguard /uninstalltunnelservice <name>        stops and deletes it, and waits until it is gone
//   wireguard /tunnelservice <conf path>            the service's own process, for the service manager alone
//
// Ends with 0, or with 1 and a line on standard error.
#include <cstdio>
#include <iterator>

#include "agent_client.h"

namespace {

constexpr wchar_t kServicePrefix[] = L"WireGuardTunnel$";
constexpr wchar_t kDisplayPrefix[] = L"WireGuard Tunnel: ";
constexpr wchar_t kConfExtension[] = L".conf";
constexpr size_t kMaxNameLength = 32;
constexpr wchar_t kNameCharacters[] = L"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_=+.-";
constexpr DWORD kGoneTimeoutMs = 30000;
constexpr DWORD kPollMs = 20;

std::wstring gConfPath;
std::wstring gServiceName;
HANDLE gStopRequested = nullptr;
SERVICE_STATUS_HANDLE gStatusHandle = nullptr;

int Fail(const std::wstring& what, DWORD code = 0) {
  const std::wstring tail = code ? L" (error " + std::to_wstring(code) + L")" : L"";
  fprintf(stderr, "wireguard: %s\n", WideToUtf8(what + tail).c_str());
  return 1;
}

// The tunnel's name is the file's name without its extension; empty if that is no name of a tunnel.
std::wstring TunnelNameOf(const std::wstring& confPath) {
  const std::wstring file = confPath.substr(confPath.find_last_of(L"\\/") + 1);
  const size_t extension = std::size(kConfExtension) - 1;
  if (file.size() <= extension || _wcsicmp(file.c_str() + file.size() - extension, kConfExtension) != 0)
    return {};
  const std::wstring name = file.substr(0, file.size() - extension);
  const bool usable =
      name.size() <= kMaxNameLength && name.find_first_not_of(kNameCharacters) == std::wstring::npos;
  return usable ? name : std::wstring();
}

bool ReadConf(const std::wstring& path, std::string* text) {
  const HANDLE file =
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                  OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  char chunk[4096];
  DWORD count = 0;
  while (ReadFile(file, chunk, sizeof(chunk), &count, nullptr) && count > 0) text->append(chunk, count);
  CloseHandle(file);
  return true;
}

std::wstring OwnPath() {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return path;
}

std::wstring FullPath(const std::wstring& path) {
  wchar_t full[MAX_PATH] = {};
  const DWORD length = GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
  return length > 0 && length < MAX_PATH ? full : path;
}

int CreateAndStart(SC_HANDLE manager, const std::wstring& name, const std::wstring& confPath) {
  const std::wstring command = L"\"" + OwnPath() + L"\" /tunnelservice \"" + confPath + L"\"";
  const SC_HANDLE service =
      CreateServiceW(manager, (kServicePrefix + name).c_str(), (kDisplayPrefix + name).c_str(),
                     SERVICE_START | DELETE, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                     SERVICE_ERROR_NORMAL, command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
  if (!service) return Fail(L"the service of tunnel " + name + L" was not created", GetLastError());
  int result = 0;
  if (!StartServiceW(service, 0, nullptr)) {
    result = Fail(L"the service of tunnel " + name + L" did not start", GetLastError());
    DeleteService(service);
  }
  CloseServiceHandle(service);
  return result;
}

int Install(const std::wstring& givenPath) {
  const std::wstring confPath = FullPath(givenPath);
  const std::wstring name = TunnelNameOf(confPath);
  if (name.empty()) return Fail(L"no configuration file: " + givenPath);
  std::string conf;
  if (!ReadConf(confPath, &conf)) return Fail(L"cannot read " + confPath, GetLastError());
  const nlohmann::json checked = AskAgentOnce({{"op", "tunnel_check"}, {"conf", conf}});
  if (CodeOf(checked) != ERROR_SUCCESS) {
    return Fail(confPath + L": " + Utf8ToWide(ErrorOf(checked)), CodeOf(checked));
  }
  const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
  if (!manager) return Fail(L"no service manager", GetLastError());
  const int result = CreateAndStart(manager, name, confPath);
  CloseServiceHandle(manager);
  return result;
}

DWORD StateOf(SC_HANDLE service) {
  SERVICE_STATUS status = {};
  return QueryServiceStatus(service, &status) ? status.dwCurrentState : static_cast<DWORD>(SERVICE_STOPPED);
}

bool WaitUntil(bool (*reached)(SC_HANDLE, const std::wstring&), SC_HANDLE handle, const std::wstring& name) {
  const ULONGLONG start = GetTickCount64();
  while (!reached(handle, name)) {
    if (GetTickCount64() - start > kGoneTimeoutMs) return false;
    Sleep(kPollMs);
  }
  return true;
}

bool IsStopped(SC_HANDLE service, const std::wstring&) {
  return StateOf(service) == SERVICE_STOPPED;
}

bool IsGone(SC_HANDLE manager, const std::wstring& serviceName) {
  const SC_HANDLE service = OpenServiceW(manager, serviceName.c_str(), SERVICE_QUERY_STATUS);
  if (!service) return GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST;
  CloseServiceHandle(service);
  return false;
}

int StopAndDelete(SC_HANDLE manager, const std::wstring& serviceName) {
  const SC_HANDLE service =
      OpenServiceW(manager, serviceName.c_str(), SERVICE_QUERY_STATUS | SERVICE_STOP | DELETE);
  if (!service) return Fail(L"there is no " + serviceName, GetLastError());
  SERVICE_STATUS status = {};
  ControlService(service, SERVICE_CONTROL_STOP, &status);
  const bool stopped = WaitUntil(IsStopped, service, serviceName);
  const BOOL deleted = DeleteService(service);
  const DWORD code = GetLastError();
  CloseServiceHandle(service);
  if (!stopped) return Fail(serviceName + L" does not stop");
  if (!deleted && code != ERROR_SERVICE_MARKED_FOR_DELETE)
    return Fail(serviceName + L" was not deleted", code);
  return WaitUntil(IsGone, manager, serviceName) ? 0 : Fail(serviceName + L" does not go away");
}

int Uninstall(const std::wstring& name) {
  const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  if (!manager) return Fail(L"no service manager", GetLastError());
  const int result = StopAndDelete(manager, kServicePrefix + name);
  CloseServiceHandle(manager);
  return result;
}

void Report(DWORD state, DWORD exitCode = NO_ERROR) {
  SERVICE_STATUS status = {};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  status.dwWin32ExitCode = exitCode;
  status.dwWaitHint = kGoneTimeoutMs;
  SetServiceStatus(gStatusHandle, &status);
}

DWORD WINAPI HandleControl(DWORD control, DWORD, void*, void*) {
  if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
    Report(SERVICE_STOP_PENDING);
    SetEvent(gStopRequested);
    return NO_ERROR;
  }
  return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
}

// Brings the tunnel up, keeps it until the stop and takes it down. Gives the service's exit code.
DWORD RunTunnel() {
  const std::string name = WideToUtf8(TunnelNameOf(gConfPath));
  std::string conf;
  if (!ReadConf(gConfPath, &conf)) return GetLastError();
  AgentConnection connection;
  OpenAgent(&connection);
  // The tunnel is held by the connection, so that it ends with this process even if that is killed.
  const uint32_t code =
      CodeOf(AskAgent(&connection, {{"op", "tunnel_up"}, {"name", name}, {"conf", conf}, {"hold", true}}));
  if (code == ERROR_SUCCESS) {
    Report(SERVICE_RUNNING);
    WaitForSingleObject(gStopRequested, INFINITE);
    AskAgent(&connection, {{"op", "tunnel_down"}, {"name", name}});
  }
  CloseAgent(&connection);
  return code;
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  gStopRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  gStatusHandle = RegisterServiceCtrlHandlerExW(gServiceName.c_str(), HandleControl, nullptr);
  Report(SERVICE_START_PENDING);
  Report(SERVICE_STOPPED, RunTunnel());
}

int Serve(const std::wstring& confPath) {
  gConfPath = confPath;
  gServiceName = kServicePrefix + TunnelNameOf(confPath);
  const SERVICE_TABLE_ENTRYW services[] = {{gServiceName.data(), ServiceMain}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(services) ? 0
                                               : Fail(L"not started by the service manager", GetLastError());
}

struct Command {
  const wchar_t* name;
  int (*run)(const std::wstring& argument);
};

constexpr Command kCommands[] = {
    {L"/installtunnelservice", Install},
    {L"/uninstalltunnelservice", Uninstall},
    {L"/tunnelservice", Serve},
};

}  // namespace

int wmain(int count, wchar_t** arguments) {
  for (const Command& command : kCommands) {
    if (count == 3 && std::wstring(arguments[1]) == command.name) return command.run(arguments[2]);
  }
  return Fail(L"usage: wireguard /installtunnelservice <conf> | /uninstalltunnelservice <name>");
}
