// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Domain/AgentFamilyPresentation.h"
#include "Domain/PowerSourceSnapshot.h"
#include "Domain/ThermalState.h"
#include "Domain/VimbrelDisplayState.h"
#include "Support/Instant.h"

namespace vimbrel::desktop {

/// Whether closing the lid would put the machine to sleep, as the application tells it.
struct LidCoverage {
  enum class Cover : std::uint8_t { unknown, off, notNeeded, covered, uncovered };
  Cover cover = Cover::unknown;
  std::string coveredBy;
  std::string explanation;  ///< one sentence
  std::string remedy;       ///< empty when there is nothing to do
  bool operator==(const LidCoverage&) const = default;
};

/// One message of the control socket's stream (docs/control-protocol.md), as values.
struct PublishedState {
  WakeDecision decision = WakeDecision::release("Initializing");
  std::string statusDescription;
  std::optional<Instant> protectionStartedAt;
  SessionList sessions;  ///< newest start first
  std::map<AgentType, ProviderBudgetReport> budgets;
  VimbrelVisualState visualState = VimbrelVisualState::idle;
  PowerSourceSnapshot power;
  SystemThermalState thermal = SystemThermalState::nominal;
  bool isLidClosed = false;
  LidCoverage lid;
  std::optional<Instant> pauseUntil;  ///< absent when there is no pause in force
  bool isSystemHeld = false;          ///< something really holds the machine awake
  bool isSimulated = false;           ///< nothing of the real machine is held
  std::string notHeldBecause;         ///< why mechanisms did not grant a hold; may be empty
  std::vector<std::string> warnings;
  bool masterEnabled = true;
  bool manualHoldEnabled = false;
  bool preventDisplaySleep = false;
  bool onlyOnAC = false;
  std::int64_t batteryFloorPercent = 15;
  bool hasCompletedOnboarding = true;
  bool notchEnabled = true;         ///< the pill at the top of the screen appears on changes
  bool notchAlwaysVisible = false;  ///< and stays
  bool operator==(const PublishedState& other) const;
};

/// Reads a state. Without a readable decision it is none, and the error says so; whatever else is missing or
/// cannot be read has its default, alone, so that an older or newer application still shows what it can.
[[nodiscard]] std::expected<PublishedState, std::string> publishedStateFromJson(const nlohmann::json& value);

/// What is wrong with a hold that should be in force and is not; empty when all is well.
[[nodiscard]] std::string failingHoldText(const PublishedState& state);

/// The snapshot that every surface draws from. A hold that is not really in force shows as an error: it is
/// the one thing that must never be overlooked.
[[nodiscard]] VimbrelDisplayState displayStateOf(const PublishedState& state, Instant now);

/// The rows of the popover.
[[nodiscard]] std::vector<AgentFamilyPresentation> familiesOf(const PublishedState& state, Instant now);

}  // namespace vimbrel::desktop
