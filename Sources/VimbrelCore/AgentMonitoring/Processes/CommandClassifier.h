// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string_view>

#include "Domain/AgentType.h"

namespace vimbrel {

/// What a command line says about the agent behind it.
struct CommandClassification {
  AgentType agent = AgentType::custom;
  std::string_view name;   ///< the agent's name for people; lives forever
  bool isWorking = false;  ///< judged to be doing work now
  bool operator==(const CommandClassification&) const = default;
};

/// Recognises a coding agent by its command line, as the process list shows it; absent for everything else,
/// and for the system's own processes. All tests are case-sensitive. Pure.
[[nodiscard]] std::optional<CommandClassification> classifyCommand(std::string_view command);

}  // namespace vimbrel
