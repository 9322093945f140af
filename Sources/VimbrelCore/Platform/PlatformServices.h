// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/KeyShortcut.h"
#include "Platform/LidSwitch.h"
#include "Platform/LoginItem.h"
#include "Platform/NotificationCenter.h"
#include "Platform/PowerSources.h"
#include "Platform/ProcessAncestry.h"
#include "Platform/ProcessList.h"
#include "Platform/RunningApplications.h"
#include "Platform/SleepAssertions.h"
#include "Platform/SoundPlayer.h"
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
  // What a desktop, or this operating system, may lack: each may be null.
  std::shared_ptr<NotificationCenter> notificationCenter;
  std::shared_ptr<SoundPlayer> soundPlayer;
  std::shared_ptr<LoginItem> loginItem;
  std::shared_ptr<KeyShortcut> keyShortcut;
  std::shared_ptr<ProcessAncestry> processAncestry;
  /// Examines the machine afresh. Main queue; may block for up to a second. May be empty.
  std::function<std::vector<DoctorFinding>()> examine;
  /// The operating system's name and version, on one line. May be empty.
  std::function<std::string()> describeSystem;
  /// The operating system's own list of what keeps it awake, for people; empty when it has none. Any thread;
  /// may block for seconds. May be empty.
  std::function<std::string()> listAssertions;
};

}  // namespace vimbrel
