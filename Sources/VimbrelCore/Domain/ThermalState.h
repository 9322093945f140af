// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vimbrel {

/// Thermal pressure, in rising order; compare with the usual operators.
enum class SystemThermalState : std::uint8_t { nominal, fair, serious, critical };

[[nodiscard]] std::string_view rawValue(SystemThermalState state);
[[nodiscard]] std::optional<SystemThermalState> systemThermalStateFromRawValue(std::string_view text);

/// Maps the platform's level (0 nominal, 1 fair, 2 serious, 3 critical) to the state of that rank; any other
/// value is `nominal`.
[[nodiscard]] constexpr SystemThermalState systemThermalStateFromLevel(int level) {
  return level >= 0 && level <= 3 ? static_cast<SystemThermalState>(level) : SystemThermalState::nominal;
}

}  // namespace vimbrel
