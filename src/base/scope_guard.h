#pragma once

#include <utility>

namespace corvelstow {

/// Runs a clean-up when the scope ends, unless cancel() was called first.
template <typename F>
class ScopeGuard {
 public:
  explicit ScopeGuard(F action) : action_(std::move(action)) {}
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;
  ~ScopeGuard() {
    if (armed_) action_();
  }

  void cancel() noexcept { armed_ = false; }

 private:
  F action_;
  bool armed_ = true;
};

}  // namespace corvelstow
