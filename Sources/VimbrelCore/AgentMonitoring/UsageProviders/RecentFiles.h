// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/TreeChanges.h"
#include "Support/Clock.h"

namespace vimbrel {

/// Keeps the files of some directory trees with their modification times, so that the newest are known
/// without walking the trees again: changes are learned from `TreeChanges`, and a full walk now and then is
/// the safety net. Hidden entries are left out; links to directories are not followed. Queue: its owner's.
class RecentFiles {
 public:
  using Filter = std::function<bool(std::string_view fileName)>;

  /// `wanted` is asked with a file's name without its directory. `clock` must outlive the object.
  RecentFiles(std::vector<std::string> roots, Filter wanted, const TreeChangesFactory& changes,
              const Clock& clock);

  /// Takes in what happened; true when anything may have changed since the call before.
  bool refresh();
  /// The `count` newest files, newest first, of those known at the last `refresh`.
  [[nodiscard]] std::vector<std::string> newest(std::size_t count) const;
  /// When a known file was written last.
  [[nodiscard]] std::optional<Instant> modifiedAt(const std::string& path) const;
  /// Every file, in no order.
  [[nodiscard]] std::vector<std::string> all() const;

 private:
  struct Root {
    std::string path;
    std::unique_ptr<TreeChanges> changes;
  };
  void walk(const std::string& root);
  void look(const std::string& path);
  void forgetBelow(const std::string& root);

  const Filter wanted_;
  const Clock& clock_;
  std::vector<Root> roots_;
  std::unordered_map<std::string, std::chrono::nanoseconds> modified_;
  std::chrono::nanoseconds nextWalk_{0};
};

}  // namespace vimbrel
