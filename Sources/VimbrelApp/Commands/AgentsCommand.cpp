// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/AgentOverview.h"
#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Domain/AgentState.h"
#include "Domain/AgentType.h"
#include "Say.h"
#include "Support/DurationText.h"
#include "Terminal/StatusView.h"
#include "Terminal/Table.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::string lastEventText(const json& agent, Instant now) {
  const auto at = agent.find("lastEventAt");
  if (at == agent.end() || !at->is_string()) return say("never");
  const auto when = parseIso8601(at->get<std::string>());
  if (!when) return "?";
  const auto state = agentStateFromRawValue(agent.value("lastEventState", ""));
  const auto ago = now - *when < Seconds(1) ? say("just now") : say("%1 ago", {formatDuration(now - *when)});
  return state ? retell(displayLabel(*state)) + ", " + ago : ago;
}

std::string integrationText(const json& agent) {
  const auto type = integrationTypeFromRawValue(agent.value("integrationType", ""));
  return type ? retell(displayName(*type)) : std::string("?");
}

std::string statusText(const json& agent) {
  auto text = retell(agent.value("statusMessage", ""));
  // The status of an agent that is watched by its process says nothing of the hooks it may have too.
  const auto type = agent.value("integrationType", "");
  const auto files = agent.value("configuredIn", json::array());
  if (type == rawValue(IntegrationType::process) && !files.empty()) {
    text = say("%1; hooks in %2", {text, files[0].get<std::string>()});
  }
  return text;
}

Tone toneOf(const json& agent) {
  if (agent.value("isIntegrationActive", false)) return Tone::good;
  return agent.value("isInstalled", false) ? Tone::warning : Tone::dim;
}

}  // namespace

int agentsCommand(Output output) {
  const auto agents = agentOverview();
  if (!agents) return agents.error();
  if (output == Output::json) {
    printJson(*agents);
    return exitCode::done;
  }
  Table table({say("AGENT"), say("VERSION"), say("INTEGRATION"), say("STATUS"), say("LAST EVENT")});
  const auto now = currentTime();
  for (const auto& agent : *agents) {
    table.addRow({{retell(agent.value("displayName", ""))},
                  {retell(agent.value("agentVersion", "-"))},
                  {integrationText(agent)},
                  {statusText(agent), toneOf(agent)},
                  {lastEventText(agent, now)}});
  }
  printLines(table.lines(outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO)));
  return exitCode::done;
}

}  // namespace vimbrel
