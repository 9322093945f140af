// SPDX-License-Identifier: Apache-2.0
#include "InstalledPrograms.h"

#include <cstdlib>
#include <filesystem>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"

namespace vimbrel {
namespace {

/// `folder` is where a build tree has it.
std::optional<std::string> installedBeside(const std::string& program, std::string_view name,
                                           const char* folder) {
  const char* variable = std::getenv("PATH");
  const auto path = variable == nullptr ? std::nullopt : std::optional<std::string>(variable);
  const auto called = program.contains('/') ? std::optional(program) : findExecutable(path, program);
  if (called) {
    std::error_code error;
    const auto self = std::filesystem::canonical(*called, error);
    if (!error) {
      for (const auto& place : {self.parent_path(), self.parent_path().parent_path() / folder}) {
        const auto candidate = (place / name).string();
        if (isExecutableFile(candidate)) return candidate;
      }
    }
  }
  const auto found = findExecutable(path, name);
  if (!found) return std::nullopt;
  std::error_code error;  // A relative part of the search path means nothing to an agent.
  const auto absolute = std::filesystem::absolute(*found, error);
  return error ? std::nullopt : std::optional(absolute.string());
}

}  // namespace

std::optional<std::string> installedRelay(const std::string& program) {
  return installedBeside(program, relayProgramName, "VimbrelRelay");
}

std::optional<std::string> installedTray(const std::string& program) {
  return installedBeside(program, "vimbrel-tray", "VimbrelTray");
}

}  // namespace vimbrel
