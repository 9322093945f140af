// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <map>
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

namespace vimbrel {

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
  /// Settings by key, as a person would type them.
  struct Settings {
    std::map<std::string, std::string> values;
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
  std::map<std::string, std::string> settings;
  std::vector<ScenarioStep> steps;  ///< in order of time
};

/// Reads a scenario's JSON. The error is a sentence that names the step.
[[nodiscard]] std::expected<Scenario, std::string> parseScenario(std::string_view text);

}  // namespace vimbrel
