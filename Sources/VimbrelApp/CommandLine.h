// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vimbrel {

/// Parses the arguments of `vimbrel`, runs the subcommand they name and returns the exit status.
int runCommandLine(int argc, char** argv);

}  // namespace vimbrel
