// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vimbrel {

/// One line of the process list.
struct ProcessEntry {
  std::int32_t pid = 0;
  std::string command;  ///< the whole command line, as `/bin/ps -axo pid,command` prints it
  bool operator==(const ProcessEntry&) const = default;
};

using ProcessEntries = std::shared_ptr<const std::vector<ProcessEntry>>;

/// The machine's processes. Queue: one at a time.
class ProcessList {
 public:
  virtual ~ProcessList() = default;

  /// Every process with its command line, ordered by pid; null when the list cannot be had. Never remembered.
  [[nodiscard]] virtual ProcessEntries readAll() = 0;

  /// Only the processes whose command satisfies `relevant`, ordered by pid. May remember what it saw before,
  /// so that an unchanged machine costs next to nothing: a process that execs into a relevant command is seen
  /// within two calls when it is young, and within 15 seconds when it is old; one that ended is gone at the
  /// next call. The same pointer is returned for as long as nothing changed. `relevant` must be the same
  /// function each time.
  [[nodiscard]] virtual ProcessEntries readRelevant(
      const std::function<bool(std::string_view command)>& relevant) = 0;
};

}  // namespace vimbrel
