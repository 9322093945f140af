// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace vimbrel {

/// Knows where backups of agents' configurations would lie, and lists them. It writes nothing. Any thread.
class HookInstaller {
 public:
  /// "Vimbrel/Backups" in the user's application-support directory; one sub-folder an agent.
  [[nodiscard]] static std::string backupDirectory();
  /// The paths in the agent's folder, hidden ones included, in the file system's order; empty when there is
  /// none.
  [[nodiscard]] static std::vector<std::string> listBackups(const std::string& agent);
};

}  // namespace vimbrel
