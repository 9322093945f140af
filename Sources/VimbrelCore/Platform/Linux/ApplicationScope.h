// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vimbrel {

/// The control group that a desktop or a package system put an application's processes into.
struct ApplicationScope {
  std::string applicationId;  ///< the desktop entry's id
  std::string unit;           ///< one per running instance
  std::int32_t mainPid = 0;   ///< where the unit's name tells it, else 0
  bool operator==(const ApplicationScope&) const = default;
};

/// Reads the text of `/proc/PID/cgroup`. Knows the units of the XDG convention,
/// "app[-launcher]-id-random.scope" and "app[-launcher]-id[@random].service" (which desktops and Flatpak
/// follow), and Snap's "snap.package.application…". Absent for every other process. Pure; any bytes are fine.
[[nodiscard]] std::optional<ApplicationScope> parseApplicationScope(std::string_view cgroups);

}  // namespace vimbrel
