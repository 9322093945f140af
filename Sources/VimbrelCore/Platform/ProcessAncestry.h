// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Support/Instant.h"

namespace vimbrel {

/// One process for as long as it lives: its id may be given to another one afterwards.
struct ProcessIdentity {
  std::int32_t pid = 0;
  std::uint64_t startMark = 0;  ///< when it started, in a unit of the operating system's
  bool operator==(const ProcessIdentity&) const = default;
};

struct AncestorProcess {
  ProcessIdentity identity;
  std::string command;  ///< as `/bin/ps -axo command` prints it
  Seconds age{0};       ///< since it started
};

/// Where a process comes from. Any thread.
class ProcessAncestry {
 public:
  virtual ~ProcessAncestry() = default;
  /// The process itself, its parent, and so on up to the first of all; at most 32, and none when it is gone.
  [[nodiscard]] virtual std::vector<AncestorProcess> ancestorsOf(std::int32_t pid) = 0;
  /// False once it has ended, reaped or not.
  [[nodiscard]] virtual bool isAlive(const ProcessIdentity& process) = 0;
};

}  // namespace vimbrel
