// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vimbrel {

/// One desktop application that is running.
struct RunningApplication {
  std::optional<std::string> localizedName;  ///< as the desktop shows it
  std::string bundleIdentifier;              ///< the desktop entry's id; may be empty
  std::int32_t pid = 0;
  bool operator==(const RunningApplication&) const = default;
};

/// The desktop applications that are running, as opposed to every process.
class RunningApplications {
 public:
  virtual ~RunningApplications() = default;
  /// In the order of their pids. Queue: one at a time.
  [[nodiscard]] virtual std::vector<RunningApplication> list() = 0;
};

}  // namespace vimbrel
