// The simulated service control manager: the product's own service and all others.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "service/platform.h"

namespace sim {

// A service other than the product. It goes through its pending state for the given times.
struct Service {
  std::wstring name{};
  uint32_t state = 1;                 // SERVICE_STOPPED ... SERVICE_RUNNING
  uint32_t startMilliseconds = 20;    // START_PENDING lasts so long
  uint32_t stopMilliseconds = 20;     // STOP_PENDING lasts so long
  bool hangsOnStart = false;          // never leaves START_PENDING
  bool hangsOnStop = false;           // never leaves STOP_PENDING
  std::function<void()> onStarted{};  // called as it becomes RUNNING
  std::function<void()> onStopped{};  // called as it becomes STOPPED
};
void InstallService(const Service& service);
void RemoveService(const std::wstring& name);          // one that is not stopped becomes STOPPED first
void StartInstalledService(const std::wstring& name);  // as StartServiceW, from outside
bool ServiceInstalled(const std::wstring& name);
std::optional<uint32_t> ServiceState(const std::wstring& name);
void SetServiceState(const std::wstring& name, uint32_t state);

// The product's own service: whether the process was started by the manager (else the dispatcher fails with
// 1063). StartProduct starts wmain with these arguments (behind the program's name) on a simulated thread, as
// the manager or a terminal does, and returns at once.
void StartProduct(bool byServiceManager, const std::vector<std::wstring>& arguments = {});
bool ProductRunning();                 // wmain has not returned
std::optional<int> ProductExitCode();  // of wmain, once it has returned
// Sends a control to the product's handler on the dispatcher's thread and waits for its result; as
// ControlService by the manager (any control number). False if the service does not take it now.
bool SendControl(uint32_t control, uint32_t milliseconds = 60000);
// The reports that the product made by SetServiceStatus, in order.
const std::vector<platform::ServiceStatus>& StatusReports();

}  // namespace sim
