// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/HookInstaller.h"

#include <filesystem>

#include "Support/Directories.h"

namespace vimbrel {

std::string HookInstaller::backupDirectory() {
  return directories::applicationSupport() + "/Vimbrel/Backups";
}

std::vector<std::string> HookInstaller::listBackups(const std::string& agent) {
  std::vector<std::string> paths;
  std::error_code error;  // A folder that cannot be listed has no backups.
  for (std::filesystem::directory_iterator entry(backupDirectory() + "/" + agent, error), end;
       !error && entry != end; entry.increment(error)) {
    paths.push_back(entry->path().string());
  }
  return paths;
}

}  // namespace vimbrel
