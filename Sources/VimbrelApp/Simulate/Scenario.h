// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Domain/AgentState.h"
#include "Domain/AgentType.h"
#include "Platform/Simulated/SimulatedWorld.h"
#include "Support/Instant.h"
#include "System/Preferences.h"

namespace vimbrel {

/// A setting that a scenario changes.
struct ScenarioSetting {
  std::string key;
  std::string text;       ///< as a person would type it
  PreferenceValue value;  ///< what that means at its time
};

/// What happens at one moment of a scenario.
struct ScenarioStep {
  struct Say {
    std::string text;
  };
  /// An event of an agent's hook.
  struct Hook {
    AgentType agent = AgentType::custom;
    AgentState state = AgentState::unknown;
    std::string session;
  };
  /// The world as it is from now on.
  struct World {
    SimulatedWorld world;
    std::string text;  ///< what of it was written in the scenario
  };
  /// Only while the application runs.
  struct Settings {
    std::vector<ScenarioSetting> settings;
  };
  enum class Life : std::uint8_t { start, stop, crash };

  Seconds at{0};  ///< since the scenario's start
  std::variant<Say, Hook, World, Settings, Life> action;
  bool isRepeat = false;  ///< one of many, of which the first was shown
};

/// A course of events on a simulated machine (docs/simulated-machine.md describes the file).
struct Scenario {
  Instant start{};
  Seconds length{0};
  SimulatedWorld world;
  std::vector<ScenarioSetting> settings;  ///< in force from the start
  std::vector<ScenarioStep> steps;        ///< in order of time, none after the end
};

/// Reads a scenario's JSON, so that whatever it says can be done. The error is a sentence that names the
/// step.
[[nodiscard]] std::expected<Scenario, std::string> parseScenario(std::string_view text);

}  // namespace vimbrel
