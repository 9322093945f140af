// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace vimbrel {

/// Parses the arguments of `vimbrel`, runs the subcommand they name and returns the exit status.
int runCommandLine(int argc, char** argv);

/// Shows the whole command line to `look`, without parsing or running anything: manual pages, completions and
/// translations are made from it.
void withCommandLine(const std::function<void(CLI::App&)>& look);

}  // namespace vimbrel
