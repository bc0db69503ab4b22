// The rights of files: grants are kept in the order in which they were set and have no other effect. Also
// LocalFree for the memory that the rights operations hand out.
#include <string>
#include <vector>

#include "device.h"
#include "files.h"
#include "service/platform.h"

namespace sim {
namespace {

constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorInvalidAcl = 1336;
constexpr uintptr_t kInsideDescriptor = 1;  // handles are multiples of four

// A security descriptor with the list inside it, or a list made by SetEntriesInAclW: both are system memory.
struct AccessList : Object {
  AccessList() : Object("memory") {}
  std::vector<Grant> added;  // without path
};

std::vector<Grant> gGrants;

const Device kDevice("rights", [] { gGrants.clear(); });

std::shared_ptr<AccessList> FindList(void* acl) {
  const uintptr_t value = reinterpret_cast<uintptr_t>(acl) & ~kInsideDescriptor;
  return Find<AccessList>(reinterpret_cast<platform::Handle>(value));  // NOLINT(performance-no-int-to-ptr)
}

}  // namespace

const std::vector<Grant>& Grants() {
  return gGrants;
}

}  // namespace sim

namespace platform {

using sim::Args;
using sim::Call;

uint32_t GetNamedSecurityInfoW(const std::wstring& path, uint32_t objectType, uint32_t information,
                               void*& dacl, void*& descriptor) {
  Call call("GetNamedSecurityInfoW",
            Args("path", path, "objectType", objectType, "information", information));
  if (call.Faulted()) return call.FaultCode();
  if (!sim::FileExists(path) && !sim::FolderExists(path)) return call.Status(sim::kErrorFileNotFound);
  descriptor = sim::OpenHandle(std::make_shared<sim::AccessList>());
  const uintptr_t inside = reinterpret_cast<uintptr_t>(descriptor) | sim::kInsideDescriptor;
  dacl = reinterpret_cast<void*>(inside);  // NOLINT(performance-no-int-to-ptr): a number, no address
  return call.Status(0);
}

uint32_t SetEntriesInAclW(const ExplicitAccess& entry, void* oldAcl, void*& newAcl) {
  Call call("SetEntriesInAclW",
            Args("permissions", sim::Hex{entry.accessPermissions}, "mode", entry.accessMode, "inheritance",
                 entry.inheritance, "trusteeForm", entry.trusteeForm, "trusteeType", entry.trusteeType,
                 "trusteeName", entry.trusteeName, "oldAcl", oldAcl));
  if (call.Faulted()) return call.FaultCode();
  auto list = std::make_shared<sim::AccessList>();
  if (const auto old = sim::FindList(oldAcl)) list->added = old->added;
  list->added.push_back({L"", entry.accessPermissions, entry.accessMode, entry.inheritance, entry.trusteeForm,
                         entry.trusteeType, entry.trusteeName});
  newAcl = sim::OpenHandle(list);
  return call.Status(0);
}

uint32_t SetNamedSecurityInfoW(const std::wstring& path, uint32_t objectType, uint32_t information,
                               void* dacl) {
  Call call("SetNamedSecurityInfoW",
            Args("path", path, "objectType", objectType, "information", information, "dacl", dacl));
  if (call.Faulted()) return call.FaultCode();
  if (!sim::FileExists(path) && !sim::FolderExists(path)) return call.Status(sim::kErrorFileNotFound);
  const auto list = sim::FindList(dacl);
  if (!list) return call.Status(sim::kErrorInvalidAcl);
  for (sim::Grant grant : list->added) {
    grant.path = path;
    sim::gGrants.push_back(grant);
  }
  return call.Status(0);
}

void LocalFree(void* memory) {
  Call call("LocalFree", Args("memory", memory), Call::Kind::kReleasing);
  if (call.Dead() || !memory) return;
  if (sim::Use<sim::AccessList>("LocalFree", memory)) sim::CloseObject(memory);
}

}  // namespace platform
