// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/AgentDocuments.h"
#include "Control/ControlSocketPath.h"
#include "Support/DurationText.h"
#include "Terminal/StatusView.h"
#include "Terminal/Table.h"

namespace vimbrel {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

/// This shell's variables, because a running application may know fewer places.
json callersEnvironment() {
  json environment = json::object();
  for (const auto* name : AgentEnvironment::variableNames()) {
    if (const char* value = std::getenv(name)) environment[name] = value;
  }
  return environment;
}

/// The overview, from the running application or, without one, by looking from here.
std::expected<json, int> overview() {
  auto client = ControlClient::connect(controlSocketPath());
  if (client) {
    auto answer = client->call("agents", {{"environment", callersEnvironment()}});
    if (!answer) return std::unexpected(reportFailure(answer.error()));
    return answer->value("agents", json::array());
  }
  if (client.error().fault != ControlClientError::Fault::notRunning) {
    return std::unexpected(reportFailure(client.error()));
  }
  std::fputs(
      "vimbrel: Vimbrel is not running, so nothing is known of what runs and what reported. Start it "
      "with: vimbrel run\n",
      stderr);
  return json(agentsDocument(AgentRegistry(AgentEnvironment::fromProcess()), {}));
}

std::string lastEventText(const json& agent, Instant now) {
  const auto at = agent.find("lastEventAt");
  if (at == agent.end() || !at->is_string()) return "never";
  const auto when = parseIso8601(at->get<std::string>());
  if (!when) return "?";
  const auto state = agentStateFromRawValue(agent.value("lastEventState", ""));
  const auto ago = now - *when < Seconds(1) ? "just now" : formatDuration(now - *when) + " ago";
  return (state ? std::string(displayLabel(*state)) + ", " : std::string{}) + ago;
}

std::string integrationText(const json& agent) {
  const auto type = integrationTypeFromRawValue(agent.value("integrationType", ""));
  return type ? std::string(displayName(*type)) : std::string("?");
}

std::string statusText(const json& agent) {
  auto text = agent.value("statusMessage", "");
  // The status of an agent that is watched by its process says nothing of the hooks it may have too.
  const auto type = agent.value("integrationType", "");
  const auto files = agent.value("configuredIn", json::array());
  if (type == rawValue(IntegrationType::process) && !files.empty()) {
    text += "; hooks in " + files[0].get<std::string>();
  }
  return text;
}

Tone toneOf(const json& agent) {
  if (agent.value("isIntegrationActive", false)) return Tone::good;
  return agent.value("isInstalled", false) ? Tone::warning : Tone::dim;
}

}  // namespace

int agentsCommand(Output output) {
  const auto agents = overview();
  if (!agents) return agents.error();
  if (output == Output::json) {
    printJson(*agents);
    return exitCode::done;
  }
  Table table({"AGENT", "VERSION", "INTEGRATION", "STATUS", "LAST EVENT"});
  const auto now = currentTime();
  for (const auto& agent : *agents) {
    table.addRow({{agent.value("displayName", "")},
                  {agent.value("agentVersion", "-")},
                  {integrationText(agent)},
                  {statusText(agent), toneOf(agent)},
                  {lastEventText(agent, now)}});
  }
  printLines(table.lines(outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO)));
  return exitCode::done;
}

}  // namespace vimbrel
