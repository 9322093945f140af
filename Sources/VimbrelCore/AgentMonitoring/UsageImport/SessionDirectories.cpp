// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageImport/SessionDirectories.h"

#include <utility>

namespace vimbrel {

void SessionDirectories::hear(std::string_view session, std::string_view directory) {
  const std::lock_guard guard(lock_);
  if (!heard_.contains(session)) heard_.emplace(session, directory);
}

std::optional<std::string> SessionDirectories::directoryOf(std::string_view session) const {
  const std::lock_guard guard(lock_);
  const auto known = heard_.find(session);
  return known == heard_.end() ? std::nullopt : std::optional(known->second);
}

std::size_t SessionDirectories::size() const {
  const std::lock_guard guard(lock_);
  return heard_.size();
}

SessionDirectories::Map SessionDirectories::take() {
  const std::lock_guard guard(lock_);
  return std::exchange(heard_, {});
}

}  // namespace vimbrel
