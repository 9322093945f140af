// SPDX-License-Identifier: Apache-2.0
#include "Commands/AgentChoice.h"

#include <string_view>
#include <vector>

#include "Commands/ControlSession.h"
#include "Say.h"
#include "Support/ClosestMatch.h"

namespace vimbrel {

std::shared_ptr<const AgentAdapter> chooseAgent(const std::string& name) {
  const AgentRegistry registry(AgentEnvironment::fromProcess());
  const auto agent = agentTypeFromRawValue(name);
  if (agent) {
    if (auto adapter = registry.adapter(*agent)) return adapter;
  }
  std::vector<std::string_view> known;
  std::string list;
  for (const auto& adapter : registry.allAdapters()) {
    known.push_back(rawValue(adapter->agentType()));
    list += (list.empty() ? "" : ", ") + std::string(known.back());
  }
  const auto close = closestMatch(name, known);
  (void)reportUsage(close ? say("there is no agent %1; did you mean %2?", {name, *close})
                          : say("there is no agent %1; the agents are %2", {name, list}));
  return nullptr;
}

}  // namespace vimbrel
