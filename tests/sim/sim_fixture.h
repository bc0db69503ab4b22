// A machine whose reported failures can be caught instead of failing the test.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/kernel.h"
#include "tests/support/sim_failures.h"

inline std::vector<std::string> gReportedFailures;

// Catches the reports of its scope.
class CaughtReports {
 public:
  CaughtReports() {
    gReportedFailures.clear();
    sim::SetFailureReporter([](const std::string& text) { gReportedFailures.push_back(text); });
  }
  ~CaughtReports() {
    sim::SetFailureReporter([](const std::string& text) { ADD_FAILURE() << text; });
  }
  CaughtReports(const CaughtReports&) = delete;
  CaughtReports& operator=(const CaughtReports&) = delete;
};
