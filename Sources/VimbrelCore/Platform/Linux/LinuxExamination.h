// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "Platform/PlatformServices.h"

namespace vimbrel {

class LinuxLidSwitch;
class LinuxSleepAssertions;
class SysfsPowerSources;
class ThermalZones;

/// Where this process runs, as its environment tells.
struct LinuxSurroundings {
  std::string currentDesktop;  ///< XDG_CURRENT_DESKTOP
  bool isRemoteLogin = false;  ///< SSH_CONNECTION is set

  [[nodiscard]] static LinuxSurroundings fromProcess();
  /// True when the colon-separated list of desktops holds `name`.
  [[nodiscard]] bool isDesktop(std::string_view name) const;
};

/// What `vimbrel doctor` says of one mechanism, given how it stands after it was tried.
[[nodiscard]] DoctorFinding findingOf(const MechanismStatus& status, const LinuxSurroundings& surroundings);

/// Examines every mechanism and sensor. Both assertions are really taken for a moment, because only that
/// shows a refusal. Main queue; waits for the services up to a second.
[[nodiscard]] std::vector<DoctorFinding> examineLinux(LinuxSleepAssertions& assertions,
                                                      SysfsPowerSources& powerSources,
                                                      ThermalZones& thermalZones, LinuxLidSwitch& lid);

}  // namespace vimbrel
