// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Terminal/StatusView.h"

namespace vimbrel {

int statusCommand(Output output) {
  const auto state = ask("status", nlohmann::json::object());
  if (!state) return state.error();
  if (output == Output::json) {
    printJson(*state);
  } else {
    printLines(statusLines(*state, outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO),
                           currentTime()));
  }
  return exitCode::done;
}

}  // namespace vimbrel
