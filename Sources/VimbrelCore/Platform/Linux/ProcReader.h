// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Support/Fd.h"

namespace vimbrel {

/// Reads `/proc` with as few system calls as it takes. Queue: one at a time.
class ProcReader {
 public:
  enum class Kind : std::uint8_t {
    program,       ///< has, or may come to have, a command line
    kernelThread,  ///< can never run a program
    zombie,        ///< ended, not yet reaped
    unreadable,    ///< there, but its owner hides it
    gone,
  };

  ProcReader();

  /// False when `/proc` is missing, is not procfs, or shows the processes of another namespace.
  [[nodiscard]] bool isUsable() const { return usable_; }
  /// The highest pid that can be given, plus one.
  [[nodiscard]] std::int32_t pidLimit() const { return pidLimit_; }

  /// The pid of the task (process or thread) that was created last; absent when the kernel's own counter
  /// cannot be seen, as in some containers.
  [[nodiscard]] std::optional<std::int32_t> lastCreatedTask() const;

  /// Every process (threads are not listed), in ascending order. False when the directory cannot be read.
  [[nodiscard]] bool listProcesses(std::vector<std::int32_t>& pids);

  /// Puts the command that `ps` would print into `command` (untouched unless program, kernel thread, zombie).
  [[nodiscard]] Kind readCommand(std::int32_t pid, std::string& command);

  /// Processor time that the process's threads used since it began; absent when `pid` is no process but a
  /// thread, or is gone. It stands still exactly while the process does not run, so a process whose time is
  /// unchanged cannot have executed another program.
  [[nodiscard]] static std::optional<std::chrono::nanoseconds> processorTime(std::int32_t pid);

  /// A small file of one process, e.g. "cgroup"; empty when it cannot be read. At most 64 KiB.
  [[nodiscard]] std::string_view readFile(std::int32_t pid, const char* name);
  /// The target of one of the process's links, e.g. "exe"; empty when it cannot be read.
  [[nodiscard]] std::string readLink(std::int32_t pid, const char* name) const;
  /// 0 when unknown.
  [[nodiscard]] std::int32_t parentOf(std::int32_t pid);

 private:
  [[nodiscard]] Kind readName(std::int32_t pid, std::string& command);
  [[nodiscard]] std::optional<std::size_t> readInto(std::int32_t pid, const char* name, std::size_t bound,
                                                    int& code);

  Fd directory_;
  Fd loadAverage_;
  bool usable_ = false;
  std::int32_t pidLimit_ = 32768;
  std::size_t maximumCommandLength_ = 0;
  std::unique_ptr<char[]> buffer_;
};

}  // namespace vimbrel
