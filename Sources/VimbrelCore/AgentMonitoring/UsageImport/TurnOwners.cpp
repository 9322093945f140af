// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageImport/TurnOwners.h"

namespace vimbrel {

bool TurnOwners::isOwnable(AgentType agent, std::string_view turn) {
  // Only ids that the vendor's service made are unique beyond their session; the numbered ones that stand in
  // for a missing id are not.
  return agent == AgentType::claude && turn.starts_with("msg_");
}

std::uint32_t TurnOwners::indexOf(std::string_view session) {
  const auto [entry, isNew] =
      sessionIndex_.try_emplace(std::string(session), static_cast<std::uint32_t>(sessions_.size()));
  if (isNew) sessions_.emplace_back(session);
  return entry->second;
}

void TurnOwners::assign(UsageEvent& event) {
  if (!event.turnId || !isOwnable(event.agentType, *event.turnId)) return;
  const std::lock_guard guard(lock_);
  const auto index = indexOf(event.sessionId);
  const auto [owner, isNew] = owners_.try_emplace(std::hash<std::string_view>{}(*event.turnId), index);
  if (!isNew && owner->second != index) event.sessionId = sessions_[owner->second];
}

void TurnOwners::learn(const UsageEventView& event) {
  if (!event.turnId || !isOwnable(event.agentType, *event.turnId)) return;
  const std::lock_guard guard(lock_);
  owners_.try_emplace(std::hash<std::string_view>{}(*event.turnId), indexOf(event.sessionId));
}

}  // namespace vimbrel
