// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace vimbrel {

/// Holds idle sleep off, as the coordinator sees it. Any thread.
class IdleWakeControlling {
 public:
  virtual ~IdleWakeControlling() = default;
  /// True while the system assertion is held.
  [[nodiscard]] virtual bool isActive() const = 0;
  /// True while the display assertion is held too.
  [[nodiscard]] virtual bool isDisplayActive() const { return false; }
  /// Makes sure that the assertions are held and returns whether the system assertion is. A new `reason`
  /// alone does not take them anew.
  virtual bool acquire(std::string_view reason, bool preventDisplaySleep) = 0;
  /// Gives back whatever is held.
  virtual void release() = 0;
};

}  // namespace vimbrel
