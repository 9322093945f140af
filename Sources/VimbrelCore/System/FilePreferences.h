// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <vector>

#include "Support/FileWatch.h"
#include "Support/Log.h"
#include "System/Preferences.h"
#include "System/SettingDescriptions.h"

namespace vimbrel {

/// Preferences in one JSON object that people may edit while the application runs. Keys that it does not
/// know and the order of keys survive its writes. Dates are ISO 8601 texts.
///
/// Reading never writes. A file that is no JSON object leaves the last values that were read in force (the
/// defaults at the start); before the first write replaces such a file, it is kept beside it under another
/// name. Each thing that cannot be used is logged once for as long as it stands.
class FilePreferences final : public Preferences {
 public:
  /// Reads the file, which need not exist. `settings` are those whose values are checked; they must last.
  FilePreferences(std::string path, std::span<const SettingDescription> settings);
  ~FilePreferences() override;

  /// Follows edits of the file: reads it again on `queue` when it changes.
  void watch(TaskQueue& queue);
  /// Reads the file if it changed; announces `changedOutside` if values or
  /// warnings may have changed with it.
  void reload();

  [[nodiscard]] PreferenceValue value(std::string_view key, PreferenceType type) const override;
  [[nodiscard]] std::expected<void, PreferencesError> store(std::span<const Change> changes) override;
  [[nodiscard]] std::vector<std::string> warnings() const override;
  [[nodiscard]] std::string location() const override { return path_; }

 private:
  struct Document;
  /// True when the values in force may have changed. Under the lock.
  bool readFileLocked();
  /// As `readFileLocked`, and true when the warnings changed.
  bool rereadLocked();
  void noteWarningsLocked(std::vector<std::string> warnings);
  [[nodiscard]] std::expected<void, PreferencesError> storeLocked(std::span<const Change> changes);
  [[nodiscard]] std::expected<void, PreferencesError> keepAsideLocked(const std::string& path);

  const std::string path_;
  const std::span<const SettingDescription> settings_;
  const Logger logger_{"settings"};
  mutable std::mutex lock_;
  std::unique_ptr<Document> document_;
  std::vector<std::string> warnings_;
  FileWatch watch_;
};

}  // namespace vimbrel
