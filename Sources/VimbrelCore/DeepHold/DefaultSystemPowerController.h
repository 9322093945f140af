// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Platform/SystemPowerControlling.h"
#include "Support/Log.h"

namespace vimbrel {

/// The sleep setting through the power-management tool of the platform that has one. There the setting
/// outlives the process and a restart of the machine. Blocks its caller until the tool exits, at most 10
/// seconds.
class DefaultSystemPowerController final : public SystemPowerControlling {
 public:
  explicit DefaultSystemPowerController(std::string program = "/usr/bin/pmset")
      : program_(std::move(program)) {}
  [[nodiscard]] bool readSleepDisabled() override;
  bool writeSleepDisabled(bool disabled) override;

 private:
  const std::string program_;
  const Logger logger_{"power", "com.vimbrel.helper"};
};

}  // namespace vimbrel
