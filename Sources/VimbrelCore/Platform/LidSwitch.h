// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// The laptop's lid.
class LidSwitch {
 public:
  virtual ~LidSwitch() = default;
  /// True when closed; absent when the machine has no lid or does not tell. Main queue.
  [[nodiscard]] virtual std::optional<bool> isClosed() = 0;
  /// Calls `changed` on the main queue when the lid was opened or closed, until the token is dropped.
  [[nodiscard]] virtual Token watch(std::function<void()> changed) = 0;
};

}  // namespace vimbrel
