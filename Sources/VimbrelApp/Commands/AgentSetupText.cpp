// SPDX-License-Identifier: Apache-2.0
#include "Commands/AgentSetupText.h"

#include <nlohmann/json.hpp>

#include "Commands/ControlSession.h"
#include "Say.h"
#include "Terminal/DisplayText.h"

namespace vimbrel {

using nlohmann::ordered_json;

std::string setupText(const ordered_json& document, const char* key) {
  const auto member = document.find(key);
  return member != document.end() && member->is_string() ? member->get<std::string>() : std::string{};
}

void printAgentSetup(const ordered_json& document) {
  const auto name = setupText(document, "displayName");
  const auto path = setupText(document, "currentConfigPath");
  if (!path.empty()) {
    printLines({say("%1: put this into %2", {name, displayable(path)}),
                say("It fits %1.", {retell(setupText(document, "currentAgentVersions"))}), "",
                setupText(document, "currentSetupSnippet"),
                retell(setupText(document, "currentSetupInstructions"))});
  }
  for (const auto& file : document.at("configuredIn")) {
    printLines({"", say("The relay is named in %1 already.", {displayable(file.get<std::string>())})});
  }
  const auto snippet = setupText(document, "manualSetupSnippet");
  const auto instructions = retell(setupText(document, "manualSetupInstructions"));
  if (!snippet.empty()) {
    printLines({"",
                say("Only if your %1 is older than that: use this instead, in %2:",
                    {name, setupText(document, "targetConfigPath")}),
                "", snippet, "", instructions});
  } else {
    printLines({"", say("Without hooks: %1", {instructions})});
  }
}

}  // namespace vimbrel
