// SPDX-License-Identifier: Apache-2.0
#include "InstalledRelay.h"

#include <cstdlib>
#include <filesystem>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"

namespace vimbrel {

std::optional<std::string> installedRelay(const std::string& program) {
  const char* variable = std::getenv("PATH");
  const auto path = variable == nullptr ? std::nullopt : std::optional<std::string>(variable);
  const auto called = program.contains('/') ? std::optional(program) : findExecutable(path, program);
  if (called) {
    std::error_code error;
    const auto self = std::filesystem::canonical(*called, error);
    if (!error) {
      for (const auto& place : {self.parent_path(), self.parent_path().parent_path() / "VimbrelRelay"}) {
        const auto relay = (place / relayProgramName).string();
        if (isExecutableFile(relay)) return relay;
      }
    }
  }
  const auto found = findExecutable(path, relayProgramName);
  if (!found) return std::nullopt;
  std::error_code error;  // A relative part of the search path means nothing to an agent.
  const auto absolute = std::filesystem::absolute(*found, error);
  return error ? std::nullopt : std::optional(absolute.string());
}

}  // namespace vimbrel
