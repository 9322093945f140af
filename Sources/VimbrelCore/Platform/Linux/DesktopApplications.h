// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/DesktopEntryIndex.h"
#include "Platform/Linux/ProcessTable.h"
#include "Platform/RunningApplications.h"

namespace vimbrel {

/// The desktop applications that are running: processes in an application's own control group, and processes
/// that execute an installed application's program. Each running instance counts once, by its main process.
///
/// Only processes that the process table reports as new or changed are looked at, two or three small reads
/// each; with `readRelevant` called just before on the same table, an unchanged machine costs nothing.
class DesktopApplications final : public RunningApplications, private ProcessTableObserver {
 public:
  /// How often the directories of desktop entries are looked at for changes.
  static constexpr std::chrono::seconds entriesPeriod{30};

  /// `clock` must outlive this object.
  DesktopApplications(std::shared_ptr<ProcessTable> table, const Clock& clock,
                      DesktopEnvironment environment);
  ~DesktopApplications() override;

  [[nodiscard]] std::vector<RunningApplication> list() override;

 private:
  struct Found {
    std::string id;
    std::optional<std::string> name;
    std::string unit;          ///< of the control group; empty when recognised by the program
    std::int32_t mainPid = 0;  ///< as the unit tells, else 0
    std::int32_t parent = 0;
    bool operator==(const Found&) const = default;
  };

  void processChanged(std::int32_t pid, std::string_view command, ProcReader::Kind kind) override;
  void processGone(std::int32_t pid) override;
  void refreshEntries();
  void examine(std::int32_t pid);
  [[nodiscard]] std::optional<Found> recognise(std::int32_t pid);
  [[nodiscard]] DesktopEntryIndex::Entry entryOfProgram(std::int32_t pid);
  void rebuild();

  const std::shared_ptr<ProcessTable> table_;
  const Clock& clock_;
  DesktopEntryIndex index_;
  std::optional<std::chrono::nanoseconds> entriesCheckedAt_;
  std::vector<std::int32_t> pending_;  ///< to be examined
  std::map<std::int32_t, Found> found_;
  bool isOutdated_ = false;
  std::vector<RunningApplication> applications_;
};

}  // namespace vimbrel
