// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

namespace vimbrel {

/// Whether the lid was closed when last read. Reads are from a cache under the monitor's own lock: any
/// thread.
class LidMonitoring {
 public:
  using ChangeCallback = std::function<void(bool)>;

  virtual ~LidMonitoring() = default;
  [[nodiscard]] virtual bool isLidClosed() const = 0;
  /// Replaces the callback, which arrives on the main queue with no lock held. Set it before `start`.
  virtual void setOnLidStateChanged(ChangeCallback callback) = 0;
  virtual void start() = 0;
  virtual void stop() = 0;
};

}  // namespace vimbrel
