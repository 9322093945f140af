// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <functional>
#include <string>
#include <vector>

#include "Domain/ProtectionEpisode.h"
#include "Simulate/Scenario.h"

namespace vimbrel {

/// One thing that happened in a scenario.
struct ScenarioEvent {
  enum class Kind : std::uint8_t {
    story,     ///< what the scenario tells its reader
    cause,     ///< what it did
    decision,  ///< what was decided, and what is held
    lid,       ///< what closing or opening the lid does
    notice,    ///< what the user was shown
  };
  Instant at{};
  Kind kind = Kind::story;
  std::string text;
};

/// Runs a scenario on virtual time, with the whole application and a simulated machine, in files of its own
/// under `directory`. `happened` is told of every event in order; `isInterrupted` is asked often, and its yes
/// ends the run. The result is the history of protection as it stands at the end; the error is a sentence (a
/// setting that cannot be written, or the interruption).
[[nodiscard]] std::expected<std::vector<ProtectionEpisode>, std::string> runScenario(
    const Scenario& scenario, const std::string& directory,
    const std::function<void(const ScenarioEvent&)>& happened,
    const std::function<bool()>& isInterrupted = {});

/// "08:05:00  > claude working".
[[nodiscard]] std::string lineOf(const ScenarioEvent& event);
/// "story", "cause", …
[[nodiscard]] std::string_view rawValue(ScenarioEvent::Kind kind);

}  // namespace vimbrel
