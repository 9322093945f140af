// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Platform/SystemPowerControlling.h"
#include "Support/Fd.h"
#include "Support/Log.h"

namespace vimbrel {

/// "Sleep is disabled" as a logind block inhibitor for sleep, idle and the lid switch. The inhibitor is a
/// descriptor: however this process ends, the kernel closes it and logind lets the machine sleep again.
/// Queue: one; taking it blocks its caller for at most a second.
class LogindSleepSetting final : public SystemPowerControlling {
 public:
  /// Whether this process holds the inhibitor and logind knows it.
  [[nodiscard]] bool readSleepDisabled() override;
  bool writeSleepDisabled(bool disabled) override;
  /// Why the inhibitor could not be taken last time; empty when it could.
  [[nodiscard]] const std::string& lastFailure() const { return lastFailure_; }

 private:
  Fd inhibitor_;
  std::string lastFailure_;
  const Logger logger_{"power", "com.vimbrel.helper"};
};

}  // namespace vimbrel
