// SPDX-License-Identifier: Apache-2.0
#include "Presentation/AgentSetup.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Presentation/JsonFields.h"
#include "Say.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

/// Those that the user can do something about come first.
int rankOf(const AgentRow& row) {
  if (row.isInstalled && !row.isConnected) return 0;
  if (row.isInstalled) return 1;
  return row.isConnected ? 2 : 3;
}

/// An event that came through a hook or plugin; a process that was found proves no connection.
bool isEvent(const AgentSession& session) {
  return session.integrationType == IntegrationType::lifecycleHook ||
         session.integrationType == IntegrationType::plugin;
}

std::string firstText(const json& object, std::initializer_list<const char*> keys) {
  for (const auto* key : keys) {
    if (auto text = textOf(object, key); !text.empty()) return text;
  }
  return {};
}

}  // namespace

std::vector<AgentRow> makeAgentRows(const json& result) {
  std::vector<AgentRow> rows;
  for (const auto& each : memberOf(result, "agents")) {
    const auto agent = agentTypeFromRawValue(textOf(each, "agentType"));
    if (!agent) continue;
    AgentRow row{.agent = *agent, .name = retell(displayName(*agent))};
    row.isInstalled = flagOf(each, "isInstalled");
    row.isConnected = flagOf(each, "isIntegrationActive");
    row.status = retell(textOf(each, "statusMessage"));
    row.version = retell(textOf(each, "agentVersion"));
    row.lastEventAt = instantOf(each, "lastEventAt");
    row.tone = row.isConnected ? Tone::good : row.isInstalled ? Tone::warning : Tone::dim;
    rows.push_back(std::move(row));
  }
  std::ranges::stable_sort(rows, {}, rankOf);
  return rows;
}

AgentInstructions makeAgentInstructions(const json& result) {
  AgentInstructions setup;
  setup.snippet = firstText(result, {"currentSetupSnippet", "manualSetupSnippet"});
  setup.configPath = firstText(result, {"currentConfigPath", "targetConfigPath"});
  setup.instructions = retell(firstText(result, {"currentSetupInstructions", "manualSetupInstructions"}));
  setup.versions = retell(textOf(result, "currentAgentVersions"));
  return setup;
}

void FirstEventWatch::begin(AgentType agent, const PublishedState& state) {
  agent_ = agent;
  isReceived_ = false;
  seen_.clear();
  for (const auto& session : state.sessions) {
    if (session->agentType == agent && isEvent(*session)) seen_[session->id] = session->lastEventAt;
  }
}

bool FirstEventWatch::update(const PublishedState& state) {
  for (const auto& session : state.sessions) {
    if (session->agentType != agent_ || !isEvent(*session)) continue;
    const auto before = seen_.find(session->id);
    if (before == seen_.end() || before->second != session->lastEventAt) isReceived_ = true;
  }
  return isReceived_;
}

}  // namespace vimbrel::desktop
