// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>

#include <cstdint>
#include <vector>

#include "Support/Fd.h"

namespace vimbrel {

/// Tells which of some processes have ended, with one system call for all of them. Queue: one at a time.
class ExitWatch {
 public:
  /// Watching the same process again is counted. A process that cannot be watched counts as ended, so that
  /// its watcher looks at it each time.
  void add(std::int32_t pid);
  void remove(std::int32_t pid);

  /// Those that have ended, reaped or not, for as long as they are watched. Valid until the next call.
  [[nodiscard]] const std::vector<std::int32_t>& ended();

 private:
  struct Watched {
    std::int32_t pid = 0;
    int count = 0;
    Fd descriptor;
  };
  std::vector<Watched> watched_;
  std::vector<pollfd> polled_;  ///< parallel to `watched_`
  std::vector<std::int32_t> ended_;
};

}  // namespace vimbrel
