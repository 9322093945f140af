// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "Domain/AgentSession.h"
#include "Domain/WakeDecision.h"
#include "Support/Instant.h"

namespace vimbrel {

/// The one overall mood that every surface shows.
enum class VimbrelVisualState : std::uint8_t { idle, working, waiting, completed, error };

inline constexpr std::array allVisualStates{VimbrelVisualState::idle, VimbrelVisualState::working,
                                            VimbrelVisualState::waiting, VimbrelVisualState::completed,
                                            VimbrelVisualState::error};

[[nodiscard]] std::string_view rawValue(VimbrelVisualState state);
[[nodiscard]] std::string_view displayLabel(VimbrelVisualState state);
[[nodiscard]] std::optional<VimbrelVisualState> visualStateFromRawValue(std::string_view text);

[[nodiscard]] bool isAnimated(VimbrelVisualState state);
/// How long each frame of the state's animation stays on screen.
[[nodiscard]] Seconds defaultFrameDuration(VimbrelVisualState state);

[[nodiscard]] VimbrelVisualState visualStateFor(AgentState state);

/// Any safety block shows as an error; else the most urgent state that some session has, in the order
/// working, waiting, error, completed; else idle. The decision changes nothing otherwise.
[[nodiscard]] VimbrelVisualState aggregateVisualState(
    std::span<const std::shared_ptr<const AgentSession>> sessions, const WakeDecision& decision);

}  // namespace vimbrel
