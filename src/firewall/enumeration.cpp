#include "firewall/enumeration.h"

#include "service/log.h"

namespace {

constexpr uint32_t kBatchSize = 256;

}  // namespace

WalkEnd WalkObjects(platform::Handle engine, const Enumeration& enumeration,
                    const std::function<void(const platform::FwpmEntry&)>& visit) {
  platform::Handle handle = nullptr;
  if (const uint32_t code = enumeration.create(engine, handle); code != platform::kErrorSuccess) {
    WfpLogError(enumeration.createFailure, code);
    return WalkEnd::kNotStarted;
  }
  WalkEnd end = WalkEnd::kBroken;
  for (;;) {
    platform::FwpmBatch batch;
    const uint32_t code = enumeration.next(engine, handle, kBatchSize, batch);
    if (code != platform::kErrorSuccess) {
      WfpLogError(enumeration.nextFailure, code);
      break;
    }
    for (const platform::FwpmEntry& entry : batch.entries) {
      if (entry.present) visit(entry);
    }
    const bool last = batch.entries.empty();
    platform::FwpmFreeMemory0(batch.memory);
    if (last) {
      end = WalkEnd::kComplete;
      break;
    }
  }
  enumeration.destroy(engine, handle);
  return end;
}
