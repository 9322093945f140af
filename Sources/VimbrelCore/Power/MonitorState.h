// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <mutex>
#include <utility>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// What the monitors have in common: a cached value, a change callback and the platform's registration, under
/// one lock. The platform's callbacks hold it weakly, so that a notification under way on another thread
/// never meets a destroyed monitor.
template <typename Value>
class MonitorState {
 public:
  explicit MonitorState(Value initial) : value_(std::move(initial)) {}

  [[nodiscard]] Value value() const {
    const std::lock_guard guard(lock_);
    return value_;
  }

  void store(Value value) {
    const std::lock_guard guard(lock_);
    value_ = std::move(value);
  }

  void setCallback(std::function<void(const Value&)> callback) {
    const std::lock_guard guard(lock_);
    callback_ = std::move(callback);
  }

  /// Calls the callback, if there is one, with no lock held.
  void announce(const Value& value) const {
    std::function<void(const Value&)> callback;
    {
      const std::lock_guard guard(lock_);
      callback = callback_;
    }
    if (callback) callback(value);
  }

  [[nodiscard]] bool isObserving() const {
    const std::lock_guard guard(lock_);
    return static_cast<bool>(registration_);
  }

  /// Keeps the first registration; a later one is dropped. False when it was dropped or empty.
  bool observe(Token registration) {
    const std::lock_guard guard(lock_);
    if (registration_ || !registration) return false;
    registration_ = std::move(registration);
    return true;
  }

  /// Ends the observation; false when there was none.
  bool endObservation() {
    Token ended;  // Dropped with no lock held: cancelling takes the platform's.
    {
      const std::lock_guard guard(lock_);
      ended = std::move(registration_);
    }
    return static_cast<bool>(ended);
  }

 private:
  mutable std::mutex lock_;
  Value value_;
  std::function<void(const Value&)> callback_;
  Token registration_;
};

}  // namespace vimbrel
