// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "DeepHold/DeepHoldProtocol.h"

namespace vimbrel {

/// The application's side of the deep hold. Every operation returns at once; they run one at a time, in
/// order, and then call `done` (which may be empty) on a background queue. Any thread.
class DeepSleepControlling {
 public:
  virtual ~DeepSleepControlling() = default;
  /// The helper's own status, or what can be said without its answer.
  virtual void status(std::move_only_function<void(DeepSleepStatus)> done) = 0;
  /// Takes the hold, or renews it, for `ttlSeconds` from now; `done` gets whether the helper agreed.
  virtual void acquire(double ttlSeconds, std::move_only_function<void(bool)> done) = 0;
  /// Gives the hold back, if one was ever asked for.
  virtual void release(std::move_only_function<void()> done) = 0;
};

}  // namespace vimbrel
