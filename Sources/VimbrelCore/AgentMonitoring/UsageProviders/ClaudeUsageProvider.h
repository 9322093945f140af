// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "AgentMonitoring/UsageProviders/ClaudeLogLine.h"
#include "AgentMonitoring/UsageProviders/JsonLines.h"
#include "AgentMonitoring/UsageProviders/PollingUsageProvider.h"
#include "AgentMonitoring/UsageProviders/RecentFiles.h"

namespace vimbrel {

/// Reads the usage in Claude Code's conversation logs: the five newest, every 3 seconds.
class ClaudeUsageProvider final : public PollingUsageProvider {
 public:
  /// `roots` are the directories that hold "projects" (see `claudeRoots`); the first is the one that is
  /// logged. The queue is labelled "com.vimbrel.usage.claude". `clock` and `card` must outlive the provider.
  ClaudeUsageProvider(const std::vector<std::string>& roots, std::shared_ptr<TaskQueue> queue,
                      const Clock& clock, const ModelRateCard& card, const TreeChangesFactory& changes);

 private:
  std::vector<UsageEvent> readSource() override;
  bool sourceMayHaveChanged() override;
  void findReport() override;
  void tellDirectory(const ClaudeLogRecord& record) const;
  /// Appends the events that were added since `position`, if they are wanted, and gives the last one.
  std::optional<UsageEvent> parseFile(const std::string& path, JsonLinesPosition& position,
                                      std::vector<UsageEvent>* events);
  [[nodiscard]] ProviderBudgetReport reportOf(const UsageEvent& event, const std::string& path) const;

  RecentFiles files_;
  bool changed_ = false;  // a tick saw that there is something to read
  ClaudeLogParser parser_;
  std::unordered_map<std::string, JsonLinesPosition> fileOffsets_;
};

/// Where Claude Code keeps its state, most important first: every directory of the comma-separated
/// `configDirectories` ($CLAUDE_CONFIG_DIR), ".claude" in the home directory, and "claude" in the
/// configuration directory.
[[nodiscard]] std::vector<std::string> claudeRoots(const std::string& home, const std::string& configuration,
                                                   const std::string& configDirectories);

}  // namespace vimbrel
