// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/Linux/DesktopEntry.h"

namespace vimbrel {

/// Where desktop entries are found and how they are read.
struct DesktopEnvironment {
  std::vector<std::string> entryDirectories;  ///< the earlier ones win
  std::string locale;                         ///< of names; empty for none
  std::vector<std::string> searchPath;        ///< for programs that entries name without a path

  /// From `$XDG_DATA_HOME`, `$XDG_DATA_DIRS`, `$LC_ALL`, `$LC_MESSAGES`, `$LANG` and `$PATH`, plus the
  /// directories of Flatpak and Snap.
  [[nodiscard]] static DesktopEnvironment fromProcess();
};

/// True for interpreters and wrappers, which run whatever stands in their arguments.
[[nodiscard]] bool isProgramRunner(std::string_view name);

/// The installed desktop applications, by identifier and by program. Queue: one at a time.
class DesktopEntryIndex {
 public:
  using Entry = std::shared_ptr<const DesktopEntry>;

  explicit DesktopEntryIndex(DesktopEnvironment environment);

  /// Reads the entries again if a directory changed since the last time; true when it did. A few `stat`
  /// calls.
  bool refresh();

  [[nodiscard]] bool isEmpty() const { return byId_.empty(); }
  /// Null when there is none.
  [[nodiscard]] Entry byId(const std::string& id) const;
  /// By the program that a process executes (an absolute path without symbolic links).
  [[nodiscard]] Entry byProgram(const std::string& path) const;

 private:
  struct Launcher {
    Entry entry;
    std::string name;
  };

  void read();
  void readDirectory(const std::string& root);
  void add(DesktopEntry entry);
  [[nodiscard]] std::string resolve(const std::string& program) const;
  [[nodiscard]] std::vector<std::pair<std::string, long long>> stamps() const;

  const DesktopEnvironment environment_;
  std::vector<std::pair<std::string, long long>> stamps_;
  std::unordered_map<std::string, Entry> byId_;
  std::unordered_map<std::string, Entry> byProgram_;
  std::unordered_multimap<std::string, Launcher> byLauncherDirectory_;
};

}  // namespace vimbrel
