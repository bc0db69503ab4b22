// The walk over all filters or callouts of the machine.
#pragma once

#include <functional>

#include "firewall/platform.h"

// How one kind of object is enumerated, and the names under which its failures are logged.
struct Enumeration {
  uint32_t (*create)(platform::Handle engine, platform::Handle& enumeration);
  uint32_t (*next)(platform::Handle engine, platform::Handle enumeration, uint32_t requested,
                   platform::FwpmBatch& batch);
  uint32_t (*destroy)(platform::Handle engine, platform::Handle enumeration);
  const wchar_t* createFailure;
  const wchar_t* nextFailure;
};

enum class WalkEnd { kNotStarted, kBroken, kComplete };

// Calls `visit` for each entry that is present, batch by batch, and releases every batch and the handle. A
// failure to start or to go on is logged by WfpLogError.
WalkEnd WalkObjects(platform::Handle engine, const Enumeration& enumeration,
                    const std::function<void(const platform::FwpmEntry&)>& visit);
