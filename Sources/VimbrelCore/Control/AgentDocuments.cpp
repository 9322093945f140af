// SPDX-License-Identifier: Apache-2.0
#include "Control/AgentDocuments.h"

#include <nlohmann/json.hpp>

#include "AgentMonitoring/Adapters/IntegrationStatusCodec.h"

namespace vimbrel {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

template <typename Value>
ordered_json orNull(const std::optional<Value>& value) {
  return value ? ordered_json(*value) : ordered_json(nullptr);
}

}  // namespace

ordered_json agentsDocument(const AgentRegistry& registry,
                            const std::map<AgentType, LastHookEvent>& lastEvents) {
  ordered_json list = ordered_json::array();
  for (const auto& [agent, status] : registry.detectAll()) {
    ordered_json entry{{"agentType", rawValue(agent)}, {"displayName", displayName(agent)}};
    entry.update(toJson(status));
    entry["configuredIn"] = registry.adapter(agent)->configuredIn();
    const auto last = lastEvents.find(agent);
    const bool isHeard = last != lastEvents.end();
    entry["lastEventAt"] = isHeard ? ordered_json(formatIso8601(last->second.receivedAt)) : ordered_json();
    entry["lastEventState"] = isHeard ? ordered_json(rawValue(last->second.state)) : ordered_json();
    list.push_back(std::move(entry));
  }
  return list;
}

ordered_json agentSetupDocument(const AgentAdapter& adapter, const RelayCall& relay) {
  const auto current = adapter.currentSetup(relay);
  ordered_json document{{"agentType", rawValue(adapter.agentType())},
                        {"displayName", displayName(adapter.agentType())},
                        {"integrationType", rawValue(adapter.integrationType())},
                        {"relayPath", relay.path},
                        {"configuredIn", adapter.configuredIn()}};
  const auto of = [&](std::string CurrentSetup::* member) {
    return current ? ordered_json((*current).*member) : ordered_json(nullptr);
  };
  document["currentConfigPath"] = of(&CurrentSetup::configPath);
  document["currentSetupSnippet"] = of(&CurrentSetup::snippet);
  document["currentFormat"] = of(&CurrentSetup::format);
  document["currentAgentVersions"] = of(&CurrentSetup::agentVersions);
  document["currentSetupInstructions"] = of(&CurrentSetup::instructions);
  ordered_json reports = ordered_json::object();
  if (current) {
    for (const auto& report : current->reports)
      reports[std::string(rawValue(report.state))] = report.commandLine;
  }
  document["reports"] = std::move(reports);
  document["sessionKey"] = of(&CurrentSetup::sessionKey);
  document["targetConfigPath"] = orNull(adapter.targetConfigPath());
  document["manualSetupSnippet"] = orNull(adapter.manualSetupSnippet(relay.path));
  document["manualSetupInstructions"] = orNull(adapter.manualSetupInstructions());
  return document;
}

json lastEventsDocument(const std::map<AgentType, LastHookEvent>& lastEvents) {
  json document = json::object();
  for (const auto& [agent, event] : lastEvents) {
    document[std::string(rawValue(agent))] = {{"receivedAt", formatIso8601(event.receivedAt)},
                                              {"state", rawValue(event.state)},
                                              {"count", event.count}};
  }
  return document;
}

}  // namespace vimbrel
