// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vimbrel {

/// Tells which files of a directory tree were written, created or removed, so that a tree of thousands of
/// files need not be walked to learn that nothing happened. Queue: one at a time; never blocks.
class TreeChanges {
 public:
  virtual ~TreeChanges() = default;
  /// The paths of files that may have changed since the call before, each once; absent when that is not known
  /// (at the first call, after too many changes at once, or where trees cannot be watched): then everything
  /// may have changed.
  [[nodiscard]] virtual std::optional<std::vector<std::string>> take() = 0;
};

/// Begins to watch the tree at `root`, which need not exist yet. Never null.
using TreeChangesFactory = std::function<std::unique_ptr<TreeChanges>(const std::string& root)>;

/// For where trees cannot be watched.
class UnknownTreeChanges final : public TreeChanges {
 public:
  [[nodiscard]] std::optional<std::vector<std::string>> take() override { return std::nullopt; }
};

}  // namespace vimbrel
