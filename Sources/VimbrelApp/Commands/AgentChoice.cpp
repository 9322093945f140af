// SPDX-License-Identifier: Apache-2.0
#include "Commands/AgentChoice.h"

#include <string_view>
#include <vector>

#include "Commands/ControlSession.h"
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
  (void)reportUsage("there is no agent " + name +
                    (close ? "; did you mean " + std::string(*close) + "?" : "; the agents are " + list));
  return nullptr;
}

}  // namespace vimbrel
