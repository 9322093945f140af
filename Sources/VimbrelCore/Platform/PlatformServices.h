// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/LidSwitch.h"
#include "Platform/PowerSources.h"
#include "Platform/ProcessList.h"
#include "Platform/RunningApplications.h"
#include "Platform/SleepAssertions.h"
#include "Platform/ThermalPressure.h"

namespace vimbrel {

/// One finding of `vimbrel doctor` about the machine.
struct DoctorFinding {
  enum class Verdict { works, missing, refused, warning };
  std::string subject;  ///< "logind idle inhibitor"
  Verdict verdict = Verdict::works;
  std::string explanation;  ///< what was found and why
  std::string remedy;       ///< what to install or do; empty when there is nothing to do
};

/// One implementation of every port: what a composition root chooses between.
struct PlatformServices {
  std::shared_ptr<SleepAssertions> assertions;
  std::shared_ptr<PowerSources> powerSources;
  std::shared_ptr<ThermalPressure> thermalPressure;
  std::shared_ptr<LidSwitch> lidSwitch;
  std::shared_ptr<RunningApplications> runningApplications;
  std::shared_ptr<ProcessList> processList;
  /// Examines the machine afresh. Main queue; may block for up to a second. May be empty.
  std::function<std::vector<DoctorFinding>()> examine;
};

}  // namespace vimbrel
