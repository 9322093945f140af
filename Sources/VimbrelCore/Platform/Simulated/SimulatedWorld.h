// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Domain/PowerSourceSnapshot.h"
#include "Domain/ThermalState.h"
#include "Platform/ProcessList.h"
#include "Platform/RunningApplications.h"

namespace vimbrel {

/// What a simulated machine is like. The default is a cool desktop on AC power on which nothing runs.
struct SimulatedWorld {
  std::optional<PowerSourceSnapshot> power;  ///< absent: no power source to read
  SystemThermalState thermalState = SystemThermalState::nominal;
  std::optional<bool> lidClosed;  ///< absent: no lid
  std::vector<RunningApplication> applications;
  std::vector<ProcessEntry> processes;  ///< ordered by pid
  bool systemAssertionWorks = true;
  bool displayAssertionWorks = true;
  bool operator==(const SimulatedWorld&) const = default;
};

/// A world as a file describes it, and the keys in it that mean nothing here.
struct SimulatedWorldDocument {
  SimulatedWorld world;
  std::vector<std::string> unknownKeys;
};

/// Reads one JSON object, in which every key is optional:
///
///     {"power":{"batteryPercent":14,"isCharging":false,"isOnAC":false,"isLowPowerMode":false,
///               "timeRemainingMinutes":40},
///      "thermalState":"nominal","lidClosed":false,
///      "applications":[{"name":"Cursor","bundleIdentifier":"com.example.cursor","pid":4711}],
///      "processes":["  812 /usr/local/bin/codex exec fix tests"],
///      "assertions":{"system":"ok","display":"fail"}}
///
/// The error is a sentence that names the key.
[[nodiscard]] std::expected<SimulatedWorldDocument, std::string> parseSimulatedWorld(std::string_view text);

}  // namespace vimbrel
