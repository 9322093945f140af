// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vimbrel {

/// What a process has used since it started, over all of its threads.
struct ProcessCost {
  double cpuMilliseconds = 0;         ///< /proc/PID/task/*/schedstat
  std::uint64_t wakeups = 0;          ///< voluntary context switches: it went to sleep and was woken
  std::uint64_t proportionalKiB = 0;  ///< Pss of /proc/PID/smaps_rollup, now
};
[[nodiscard]] ProcessCost costOf(pid_t pid);

/// How many processes there are.
[[nodiscard]] std::size_t processCount();

/// A child that is killed with this object, and with this process.
class Child {
 public:
  /// With no command, a process that waits for its end.
  Child(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment);
  ~Child();
  Child(Child&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
  Child& operator=(Child&&) = delete;
  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

}  // namespace vimbrel
