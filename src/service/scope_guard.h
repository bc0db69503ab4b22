// Runs a function when the scope ends, on every path.
#pragma once

#include <utility>

template <class F>
class [[nodiscard]] ScopeGuard {
 public:
  explicit ScopeGuard(F function) : function_(std::move(function)) {}
  ~ScopeGuard() { function_(); }
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;

 private:
  F function_;
};
