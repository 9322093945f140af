// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/GeminiAdapter.h"

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "AgentMonitoring/Adapters/SnippetText.h"
#include "Support/Sentence.h"

namespace vimbrel {

IntegrationStatus GeminiAdapter::detect() const {
  const auto executable = findExecutable(environment_.path, "gemini")
                              .value_or(environment_.systemRoot + "/opt/homebrew/bin/gemini");
  IntegrationStatus status;
  status.integrationType = integrationType();
  status.isInstalled = isExecutableFile(executable);
  if (status.isInstalled) status.agentVersion = probeVersion(executable, environment_.probeBounds);
  status.isIntegrationActive = !configuredIn().empty();
  status.statusMessage = !status.isInstalled          ? sentence("Not installed")
                         : status.isIntegrationActive ? sentence("Hook active")
                                                      : sentence("Installed (Hooks not configured)");
  return status;
}

std::vector<std::string> GeminiAdapter::configuredIn() const {
  if (!namesRelay(environment_.home + "/.gemini/settings.json")) return {};
  return {"~/.gemini/settings.json"};
}

std::optional<std::string> GeminiAdapter::manualSetupSnippet(std::string_view relayBinaryPath) const {
  return joinSnippet(
      {
          "// Add to the \"hooks\" object in ~/.gemini/settings.json:\n"
          "\"hooks\": {\n"
          "  \"BeforeAgent\": [{ \"hooks\": [{ \"type\": \"command\", \"command\": \"",
          " --agent gemini --state working\", \"timeout\": 10000 }] }],\n"
          "  \"AfterAgent\": [{ \"hooks\": [{ \"type\": \"command\", \"command\": \"",
          " --agent gemini --state idle\", \"timeout\": 10000 }] }],\n"
          "  \"BeforeTool\": [{ \"hooks\": [{ \"type\": \"command\", \"command\": \"",
          " --agent gemini --state working\", \"timeout\": 10000 }] }],\n"
          "  \"AfterTool\": [{ \"hooks\": [{ \"type\": \"command\", \"command\": \"",
          " --agent gemini --state working\", \"timeout\": 10000 }] }],\n"
          "  \"SessionStart\": [{ \"hooks\": [{ \"type\": \"command\", \"command\": \"",
          " --agent gemini --state working\", \"timeout\": 10000 }] }],\n"
          "  \"SessionEnd\": [{ \"hooks\": [{ \"type\": \"command\", \"command\": \"",
          " --agent gemini --state completed\", \"timeout\": 10000 }] }]\n"
          "}",
      },
      relayBinaryPath);
}

std::optional<std::string> GeminiAdapter::manualSetupInstructions() const {
  return sentence(
      "1. Open ~/.gemini/settings.json in your text editor.\n"
      "2. Add the \"hooks\" configuration snippet.\n"
      "3. Save the file. Vimbrel will automatically track Gemini CLI events.");
}

}  // namespace vimbrel
