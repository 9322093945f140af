// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Support/TaskQueue.h"

namespace vimbrel {

/// Tells the service manager that started this process how it stands, if one did (sd_notify(3)).
class ServiceManager {
 public:
  /// READY, and from then on a sign of life from the main queue as often as the manager's watchdog asks.
  void ready(TaskQueue& mainQueue);
  void stopping();

 private:
  Token watchdog_;
};

}  // namespace vimbrel
