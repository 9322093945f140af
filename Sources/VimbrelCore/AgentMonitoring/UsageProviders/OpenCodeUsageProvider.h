// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "AgentMonitoring/UsageProviders/OpenCodeDatabase.h"
#include "AgentMonitoring/UsageProviders/PollingUsageProvider.h"

namespace vimbrel {

/// Reads the newest messages of OpenCode's database, every 3 seconds. A message is delivered when it is first
/// seen with tokens, and again when a later poll finds that it counted more: its row is rewritten while it
/// streams.
class OpenCodeUsageProvider final : public PollingUsageProvider {
 public:
  /// The queue is labelled "com.vimbrel.usage.opencode". `clock` and `card` must outlive the provider.
  OpenCodeUsageProvider(std::string databasePath, std::shared_ptr<TaskQueue> queue, const Clock& clock,
                        const ModelRateCard& card);

 private:
  std::vector<UsageEvent> readSource() override;
  bool sourceMayHaveChanged() override;
  void findReport() override;
  void considerReport(const OpenCodeUsage& usage);
  void tellDirectories(const std::vector<UsageEvent>& events);

  const OpenCodeDatabase database_;
  OpenCodeMessageParser parser_;
  /// Each message delivered, with the total it was delivered with.
  std::unordered_map<std::string, std::int64_t> knownMessageIds_;
  std::optional<OpenCodeDatabase::Version> lastRead_;
  std::unordered_set<std::string> toldSessions_;  ///< their directories were told
};

}  // namespace vimbrel
