// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "Platform/SleepAssertions.h"
#include "Power/IdleWakeControlling.h"
#include "Support/Log.h"

namespace vimbrel {

/// The one place that takes and gives back the operating system's idle-sleep assertions: one against idle
/// system sleep and, when asked, one against idle display sleep. It knows nothing of agents or policy, and
/// does not keep a machine awake whose lid is closed. Every public member holds the lock for its whole
/// duration; what is held is given back on destruction.
class IdleWakeAssertionController final : public IdleWakeControlling {
 public:
  explicit IdleWakeAssertionController(std::shared_ptr<SleepAssertions> assertions);
  ~IdleWakeAssertionController() override;
  IdleWakeAssertionController(const IdleWakeAssertionController&) = delete;
  IdleWakeAssertionController& operator=(const IdleWakeAssertionController&) = delete;

  [[nodiscard]] bool isActive() const override;
  /// The desktop shows "Vimbrel: " and the reason of the call that took the assertions. A failed display
  /// assertion leaves the system assertion held and is tried again, both anew, by the next call.
  bool acquire(std::string_view reason, bool preventDisplaySleep) override;
  void release() override;

  /// True while the display assertion is held, which is only ever beside the system assertion.
  [[nodiscard]] bool isDisplayActive() const override;

 private:
  /// 0 when it failed, which has then been logged.
  AssertionHandle create(AssertionType type, std::string_view name);
  void releaseHeld();

  mutable std::mutex lock_;
  const std::shared_ptr<SleepAssertions> assertions_;
  AssertionHandle systemAssertionID_ = 0;   // 0: not held
  AssertionHandle displayAssertionID_ = 0;  // non-zero only while the system assertion is held
  const Logger logger_{"power"};
};

}  // namespace vimbrel
