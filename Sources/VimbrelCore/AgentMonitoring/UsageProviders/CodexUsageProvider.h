// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "AgentMonitoring/UsageProviders/CodexRollout.h"
#include "AgentMonitoring/UsageProviders/PollingUsageProvider.h"
#include "AgentMonitoring/UsageProviders/RecentFiles.h"

namespace vimbrel {

/// Reads the usage in Codex' session rollouts: the five newest of today and yesterday, every 2.5 seconds.
class CodexUsageProvider final : public PollingUsageProvider {
 public:
  /// `home` is Codex' directory ($CODEX_HOME or ~/.codex). The queue is labelled "com.vimbrel.usage.codex".
  /// `clock` and `card` must outlive the provider.
  CodexUsageProvider(const std::string& home, std::shared_ptr<TaskQueue> queue, const Clock& clock,
                     const ModelRateCard& card, const TreeChangesFactory& changes);

 private:
  std::vector<UsageEvent> readSource() override;
  bool sourceMayHaveChanged() override;
  void findReport() override;
  [[nodiscard]] std::vector<std::string> recentRollouts() const;
  /// The report of what was added since the state's position, if anything was; appends the events if wanted.
  std::optional<ProviderBudgetReport> parseFile(const std::string& path, CodexRolloutState& state,
                                                std::vector<UsageEvent>* events);
  [[nodiscard]] ProviderBudgetReport reportOf(const std::string& sessionId,
                                              const CodexReading& reading) const;
  std::shared_ptr<const std::vector<CodexFingerprint>> recordsOf(const std::string& id);

  const std::string sessions_;
  const ModelRateCard& card_;
  RecentFiles files_;
  bool changed_ = false;  // a tick saw that there is something to read
  CodexRolloutParser parser_;
  std::unordered_map<std::string, CodexRolloutState> fileOffsets_;
};

}  // namespace vimbrel
