// From a plan that breaks an invariant to the smallest set of its events that still does.
#pragma once

#include <cstddef>
#include <functional>

#include "simulation.h"

namespace simulator {

// Whether a plan still fails in the same way.
using StillFails = std::function<bool(const Plan& plan)>;

// By delta debugging: no single event of the result can be left out.
Plan Shrink(const Plan& plan, const StillFails& stillFails);

// By running: the same invariant is broken.
Plan ShrinkByRunning(const Plan& plan, const std::string& invariant, const RunOptions& options);

}  // namespace simulator
