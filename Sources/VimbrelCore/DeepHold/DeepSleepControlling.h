// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

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

  /// Stops the renewals and tells the helper nothing: the lease runs out by itself.
  virtual void letLapse() = 0;
  /// Why the last acquire was refused, as a sentence; empty when it was not. Known before its `done` is
  /// called.
  [[nodiscard]] virtual std::string lastRefusal() const = 0;
  /// The lease that this client takes or took last; absent after a release.
  [[nodiscard]] virtual std::optional<std::string> leaseId() const = 0;
};

}  // namespace vimbrel
