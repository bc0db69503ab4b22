// Days without trouble, as plans: what a machine mostly lives through, and the measure of the simulator's
// speed.
#pragma once

#include <cstdint>
#include <string>

#include "plan.h"

namespace simulator {

// "idle": the service is started and left alone. "busy": a desktop program logs in, connects, polls and looks
// at its pages, changes the server and disconnects now and then. Any other name gives a plan without events.
Plan DayPlan(const std::string& name, double hours);

}  // namespace simulator
