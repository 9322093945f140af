// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/PowerSources.h"

namespace vimbrel {

/// One entry of /sys/class/power_supply, in the kernel's units. What it does not tell is absent.
struct PowerSupply {
  std::string type;    ///< "Battery", "Mains", "USB", "UPS", …
  std::string scope;   ///< "Device" for the battery of a mouse; "System" or empty otherwise
  std::string status;  ///< "Charging", "Discharging", "Full", "Not charging", "Unknown"
  std::optional<std::int64_t> present, online, capacity;          ///< capacity in percent
  std::optional<std::int64_t> energyNow, energyFull, powerNow;    ///< µWh, µW
  std::optional<std::int64_t> chargeNow, chargeFull, currentNow;  ///< µAh, µA
  std::optional<std::int64_t> voltageNow;                         ///< µV
};

/// Reads every supply below `directory`, in the order of their names.
[[nodiscard]] std::vector<PowerSupply> readPowerSupplies(const std::string& directory);

/// What the machine runs from: all batteries that can drive it as one source; absent without any. The
/// machine is on AC power when any mains supply is online; without a mains supply, when no battery
/// discharges.
[[nodiscard]] std::optional<PowerSourceDescription> combinePowerSupplies(const std::vector<PowerSupply>& all);

}  // namespace vimbrel
