// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/CodexAdapter.h"

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "AgentMonitoring/Adapters/SnippetText.h"

namespace vimbrel {

IntegrationStatus CodexAdapter::detect() const {
  const auto configuration = environment_.home + "/.codex/config.toml";
  auto executable = findExecutable(environment_.path, "codex");
  if (!executable) {
    const auto bundled = environment_.systemRoot + "/Applications/ChatGPT.app/Contents/Resources/codex";
    if (isExecutableFile(bundled)) executable = bundled;
  }
  IntegrationStatus status;
  status.integrationType = integrationType();
  status.isInstalled = executable || pathExists(configuration);
  if (executable) status.agentVersion = probeVersion(*executable);
  if (!status.agentVersion && status.isInstalled) status.agentVersion = "Config present";
  for (const auto& path : {configuration, environment_.home + "/.codex/hooks.json"}) {
    const auto text = readConfiguration(path);
    if (text && text->find("vimbrel-relay") != std::string::npos) status.isIntegrationActive = true;
  }
  status.statusMessage = !status.isInstalled          ? "Not installed"
                         : status.isIntegrationActive ? "Hook active"
                                                      : "Installed (Hook not configured)";
  return status;
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
  return "1. Open ~/.codex/config.toml in your text editor.\n"
         "2. At the top (root level, before any [section] headers), add:\n"
         "   notify = [\"vimbrel-relay\", \"--agent\", \"codex\", \"--state\", \"working\"]\n"
         "3. Save the file. Vimbrel will automatically receive lifecycle events.";
}

}  // namespace vimbrel
