// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vimbrel {

/// Why protection is refused.
enum class SafetyBlock : std::uint8_t {
  masterDisabled,
  paused,
  batteryBelowFloor,
  acDisconnected,
  thermalCritical,
  manualSleepRequested,
};

/// The message shown to the user; it is also the value in documents.
[[nodiscard]] std::string_view rawValue(SafetyBlock block);
[[nodiscard]] std::optional<SafetyBlock> safetyBlockFromRawValue(std::string_view text);

/// True for the blocks that guard the machine itself, false for the user's own switches.
[[nodiscard]] bool isCriticalSafety(SafetyBlock block);

}  // namespace vimbrel
