// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vimbrel {

/// What a command ends with (docs/command-line.md).
namespace exitCode {
inline constexpr int done = 0;
inline constexpr int failed = 1;  ///< the answer is no, or the operation failed
inline constexpr int usage = 2;   ///< the command line is wrong
inline constexpr int notRunning = 3;
}  // namespace exitCode

}  // namespace vimbrel
