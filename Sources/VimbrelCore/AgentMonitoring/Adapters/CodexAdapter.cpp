// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/CodexAdapter.h"

#include <algorithm>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "AgentMonitoring/Adapters/SnippetText.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

/// Where Codex keeps its configuration: the usual directory, and the one it was told to use.
std::vector<std::string> directoriesOf(const AgentEnvironment& environment) {
  std::vector<std::string> directories{environment.home + "/.codex"};
  if (environment.codexHome != directories.front()) directories.push_back(environment.codexHome);
  return directories;
}

}  // namespace

IntegrationStatus CodexAdapter::detect() const {
  auto executable = findExecutable(environment_.path, "codex");
  if (!executable) {
    const auto bundled = environment_.systemRoot + "/Applications/ChatGPT.app/Contents/Resources/codex";
    if (isExecutableFile(bundled)) executable = bundled;
  }
  IntegrationStatus status;
  status.integrationType = integrationType();
  const auto directories = directoriesOf(environment_);
  status.isInstalled = executable || std::ranges::any_of(directories, [](const auto& each) {
                         return pathExists(each + "/config.toml");
                       });
  if (executable) status.agentVersion = probeVersion(*executable, environment_.probeBounds);
  if (!status.agentVersion && status.isInstalled) status.agentVersion = sentence("Config present");
  status.isIntegrationActive = !configuredIn().empty();
  status.statusMessage = !status.isInstalled          ? sentence("Not installed")
                         : status.isIntegrationActive ? sentence("Hook active")
                                                      : sentence("Installed (Hook not configured)");
  return status;
}

std::vector<std::string> CodexAdapter::configuredIn() const {
  std::vector<std::string> files;
  for (const auto& directory : directoriesOf(environment_)) {
    for (const auto* name : {"/config.toml", "/hooks.json"}) {
      if (namesRelay(directory + name)) files.push_back(environment_.shown(directory + name));
    }
  }
  return files;
}

std::optional<std::string> CodexAdapter::manualSetupSnippet(std::string_view relayBinaryPath) const {
  return joinSnippet(
      {
          "# Add to the root level of ~/.codex/config.toml\n"
          "notify = [\"",
          "\", \"--agent\", \"codex\", \"--state\", \"working\"]",
      },
      relayBinaryPath);
}

std::optional<std::string> CodexAdapter::manualSetupInstructions() const {
  return sentence(
      "1. Open ~/.codex/config.toml in your text editor.\n"
      "2. At the top (root level, before any [section] headers), add:\n"
      "   notify = [\"vimbrel-relay\", \"--agent\", \"codex\", \"--state\", \"working\"]\n"
      "3. Save the file. Vimbrel will automatically receive lifecycle events.");
}

}  // namespace vimbrel
