// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform/SystemPowerControlling.h"
#include "Support/Log.h"

namespace vimbrel {

/// A sleep setting that keeps nothing awake: for demonstrations and tests.
class MemorySleepSetting final : public SystemPowerControlling {
 public:
  [[nodiscard]] bool readSleepDisabled() override { return disabled_; }
  bool writeSleepDisabled(bool disabled) override {
    disabled_ = disabled;
    logger_.info("Simulated: sleep %s", disabled ? "disabled" : "enabled");
    return true;
  }

 private:
  bool disabled_ = false;
  const Logger logger_{"power", "com.vimbrel.helper"};
};

}  // namespace vimbrel
