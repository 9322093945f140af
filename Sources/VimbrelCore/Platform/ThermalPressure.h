// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// How hot the machine is, on the platform's scale: 0 nominal, 1 fair, 2 serious, 3 critical.
class ThermalPressure {
 public:
  virtual ~ThermalPressure() = default;
  /// The level now; 0 when the machine tells nothing. Any thread.
  [[nodiscard]] virtual int level() = 0;
  /// Calls `changed` on the main queue when the level changes, until the token is dropped.
  [[nodiscard]] virtual Token watch(std::function<void()> changed) = 0;
};

}  // namespace vimbrel
