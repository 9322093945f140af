// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <expected>
#include <string>
#include <vector>

namespace vimbrel {

/// How a program is run: no shell, no terminal, no inherited descriptors, a process
/// group of its own that is killed as a whole when a bound is met.
struct SubprocessBounds {
  std::chrono::milliseconds timeout{3000};
  std::size_t maximumOutputBytes = 4096;
  /// What stands on its standard input: at most 4096 bytes, which every pipe holds.
  std::string input{};
};

enum class SubprocessFault { cannotLaunch, timedOut, tooMuchOutput };

struct SubprocessResult {
  int exitStatus = 0;  ///< the exit status, or 128 + the signal that ended it
  std::string output;  ///< standard output; standard error is thrown away
};

/// Runs `program` (an absolute path) with `arguments` (without the program's name) to its end.
/// Blocks the caller for at most the time-out; for background queues.
[[nodiscard]] std::expected<SubprocessResult, SubprocessFault> runProgram(
    const std::string& program, const std::vector<std::string>& arguments,
    const SubprocessBounds& bounds = {});

}  // namespace vimbrel
