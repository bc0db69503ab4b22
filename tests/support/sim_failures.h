// What the simulated machine finds fault with fails the running test instead of ending the test program.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "sim/kernel.h"

inline const bool kMachineFailuresFailTheTest = [] {
  sim::SetFailureReporter([](const std::string& text) { ADD_FAILURE() << text; });
  return true;
}();
