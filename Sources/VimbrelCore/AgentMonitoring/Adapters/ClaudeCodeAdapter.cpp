// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/ClaudeCodeAdapter.h"

#include <nlohmann/json.hpp>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "AgentMonitoring/Adapters/SnippetText.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

/// True when the value of the top-level key "hooks", written out, names the relay.
bool hooksNameTheRelay(const std::string& path) {
  const auto text = readConfiguration(path);
  if (!text) return false;
  const auto document = parseJson(*text);
  if (!document || !document->is_object()) return false;
  const auto hooks = document->find("hooks");
  if (hooks == document->end() || !hooks->is_object()) return false;
  return hooks->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).find("vimbrel-relay") !=
         std::string::npos;
}

}  // namespace

IntegrationStatus ClaudeCodeAdapter::detect() const {
  const auto executable =
      findExecutable(environment_.path, "claude").value_or(environment_.home + "/.local/bin/claude");
  IntegrationStatus status;
  status.integrationType = integrationType();
  status.isInstalled = isExecutableFile(executable);
  if (status.isInstalled) status.agentVersion = probeVersion(executable);
  status.isIntegrationActive = hooksNameTheRelay(environment_.home + "/.claude.json") ||
                               hooksNameTheRelay(environment_.home + "/.claude/settings.json");
  status.statusMessage = !status.isInstalled          ? "Not installed"
                         : status.isIntegrationActive ? "Hook active"
                                                      : "Installed (Hooks not configured)";
  return status;
}

std::optional<std::string> ClaudeCodeAdapter::manualSetupSnippet(std::string_view relayBinaryPath) const {
  return joinSnippet(
      {
          "// Add to the \"hooks\" object in ~/.claude.json:\n"
          "\"hooks\": {\n"
          "  \"UserPromptSubmit\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state working\", \"timeout\": 5000 }],\n"
          "  \"PreToolExecution\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state working\", \"timeout\": 5000 }],\n"
          "  \"PostToolExecution\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state working\", \"timeout\": 5000 }],\n"
          "  \"Stop\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state idle\", \"timeout\": 5000 }],\n"
          "  \"SessionEnd\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state completed\", \"timeout\": 5000 }]\n"
          "}",
      },
      relayBinaryPath);
}

std::optional<std::string> ClaudeCodeAdapter::manualSetupInstructions() const {
  return "1. Open ~/.claude.json in your text editor.\n"
         "2. Merge the \"hooks\" JSON snippet into your configuration.\n"
         "3. Save the file. Vimbrel will automatically track Claude Code lifecycle events.";
}

}  // namespace vimbrel
