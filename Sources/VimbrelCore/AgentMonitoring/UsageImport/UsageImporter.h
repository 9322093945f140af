// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "AgentMonitoring/UsageImport/ImportIndex.h"
#include "AgentMonitoring/UsageImport/TurnOwners.h"
#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "Domain/ModelRateCard.h"
#include "Support/Clock.h"

namespace vimbrel {

/// Where the agents keep their records.
struct UsageSources {
  std::vector<std::string> claudeRoots;  ///< directories that hold "projects"
  std::string codexHome;                 ///< holds "sessions" and "archived_sessions"
  std::string openCodeDirectory;         ///< holds "opencode.db" and "opencode-<channel>.db"

  /// From the environment: $CLAUDE_CONFIG_DIR, $CODEX_HOME, $XDG_DATA_HOME.
  [[nodiscard]] static UsageSources ofUser();
  [[nodiscard]] std::string openCodeDatabase() const { return openCodeDirectory + "/opencode.db"; }
};

struct ImportProgress {
  std::size_t filesDone = 0;
  std::size_t filesInAll = 0;
  std::uint64_t bytesDone = 0;
  std::uint64_t bytesInAll = 0;
};

struct ImportResult {
  std::size_t filesRead = 0;
  std::size_t filesUnchanged = 0;  ///< not opened, because nothing changed since they were read or forgotten
  std::size_t filesFailed = 0;     ///< could not be read to their end; tried again next time
  std::uint64_t bytesRead = 0;
  std::size_t eventsFound = 0;
  std::size_t eventsRecorded = 0;  ///< new, or replacing ones that counted less
};

/// Reads the whole history of Claude Code, Codex and OpenCode into the usage store, each record with its own
/// time and with the deduplication key that the live reading gives it. Blocks its caller; for background
/// threads.
class UsageImporter {
 public:
  /// Everything must outlive the importer. `threads` read and parse side by side.
  UsageImporter(UsageSources sources, UsageStore& store, ImportIndex& index, TurnOwners& owners,
                const ModelRateCard& card, const Clock& clock, unsigned threads);

  /// `progress` is called now and then, on the caller's thread; `cancelled` ends the import early, keeping
  /// what was recorded.
  ImportResult run(const std::function<void(const ImportProgress&)>& progress = {},
                   const std::atomic<bool>* cancelled = nullptr);

 private:
  struct File;
  struct Found;
  struct Tools;
  [[nodiscard]] std::vector<File> filesToRead(ImportResult& result) const;
  [[nodiscard]] Found readFile(const File& file, Tools& tools) const;
  [[nodiscard]] Found readClaude(const File& file, Tools& tools) const;
  [[nodiscard]] Found readCodex(const File& file) const;
  [[nodiscard]] Found readOpenCode(const File& file) const;

  const UsageSources sources_;
  UsageStore& store_;
  ImportIndex& index_;
  TurnOwners& owners_;
  const ModelRateCard& card_;
  const Clock& clock_;
  const unsigned threads_;
};

}  // namespace vimbrel
