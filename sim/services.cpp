// The service control manager, seen by its clients and by the product as a service.
#include "services.h"

#include <algorithm>
#include <deque>
#include <map>

#include "case.h"
#include "device.h"
#include "service/entry.h"
#include "service/platform.h"
#include "wireguard/platform.h"

namespace sim {
namespace {

constexpr wchar_t kOwnName[] = L"TELVOR";
const std::wstring kOwnKey = LowerCase(kOwnName);

constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorInvalidLevel = 124;
constexpr uint32_t kErrorInvalidServiceControl = 1052;
constexpr uint32_t kErrorServiceRequestTimeout = 1053;
constexpr uint32_t kErrorServiceDisabled = 1058;
constexpr uint32_t kErrorServiceDoesNotExist = 1060;
constexpr uint32_t kErrorServiceCannotAcceptControl = 1061;

constexpr uint32_t kServiceInterrogate = 0x80;
constexpr uint32_t kServiceUserDefinedControl = 0x100;
constexpr uint32_t kServiceAcceptStop = 1;
constexpr uint32_t kControlInterrogate = 4;
constexpr uint32_t kFirstUserControl = 128;
constexpr uint32_t kLastUserControl = 255;
constexpr uint32_t kControlWait = 30'000;  // milliseconds that ControlService waits for a handler
constexpr uint32_t kBytesPerService = 56;  // ENUM_SERVICE_STATUS_PROCESSW, without its names

struct Record {
  Service service;
  bool own = false;          // the product's
  uint64_t transitions = 0;  // a pending transition that is not the latest has no effect
};
using RecordPointer = std::shared_ptr<Record>;

// Both can be closed by CloseServiceHandle.
struct ControlHandle : Object {
  using Object::Object;
};

struct ManagerHandle : ControlHandle {
  explicit ManagerHandle(uint32_t access) : ControlHandle("manager"), rights(access) {}
  uint32_t rights;
};

struct ServiceHandle : ControlHandle {
  ServiceHandle(RecordPointer opened, uint32_t access)
      : ControlHandle("service"), record(std::move(opened)), rights(access) {}
  RecordPointer record;
  uint32_t rights;
};

// A control on its way to the product's handler.
struct ControlRequest {
  uint32_t control = 0;
  bool done = false;
  bool abandoned = false;  // the process ended first
};
using RequestPointer = std::shared_ptr<ControlRequest>;

struct Product {
  bool running = false;
  bool byManager = false;
  bool dispatching = false;
  platform::ServiceCtrlHandlerFunction handler = nullptr;
  uint32_t controlsAccepted = 0;
  std::deque<RequestPointer> requests;
  RequestPointer current;
  std::optional<int> returned;  // wmain's result, while the process ends
  std::optional<int> exitCode;
};

std::map<std::wstring, RecordPointer> gServices;  // by name in lower case
Product gProduct;
std::vector<platform::ServiceStatus> gReports;

// What RegisterServiceCtrlHandlerExW gives; it is never closed.
platform::Handle StatusHandle() {
  static char gStatus = 0;
  return &gStatus;
}

RecordPointer FindByKey(const std::wstring& key) {
  const auto found = gServices.find(key);
  return found == gServices.end() ? nullptr : found->second;
}

RecordPointer FindRecord(const std::wstring& name) {
  return FindByKey(LowerCase(name));
}

// Asked at every choice of a thread, by the dispatcher's wait.
RecordPointer OwnRecord() {
  return FindByKey(kOwnKey);
}

// Of the product's service; stopped also when a test has removed it.
uint32_t OwnState() {
  const RecordPointer own = OwnRecord();
  return own ? own->service.state : platform::kServiceStopped;
}

void SetOwnState(uint32_t state) {
  if (const RecordPointer own = OwnRecord()) own->service.state = state;
}

void Boot() {
  gServices.clear();
  gReports.clear();
  gProduct = Product{};
  auto own = std::make_shared<Record>();
  own->service.name = kOwnName;
  own->own = true;
  gServices[kOwnKey] = own;
}

void OnProcessEnd() {
  for (const RequestPointer& request : gProduct.requests) request->abandoned = true;
  if (gProduct.current) gProduct.current->abandoned = true;
  const std::optional<int> exitCode = gProduct.returned;
  if (const RecordPointer own = OwnRecord(); own && own->own) own->service.state = platform::kServiceStopped;
  gProduct = Product{};
  gProduct.exitCode = exitCode;
}

const Device kDevice("services", &Boot, &OnProcessEnd);

void Enter(Record& record, uint32_t state) {
  record.service.state = state;
  const auto& entered = state == platform::kServiceRunning   ? record.service.onStarted
                        : state == platform::kServiceStopped ? record.service.onStopped
                                                             : nullptr;
  if (entered) entered();
}

// Goes into a pending state and, unless it hangs there, on from it.
void BeginTransition(const RecordPointer& record, uint32_t pending, uint32_t final) {
  const Service& service = record->service;
  const bool starts = pending == platform::kServiceStartPending;
  record->service.state = pending;
  const uint64_t transition = ++record->transitions;
  if (starts ? service.hangsOnStart : service.hangsOnStop) return;
  After(starts ? service.startMilliseconds : service.stopMilliseconds, [record, transition, final] {
    if (record->transitions == transition) Enter(*record, final);
  });
}

// ---- Controls to the product's own service ----

RequestPointer PostControl(uint32_t control) {
  auto request = std::make_shared<ControlRequest>();
  request->control = control;
  gProduct.requests.push_back(request);
  return request;
}

// The next control for the handler; null when the service has stopped.
RequestPointer AwaitControl() {
  const auto stopped = [] { return OwnState() == platform::kServiceStopped; };
  WaitUntil(
      "StartServiceCtrlDispatcherW", [&stopped] { return stopped() || !gProduct.requests.empty(); },
      kForever);
  Guard guard;
  gProduct.current = nullptr;
  if (stopped()) return nullptr;
  gProduct.current = gProduct.requests.front();
  gProduct.requests.pop_front();
  return gProduct.current;
}

void Dispatch() {
  while (const RequestPointer request = AwaitControl()) {
    if (gProduct.handler) gProduct.handler(request->control);
    Guard guard;
    request->done = true;
  }
}

bool ControlOwn(Call& call, uint32_t control) {
  if (OwnState() != platform::kServiceRunning || !gProduct.dispatching) {
    return call.Fail(kErrorServiceCannotAcceptControl);
  }
  if (control == platform::kServiceControlStop && !(gProduct.controlsAccepted & kServiceAcceptStop)) {
    return call.Fail(kErrorInvalidServiceControl);
  }
  const RequestPointer request = PostControl(control);
  const bool done = call.WaitFor([&request] { return request->done; }, kControlWait);
  return done || call.Fail(kErrorServiceRequestTimeout);
}

// The right that a control needs; 0 for controls that only the manager sends.
uint32_t RightFor(uint32_t control) {
  if (control == platform::kServiceControlStop) return platform::kServiceStop;
  if (control == kControlInterrogate) return kServiceInterrogate;
  return control >= kFirstUserControl && control <= kLastUserControl ? kServiceUserDefinedControl : 0;
}

bool ControlOther(Call& call, const RecordPointer& record, uint32_t control) {
  if (control != platform::kServiceControlStop) return true;
  if (record->service.state != platform::kServiceRunning) return call.Fail(kErrorServiceCannotAcceptControl);
  BeginTransition(record, platform::kServiceStopPending, platform::kServiceStopped);
  return true;
}

uint32_t BytesFor(const Record& record) {
  // The display name is the name again.
  return kBytesPerService + static_cast<uint32_t>(4 * (record.service.name.size() + 1));
}

void RunMain(const std::vector<std::wstring>& arguments) {
  std::vector<std::wstring> texts = {L"C:\\Program Files\\TELVOR\\telvor.exe"};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<wchar_t*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::wstring& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  const int result = wmain(static_cast<int>(texts.size()), pointers.data());
  RunAtExitHooks();
  {
    Guard guard;
    gProduct.returned = result;
  }
  EndProcess(ProcessEnd::kExited);
}

}  // namespace

// ---- The tests' side ----

void InstallService(const Service& service) {
  Guard guard;
  auto record = std::make_shared<Record>();
  record->service = service;
  gServices[LowerCase(service.name)] = record;
}

void RemoveService(const std::wstring& name) {
  Guard guard;
  const RecordPointer record = FindRecord(name);
  if (!record) return;
  ++record->transitions;
  if (record->service.state != platform::kServiceStopped) Enter(*record, platform::kServiceStopped);
  gServices.erase(LowerCase(name));
}

bool ServiceInstalled(const std::wstring& name) {
  Guard guard;
  return FindRecord(name) != nullptr;
}

std::optional<uint32_t> ServiceState(const std::wstring& name) {
  Guard guard;
  const RecordPointer record = FindRecord(name);
  if (!record) return std::nullopt;
  return record->service.state;
}

void SetServiceState(const std::wstring& name, uint32_t state) {
  Guard guard;
  const RecordPointer record = FindRecord(name);
  if (!record) return;
  ++record->transitions;
  Enter(*record, state);
}

void StartInstalledService(const std::wstring& name) {
  Guard guard;
  const RecordPointer record = FindRecord(name);
  if (!record) return;
  BeginTransition(record, platform::kServiceStartPending, platform::kServiceRunning);
}

void StartProduct(bool byServiceManager, const std::vector<std::wstring>& arguments) {
  {
    Guard guard;
    if (gProduct.running) ReportFailure("the product runs already");
    gProduct = Product{};
    gProduct.running = true;
    gProduct.byManager = byServiceManager;
    ForgetCrashHooks();
    if (byServiceManager) SetOwnState(platform::kServiceStartPending);
  }
  StartThread("wmain", [arguments] { RunMain(arguments); });
}

bool ProductRunning() {
  Guard guard;
  return gProduct.running;
}

std::optional<int> ProductExitCode() {
  Guard guard;
  return gProduct.exitCode;
}

bool SendControl(uint32_t control, uint32_t milliseconds) {
  Guard guard;
  const bool takesControls =
      gProduct.dispatching && gProduct.handler && OwnState() != platform::kServiceStopped;
  if (!takesControls) return false;
  const RequestPointer request = PostControl(control);
  WaitUntil(
      "SendControl", [request] { return request->done || request->abandoned; }, milliseconds);
  return request->done;
}

const std::vector<platform::ServiceStatus>& StatusReports() {
  return gReports;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

// ---- As a client ----

Handle OpenSCManagerW(uint32_t access) {
  Call call("OpenSCManagerW", Args("access", access));
  if (call.Faulted()) return nullptr;
  Handle handle = sim::OpenHandle(std::make_shared<sim::ManagerHandle>(access));
  call.SetResult(Args("handle", handle));
  return handle;
}

Handle OpenServiceW(Handle manager, const std::wstring& name, uint32_t access) {
  Call call("OpenServiceW", Args("manager", manager, "name", name, "access", access));
  if (call.Faulted()) return nullptr;
  if (!sim::Use<sim::ManagerHandle>("OpenServiceW", manager)) {
    call.Fail(sim::kErrorInvalidHandle);
    return nullptr;
  }
  const sim::RecordPointer record = sim::FindRecord(name);
  if (!record) {
    call.Fail(sim::kErrorServiceDoesNotExist);
    return nullptr;
  }
  Handle handle = sim::OpenHandle(std::make_shared<sim::ServiceHandle>(record, access));
  call.SetResult(Args("handle", handle));
  return handle;
}

bool ControlService(Handle service, uint32_t control) {
  Call call("ControlService", Args("service", service, "control", control));
  if (call.Faulted()) return false;
  const auto object = sim::Use<sim::ServiceHandle>("ControlService", service);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  const uint32_t right = sim::RightFor(control);
  if (right == 0) return call.Fail(sim::kErrorInvalidParameter);
  if (!(object->rights & right)) return call.Fail(sim::kErrorAccessDenied);
  if (object->record->service.state == kServiceStopped) return call.Fail(kErrorServiceNotActive);
  return object->record->own ? sim::ControlOwn(call, control)
                             : sim::ControlOther(call, object->record, control);
}

bool QueryServiceStatusEx(Handle service, uint32_t& currentState) {
  Call call("QueryServiceStatusEx", Args("service", service));
  if (call.Faulted()) return false;
  const auto object = sim::Use<sim::ServiceHandle>("QueryServiceStatusEx", service);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  if (!(object->rights & kServiceQueryStatus)) return call.Fail(sim::kErrorAccessDenied);
  currentState = object->record->service.state;
  call.SetResult(Args("state", currentState));
  return true;
}

bool StartServiceW(Handle service) {
  Call call("StartServiceW", Args("service", service));
  if (call.Faulted()) return false;
  const auto object = sim::Use<sim::ServiceHandle>("StartServiceW", service);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  if (!(object->rights & kServiceStart)) return call.Fail(sim::kErrorAccessDenied);
  if (object->record->service.state != kServiceStopped) return call.Fail(kErrorServiceAlreadyRunning);
  if (object->record->own) return call.Fail(sim::kErrorServiceDisabled);
  sim::BeginTransition(object->record, kServiceStartPending, kServiceRunning);
  return true;
}

bool EnumServicesStatusExW(Handle manager, uint32_t level, uint32_t type, uint32_t state, uint32_t bufferSize,
                           uint32_t& bytesNeeded, std::vector<ServiceEntry>& entries) {
  Call call("EnumServicesStatusExW",
            Args("manager", manager, "level", level, "type", type, "state", state, "bufferSize", bufferSize));
  bytesNeeded = 0;
  entries.clear();
  if (call.Faulted()) return false;
  const auto object = sim::Use<sim::ManagerHandle>("EnumServicesStatusExW", manager);
  if (!object) return call.Fail(sim::kErrorInvalidHandle);
  if (!(object->rights & kScManagerEnumerateService)) return call.Fail(sim::kErrorAccessDenied);
  if (level != kScEnumProcessInfo) return call.Fail(sim::kErrorInvalidLevel);
  uint32_t used = 0;
  for (const auto& [key, record] : sim::gServices) {
    const uint32_t size = sim::BytesFor(*record);
    if (bytesNeeded > 0 || used + size > bufferSize) {
      bytesNeeded += size;
      continue;
    }
    used += size;
    entries.push_back({record->service.name, record->service.state});
  }
  if (bytesNeeded > 0) return call.Fail(kErrorMoreData);
  call.SetResult(Args("services", entries.size()));
  return true;
}

bool CloseServiceHandle(Handle handle) {
  return sim::CloseAs<sim::ControlHandle>("CloseServiceHandle", handle);
}

// ---- As a service ----

bool StartServiceCtrlDispatcherW(const wchar_t* serviceName, ServiceMainFunction serviceMain) {
  {
    Call call("StartServiceCtrlDispatcherW", Args("serviceName", serviceName));
    if (call.Faulted()) return false;
    if (!sim::gProduct.byManager) return call.Fail(kErrorFailedServiceControllerConnect);
    sim::gProduct.dispatching = true;
    sim::StartThread("ServiceMain", serviceMain);
  }
  sim::Dispatch();
  return true;
}

Handle RegisterServiceCtrlHandlerExW(const wchar_t* serviceName, ServiceCtrlHandlerFunction handler) {
  Call call("RegisterServiceCtrlHandlerExW", Args("serviceName", serviceName));
  if (call.Faulted()) return nullptr;
  sim::gProduct.handler = handler;
  return sim::StatusHandle();
}

bool SetServiceStatus(Handle statusHandle, const ServiceStatus& status) {
  Call call("SetServiceStatus",
            Args("statusHandle", statusHandle, "type", status.dwServiceType, "state", status.dwCurrentState,
                 "controlsAccepted", status.dwControlsAccepted, "exitCode", status.dwWin32ExitCode,
                 "specificExitCode", status.dwServiceSpecificExitCode, "checkPoint", status.dwCheckPoint,
                 "waitHint", status.dwWaitHint));
  if (call.Faulted()) return false;
  if (statusHandle != sim::StatusHandle()) return call.Fail(sim::kErrorInvalidHandle);
  sim::gReports.push_back(status);
  sim::gProduct.controlsAccepted = status.dwControlsAccepted;
  sim::SetOwnState(status.dwCurrentState);
  return true;
}

}  // namespace platform
