// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "AgentMonitoring/Adapters/AgentAdapter.h"

namespace vimbrel {

/// Knows which adapters exist. Any thread.
class AgentRegistry {
 public:
  /// Registers the default adapters, looking at the given machine.
  explicit AgentRegistry(AgentEnvironment environment);

  /// (Re)inserts the eight adapters; `custom` has none.
  void registerDefaultAdapters();
  /// The registered adapter, or null.
  [[nodiscard]] std::shared_ptr<const AgentAdapter> adapter(AgentType agent) const;
  [[nodiscard]] std::vector<std::shared_ptr<const AgentAdapter>> allAdapters() const;

  /// Runs every adapter's detection, side by side, and waits for all: about as long as the slowest takes,
  /// which a version probe bounds at 3 seconds. For background queues and command lines.
  [[nodiscard]] std::map<AgentType, IntegrationStatus> detectAll() const;

 private:
  const AgentEnvironment environment_;
  mutable std::mutex lock_;
  std::map<AgentType, std::shared_ptr<const AgentAdapter>> adapters_;
};

}  // namespace vimbrel
