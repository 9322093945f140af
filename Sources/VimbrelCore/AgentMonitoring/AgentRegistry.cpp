// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/AgentRegistry.h"

#include <thread>
#include <utility>
#include <vector>

#include "AgentMonitoring/Adapters/ClaudeCodeAdapter.h"
#include "AgentMonitoring/Adapters/CodexAdapter.h"
#include "AgentMonitoring/Adapters/GeminiAdapter.h"
#include "AgentMonitoring/Adapters/OpenCodeAdapter.h"
#include "AgentMonitoring/Adapters/ProcessAdapters.h"
#include "Support/TryThread.h"

namespace vimbrel {

AgentRegistry::AgentRegistry(AgentEnvironment environment) : environment_(std::move(environment)) {
  registerDefaultAdapters();
}

void AgentRegistry::registerDefaultAdapters() {
  const std::lock_guard guard(lock_);
  adapters_[AgentType::claude] = std::make_shared<ClaudeCodeAdapter>(environment_);
  adapters_[AgentType::codex] = std::make_shared<CodexAdapter>(environment_);
  adapters_[AgentType::gemini] = std::make_shared<GeminiAdapter>(environment_);
  adapters_[AgentType::opencode] = std::make_shared<OpenCodeAdapter>(environment_);
  adapters_[AgentType::antigravity] = std::make_shared<AntigravityAdapter>(environment_);
  adapters_[AgentType::cursor] = std::make_shared<CursorAdapter>(environment_);
  adapters_[AgentType::windsurf] = std::make_shared<WindsurfAdapter>(environment_);
  adapters_[AgentType::aider] = std::make_shared<AiderAdapter>(environment_);
}

std::shared_ptr<const AgentAdapter> AgentRegistry::adapter(AgentType agent) const {
  const std::lock_guard guard(lock_);
  const auto found = adapters_.find(agent);
  return found == adapters_.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<const AgentAdapter>> AgentRegistry::allAdapters() const {
  const std::lock_guard guard(lock_);
  std::vector<std::shared_ptr<const AgentAdapter>> adapters;
  for (const auto& [agent, adapter] : adapters_) adapters.push_back(adapter);
  return adapters;
}

std::map<AgentType, IntegrationStatus> AgentRegistry::detectAll() const {
  const auto adapters = allAdapters();
  std::vector<IntegrationStatus> statuses(adapters.size());
  {
    std::vector<std::jthread> detections;
    for (std::size_t i = 0; i < adapters.size(); ++i) {
      const auto detect = [&statuses, &adapters, i] { statuses[i] = adapters[i]->detect(); };
      if (auto detection = tryThread(detect)) {
        detections.push_back(std::move(*detection));
      } else {
        detect();
      }
    }
  }
  std::map<AgentType, IntegrationStatus> result;
  for (std::size_t i = 0; i < adapters.size(); ++i)
    result.emplace(adapters[i]->agentType(), std::move(statuses[i]));
  return result;
}

}  // namespace vimbrel
