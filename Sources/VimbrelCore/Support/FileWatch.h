// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// Watches one file, by its name, for being written, replaced, created or removed: the directory is watched,
/// so that editors which replace the file are seen too. When the file is a symbolic link, its target is
/// watched as well. When the file goes, or a directory that it is in, it is looked for once a second until it
/// is there again.
class FileWatch {
 public:
  FileWatch();
  FileWatch(FileWatch&&) noexcept;
  FileWatch& operator=(FileWatch&&) noexcept;
  ~FileWatch();

  /// Calls `changed` on `queue` after changes, several at once perhaps, until the object is destroyed or
  /// assigned. `queue` must outlive that. Gives an inactive watch when the directory cannot be watched.
  static FileWatch start(const std::string& path, TaskQueue& queue, std::function<void()> changed);

  [[nodiscard]] bool isActive() const { return state_ != nullptr; }

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vimbrel
