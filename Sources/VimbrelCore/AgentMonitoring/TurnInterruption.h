// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Domain/AgentType.h"
#include "Support/Instant.h"

namespace vimbrel {

/// A turn that its user interrupted, as the agent's own log shows it. Agents often run no hook then.
struct TurnInterruption {
  AgentType agent = AgentType::custom;
  std::optional<std::string> sessionId;  ///< the agent's own; a hook session may be called something else
  std::optional<std::string> directory;  ///< where the agent works
  Instant at{};
  bool operator==(const TurnInterruption&) const = default;
};

using TurnInterruptionHandler = std::function<void(const TurnInterruption&)>;

}  // namespace vimbrel
