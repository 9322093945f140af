// SPDX-License-Identifier: Apache-2.0
#include "Run/ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace vimbrel {

// A manager that cannot be told learns of this process's end by itself: results are of no use here.

void ServiceManager::ready(TaskQueue& mainQueue) {
  (void)::sd_notify(0, "READY=1");
  std::uint64_t microseconds = 0;
  if (::sd_watchdog_enabled(0, &microseconds) <= 0) return;
  const auto interval = std::chrono::microseconds(microseconds / 2);
  watchdog_ =
      mainQueue.every(interval, interval, TimerPrecision::exact, [] { (void)::sd_notify(0, "WATCHDOG=1"); });
}

void ServiceManager::stopping() { (void)::sd_notify(0, "STOPPING=1"); }

}  // namespace vimbrel
