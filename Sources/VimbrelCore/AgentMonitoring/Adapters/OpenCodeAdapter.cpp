// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/OpenCodeAdapter.h"

#include <set>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "AgentMonitoring/Adapters/SnippetText.h"
#include "Support/Sentence.h"

namespace vimbrel {

IntegrationStatus OpenCodeAdapter::detect() const {
  const auto executable =
      findExecutable(environment_.path, "opencode").value_or(environment_.home + "/.opencode/bin/opencode");
  IntegrationStatus status;
  status.integrationType = integrationType();
  status.isInstalled = isExecutableFile(executable);
  if (status.isInstalled) status.agentVersion = probeVersion(executable, environment_.probeBounds);
  status.isIntegrationActive = !configuredIn().empty();
  status.statusMessage = !status.isInstalled          ? sentence("Not installed")
                         : status.isIntegrationActive ? sentence("Plugin active")
                                                      : sentence("Installed (Plugin not configured)");
  return status;
}

std::vector<std::string> OpenCodeAdapter::configuredIn() const {
  // The plugin is ours by its name; what stands in it is not looked at.
  std::vector<std::string> files;
  for (const auto& configuration : std::set{environment_.home + "/.config", environment_.configurationHome}) {
    const auto plugin = configuration + "/opencode/plugins/vimbrel.js";
    if (pathExists(plugin)) files.push_back(environment_.shown(plugin));
  }
  return files;
}

std::optional<std::string> OpenCodeAdapter::manualSetupSnippet(std::string_view relayBinaryPath) const {
  return joinSnippet(
      {
          "// Save as ~/.config/opencode/plugins/vimbrel.js:\n"
          "export const VimbrelPlugin = {\n"
          "  name: 'vimbrel',\n"
          "  onSessionStatus(session) {\n"
          "    try {\n"
          "      const state = (session && (session.status === 'busy' || session.status === 'running')) ? "
          "'working' : 'idle';\n"
          "      const sessionId = (session && session.id) ? session.id : 'opencode-default';\n"
          "      const { spawn } = require('child_process');\n"
          "      const proc = spawn('",
          "', ['--agent', 'opencode', '--state', state, '--session-id', sessionId], {\n"
          "        detached: true,\n"
          "        stdio: 'ignore'\n"
          "      });\n"
          "      proc.unref();\n"
          "    } catch (e) {}\n"
          "  }\n"
          "};\n"
          "export default VimbrelPlugin;",
      },
      relayBinaryPath);
}

std::optional<std::string> OpenCodeAdapter::manualSetupInstructions() const {
  return sentence(
      "1. Create the plugin directory if it does not exist:\n"
      "   mkdir -p ~/.config/opencode/plugins\n"
      "2. Save the plugin code snippet to ~/.config/opencode/plugins/vimbrel.js\n"
      "3. Restart OpenCode to begin receiving lifecycle status events.");
}

}  // namespace vimbrel
