// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Say.h"

namespace vimbrel {

/// What a command ends with (docs/command-line.md).
namespace exitCode {
inline constexpr int done = 0;
inline constexpr int failed = 1;  ///< the answer is no, or the operation failed
inline constexpr int usage = 2;   ///< the command line is wrong
inline constexpr int notRunning = 3;

/// What `--help`, the manual and the tests say of each.
struct Meaning {
  int status;
  const char* meaning;  ///< English, marked for `say`
};
inline constexpr Meaning meanings[] = {
    {done, toSay("done")},
    {failed, toSay("the answer is no, or the operation failed")},
    {usage, toSay("wrong usage: an unknown command, option, setting or value")},
    {notRunning, toSay("the application is not running")},
};
}  // namespace exitCode

}  // namespace vimbrel
