// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

#include "Support/Fd.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// Watches one file, by its name, for being written, replaced, created or removed: the directory is watched,
/// so that editors which replace the file are seen too. When the file is a symbolic link, its target is
/// watched as well.
class FileWatch {
 public:
  FileWatch() = default;

  /// Calls `changed` on `queue` after changes, several at once perhaps, until the object is destroyed or
  /// assigned. Gives an inactive watch when the directory cannot be watched. `queue` must outlive it.
  static FileWatch start(const std::string& path, TaskQueue& queue, std::function<void()> changed);

  [[nodiscard]] bool isActive() const { return static_cast<bool>(descriptor_); }

 private:
  Fd descriptor_;
  Token token_;  // declared last: the watch ends before its descriptor is closed
};

}  // namespace vimbrel
